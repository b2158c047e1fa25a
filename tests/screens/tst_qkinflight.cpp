// Screens closed while their request is still on the wire. The answer comes later on
// the network thread and is handed to the main one, where it must find the screen gone
// and leave it alone. Every screen that asks the data source for something is opened,
// made to ask, and closed the ways a host closes it, round after round.

#include "base/QKDispatch.h"
#include "base/QKDocumentsDirectory.h"
#include "base/QKPNGCodec.h"
#include "annotation/QKFeedbackSendViewController.h"
#include "annotation/QKFeedbackSurfaceView.h"
#include "core/QKFeedback.h"
#include "data/QKPlatformFeedbackSource.h"
#include "kit/QKActionSheet.h"
#include "kit/QKAlertView.h"
#include "kit/QKAnimation.h"
#include "kit/QKTableView.h"
#include "screens/QKFeedbackItemDetailsViewController.h"
#include "screens/QKFeedbackYourItemsViewController.h"
#include "support/FakeService.h"
#include "support/ScreenDriver.h"

#include <QApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <cstring>
#include <malloc.h>
#include <thread>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SCRIBBLE_FREED_MEMORY 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SCRIBBLE_FREED_MEMORY 0
#endif
#endif
#ifndef SCRIBBLE_FREED_MEMORY
#define SCRIBBLE_FREED_MEMORY 1
#endif

#if SCRIBBLE_FREED_MEMORY
// Without a sanitizer, freed memory is scribbled over, so that an answer reaching a
// deleted screen follows garbage pointers and crashes here too.
void operator delete(void *p) noexcept
{
    if (p)
        std::memset(p, 0xdb, malloc_usable_size(p));
    std::free(p);
}
void operator delete(void *p, std::size_t) noexcept
{
    operator delete(p);
}
#endif

using namespace ScreenDriver;

namespace {

const QString Key = QStringLiteral("APP");
const QString Device = QStringLiteral("device-1");

// The hosted source, counting its requests and telling the main thread when each answer
// has been handed on. The screen's own main-queue block is posted first, so it has run
// by the time `delivered` counts the answer.
class CountingSource : public QKPlatformFeedbackSource
{
public:
    using QKPlatformFeedbackSource::feedbackItemsByState;
    using QKPlatformFeedbackSource::QKPlatformFeedbackSource;

    int started = 0;
    int delivered = 0;

    bool idle() const { return delivered == started; }

    void feedbackItemsByState(const QString &state, qint64 skip, ItemsCompletion done) override
    {
        QKPlatformFeedbackSource::feedbackItemsByState(state, skip, counted(done));
    }
    void imageForKey(const QString &key, ImageCompletion done) override
    {
        QKPlatformFeedbackSource::imageForKey(key, counted(done));
    }
    void subItemsForKey(const QString &key, ItemsCompletion done) override
    {
        QKPlatformFeedbackSource::subItemsForKey(key, counted(done));
    }
    void addSubItemForKey(const QString &key, const QKFeedbackItemPtr &item, ErrorCompletion done) override
    {
        QKPlatformFeedbackSource::addSubItemForKey(key, item, counted(done));
    }
    void addFeedbackItems(const QKFeedbackItemList &items, ErrorCompletion done) override
    {
        QKPlatformFeedbackSource::addFeedbackItems(items, counted(done));
    }

private:
    template <class Completion>
    Completion counted(Completion done)
    {
        ++started;
        return [this, done](auto... args) {
            done(args...);
            QKDispatch::async(QKDispatch::mainQueue(), [this] { ++delivered; });
        };
    }
};

// Runs the event loop until `done` holds or five seconds pass; the timer only wakes the
// loop to look at the clock.
template <class Done>
bool waitFor(Done done)
{
    QDeadlineTimer deadline(5000);
    QTimer tick;
    tick.start(50);
    while (!done() && !deadline.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    return done();
}

} // namespace

class TestInFlight : public QObject
{
    Q_OBJECT

    QTemporaryDir m_documents;
    QKWindow *m_window = nullptr;
    FakeService m_service;
    QSharedPointer<CountingSource> m_source;
    QByteArray m_page, m_png;

