#pragma once

// Driving the hosted source from a test: what a completion delivered, how often and on
// which thread; the operations started one way; the errors they end with.

#include "base/QKDeviceInfo.h"
#include "base/QKError.h"
#include "base/QKURLSession.h"
#include "data/QKPlatformFeedbackSource.h"

#include <QImage>
#include <QTest>
#include <QThread>

#include <atomic>
#include <mutex>
#include <optional>

// Filled on the network thread or a global-queue thread, read by the test's thread.
struct Outcome
{
    using Source = QKPlatformFeedbackSource;

    std::mutex mutex; // a pthread lock, which ThreadSanitizer sees
    int calls = 0;
    QThread *thread = nullptr;
    std::optional<QKFeedbackItemList> items;
    QImage image;
    std::optional<QKError> error;
    QByteArray body;
    int status = 0;

    bool done() { return count() > 0; }
    int count()
    {
        std::lock_guard lock(mutex);
        return calls;
    }
    // Sets the delivered fields under the lock and counts the call.
    template <class Set = void (*)()>
    void record(
        std::optional<QKError> e, Set set = [] {})
    {
        std::lock_guard lock(mutex);
        set();
        ++calls;
        thread = QThread::currentThread();
        error = e;
    }
    Source::ItemsCompletion items_()
    {
        return [this](std::optional<QKFeedbackItemList> list, std::optional<QKError> e) {
            record(e, [&] { items = list; });
        };
    }
    Source::ErrorCompletion error_()
    {
        return [this](std::optional<QKError> e) { record(e); };
    }
    Source::ImageCompletion image_()
    {
        return [this](QImage i, std::optional<QKError> e) { record(e, [&] { image = i; }); };
    }
    QKURLSession::Completion task_()
    {
        return [this](const QByteArray &b, int s, std::optional<QKError> e) {
            record(e, [&] {
                body = b;
                status = s;
            });
        };
    }
};

// Runs the session's network queue through twice more: a second completion of a task
// that has ended would be queued before these and show in the count.
inline bool settle(QKURLSession &session)
{
    for (int round = 0; round < 2; ++round) {
        auto ran = std::make_shared<std::atomic<bool>>(false);
        QKURLRequest fence;
        fence.url = QUrl("about:blank");
        session.dataTask(fence, [ran](const QByteArray &, int, std::optional<QKError>) { *ran = true; });
        if (!QTest::qWaitFor([&] { return ran->load(); }, 5000))
            return false;
    }
    return true;
}

// The completion came, once, and not on the main thread.
#define WAIT_ONCE(outcome, session)                                                                                    \
    do {                                                                                                               \
        QTRY_VERIFY_WITH_TIMEOUT((outcome).done(), 20000);                                                             \
        QVERIFY(settle(session));                                                                                      \
        QCOMPARE((outcome).count(), 1);                                                                                \
        QVERIFY((outcome).thread != qApp->thread());                                                                   \
    } while (false)

enum class Op { List, Send, Edit, Delete, Image, Comments, Comment, Batch };

// The message each operation's failure carries, in the order of Op.
inline QString failureMessage(Op op)
{
    static const char *const messages[] = {"Feedback could not be retrieved",
                                           "Feedback could not be send",
                                           "Feedback could not be edit",
                                           "Feedback could not be deleted",
                                           "Feedback screenshot could not be retrieved",
                                           "Feedback comments could not be retrieved",
                                           "Feedback comments could not be send",
                                           "Feedback could not be send"};
    return QString::fromLatin1(messages[int(op)]);
}

inline QKError platformError(qint64 code, const QString &message)
{
    return QKError::withMessage("Wendax Platform", code, message);
}

inline QString describe(const std::optional<QKError> &error)
{
    return error ? QStringLiteral("%1 %2: %3").arg(error->domain()).arg(error->code()).arg(error->message())
                 : QString();
}

// Starts `op` for thread `key`; a listing or an edit goes by `state` (an edit to
// "Resolved" when it is null). Returns the item sent: a comment starts with a key.
inline QKFeedbackItemPtr start(QKPlatformFeedbackSource &s, Op op, Outcome &outcome, const QString &key = "K1",
                               const QString &state = QString())
{
    auto item = QKFeedbackItem::create();
    item->setText("text");
    switch (op) {
    case Op::List:
        s.feedbackItemsByState(state, 0, outcome.items_());
        break;
    case Op::Send:
        s.addFeedback(item, outcome.error_());
        break;
    case Op::Edit:
        s.editWithKey(key, state.isNull() ? "Resolved" : state, outcome.error_());
        break;
    case Op::Delete:
        s.deleteWithKey(key, outcome.error_());
        break;
    case Op::Image:
        s.imageForKey(s.baseURL() + "/x.png", outcome.image_());
        break;
    case Op::Comments:
        s.subItemsForKey(key, outcome.items_());
        break;
    case Op::Comment:
        item->setKey("before");
        s.addSubItemForKey(key, item, outcome.error_());
        break;
    case Op::Batch: {
        auto second = QKFeedbackItem::create();
        second->setText("second");
        s.addFeedbackItems({item, second}, outcome.error_());
        break;
    }
    }
    return item;
}

// The device every new item describes.
inline void useTestDevice()
{
    QKDeviceInfo::setProviders({[] { return "Test Phone"; }, [] { return "17.2"; }, [] { return "com.example.notes"; },
                                [] { return QString(); }, [] { return QSizeF(375, 667); }});
}