    // Every answer of the fake waits `delayMs`, which a real service cannot be made to do;
    // with `failing` the listing fails.
    void answerAfter(int delayMs, bool failing)
    {
        const auto after = [delayMs](int status, const QByteArray &body, const QByteArray &type) {
            FakeService::Answer answer;
            answer.status = status;
            answer.body = body;
            answer.contentType = type;
            answer.delayMs = delayMs;
            return answer;
        };
        m_service.clearAnswers();
        m_service.answer("GET", QStringLiteral("/threads"),
                         failing ? after(500, R"({"code":500,"message":"Down for a moment"})", "application/json")
                                 : after(200, m_page, "application/json"));
        m_service.answer("GET", QStringLiteral("^/images/"), after(200, m_png, "image/png"));
        m_service.answer("POST", QStringLiteral("/threads"),
                         after(200, R"({"Id":"c1","Text":"Seen","Author":"Ada","State":"Open"})", "application/json"));
    }

    // Opens the menu's `button` screen, as a person would.
    template <class Screen>
    Screen *open(int button)
    {
        QKFeedback::sharedInstance()->showFeedback(-1);
        if (QKActionSheet::visibleSheets().size() != 1)
            return nullptr;
        tapWindow(m_window, QKActionSheet::visibleSheets().first()->rectForButtonAtIndex(button).center());
        waitFor([] { return topScreen<Screen>() != nullptr; });
        return topScreen<Screen>();
    }

    // A list whose first page has come in, live.
    QKFeedbackYourItemsViewController *loadedList()
    {
        auto *list = open<QKFeedbackYourItemsViewController>(1);
        if (!list || !waitFor([this] { return m_source->idle(); }))
            return nullptr;
        return list->feedbackItems().size() == 20 && !list->itemsTableView()->isHidden() ? list : nullptr;
    }

    // Details pushed from a loaded list, with the screenshot and comments fetched.
    QKFeedbackItemDetailsViewController *loadedDetails()
    {
        QKFeedbackYourItemsViewController *list = loadedList();
        if (!list)
            return nullptr;
        list->didSelectRowAtIndexPath(list->itemsTableView(), QKIndexPath(0, 0));
        auto *details = topScreen<QKFeedbackItemDetailsViewController>();
        if (!details || !waitFor([this] { return m_source->idle(); }))
            return nullptr;
        return details->feedbackTableView()->isHidden() ? nullptr : details;
    }

private slots:
    void initTestCase()
    {
        QKSetDocumentsDirectory(m_documents.path());
        QKAnimation::setAnimationsEnabled(false);
        QVERIFY(m_service.listen());
        QImage shot(60, 120, QImage::Format_RGB32);
        shot.fill(QColor(52, 120, 246));
        m_png = QKPNGCodec::encode(shot);
        QJsonArray page;
        // A page longer than the screen, so that only a pull asks for the next one.
        for (int i = 1; i <= 20; ++i)
            page.append(QJsonObject{{"Id", QString::number(i)},
                                    {"Text", QStringLiteral("Item %1").arg(i)},
                                    {"State", "Open"},
                                    {"Image", QJsonObject{{"Uri", m_service.origin() + QStringLiteral("/images/1")}}}});
        m_page = QJsonDocument(page).toJson(QJsonDocument::Compact);

        auto session = QSharedPointer<QKURLSession>::create();
        session->addCaCertificates(FakeService::caCertificates());
        m_source = QSharedPointer<CountingSource>::create(Key, Device, m_service.baseUrl(), QVariantMap());
        m_source->setSession(session);
        QKFeedback::setDataSource(m_source);
        m_source->setUserName(QStringLiteral("Ada"));
        QKFeedback::feedbackSettings()->setShowFeedbackSentAlert(false);

        m_window = ScreenDriver::phoneWindow(new QKViewController);
        QVERIFY(QTest::qWaitForWindowActive(m_window));
    }
    void cleanupTestCase() { delete m_window; }

    void screensClosedWhileAsking()
    {
        const int rounds = qEnvironmentVariableIntValue("MURMORA_INFLIGHT_ROUNDS") > 0
                               ? qEnvironmentVariableIntValue("MURMORA_INFLIGHT_ROUNDS")
                               : 1000;
        enum Ask { FirstPage, NextPage, ImageAndComments, Comment, Send, Asks };
        int inFlightWhenGone = 0;
        QElapsedTimer clock;
        clock.start();
        for (int round = 0; round < rounds; ++round) {
            const int ask = round % Asks;
            // Half the closings go through the screens' own Back, the others delete the
            // stack outright, as a host tearing its window down would.
            const bool back = (round / Asks) % 2 == 0;
            answerAfter(1 + round % 7, ask == FirstPage && round % 3 == 0);

            QPointer<QKViewController> asking;
            switch (ask) {
            case FirstPage:
                asking = open<QKFeedbackYourItemsViewController>(1);
                break;
            case NextPage:
                if (auto *list = loadedList()) {
                    list->refreshControl()->sendActions(QKControl::ValueChanged);
                    asking = list;
                }
                break;
            case ImageAndComments:
                if (auto *list = loadedList()) {
                    list->didSelectRowAtIndexPath(list->itemsTableView(), QKIndexPath(0, 1));
                    asking = topScreen<QKFeedbackItemDetailsViewController>();
                }
                break;
            case Comment:
                if (auto *details = loadedDetails()) {
                    details->sendComment(QStringLiteral("Seen"));
                    asking = details;
                }
                break;
            case Send:
                if (auto *send = open<QKFeedbackSendViewController>(0)) {
                    send->touchesEnded(send->surfaceView()->frame().center());
                    send->feedbackTextView(send->textView(), QStringLiteral("Broken"));
                    send->sendTouched(nullptr);
                    asking = send;
                }
                break;
            }
            QVERIFY2(asking, qPrintable(QStringLiteral("round %1: the screen did not open").arg(round)));
            QVERIFY2(!m_source->idle(), "nothing was asked");

            if (!back)
                delete shownNavigation();
            else if (auto *details = qobject_cast<QKFeedbackItemDetailsViewController *>(asking.data()))
                details->navigationController()->popViewControllerAnimated(false);
            else if (auto *list = qobject_cast<QKFeedbackYourItemsViewController *>(asking.data()))
                list->backTouched();
            else
                static_cast<QKFeedbackSendViewController *>(asking.data())->backTouched(nullptr);
            QVERIFY(waitFor([&] { return !asking; }));
            inFlightWhenGone += !m_source->idle();

            QVERIFY2(waitFor([this] { return m_source->idle(); }), qPrintable(QStringLiteral("round %1").arg(round)));
            // A closed screen's answer shows nothing, not even a failed listing's alert.
            QVERIFY2(QKAlertView::visibleAlerts().isEmpty(), qPrintable(QStringLiteral("round %1").arg(round)));
            // A popped details screen leaves its list to close.
            if (QKNavigationController *left = shownNavigation())
                left->dismissViewControllerAnimated(false);
            // Closing by deletion must leave feedback able to open again.
            QVERIFY(waitFor([] { return !QKFeedback::feedbackIsShown(); }));
        }
        qInfo("%d rounds in %lld ms, %d answers came after their screen had gone", rounds, clock.elapsed(),
              inFlightWhenGone);
        // Closing is quicker than the service's delay: nearly every answer finds its screen gone.
        QVERIFY(inFlightWhenGone > rounds * 9 / 10);
    }

    void mainThreadCheckStopsOtherThreads()
    {
        if (qEnvironmentVariableIsSet("MURMORA_CHECK_OFF_MAIN")) {
            std::thread([] { QKAssertMainThread(); }).join();
            return;
        }
        QKAssertMainThread();
        QProcess child;
        child.setProcessChannelMode(QProcess::MergedChannels);
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("MURMORA_CHECK_OFF_MAIN"), QStringLiteral("1"));
        child.setProcessEnvironment(environment);
        child.start(QCoreApplication::applicationFilePath(), {QStringLiteral("mainThreadCheckStopsOtherThreads")});
        QVERIFY(child.waitForFinished(60000));
        QCOMPARE(child.exitStatus(), QProcess::CrashExit);
        const QByteArray said = child.readAll();
        QVERIFY2(said.contains("mainThreadCheckStopsOtherThreads") && said.contains("must run on the main thread"),
                 said.constData());
    }
};

QTEST_MAIN(TestInFlight)
#include "tst_qkinflight.moc"
