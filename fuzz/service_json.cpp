// The service's answers, read as each operation reads them: the listing, a thread's
// comments, the answer to a new comment, and the error-or-nothing answer of a new
// item, an edit or a deletion. Every input goes through all of them.

#include "FuzzSupport.h"

#include "base/QKServiceDate.h"
#include "data/QKPlatformFeedbackSource_p.h"

#include <QJsonArray>

#include <limits>

using namespace QKPlatformAnswer;

namespace {

// Dates either fail or survive the service's own format.
void checkDate(const QDateTime &date)
{
    if (date.isValid() && date.date().year() >= 1 && date.date().year() <= 9999)
        FUZZ_CHECK(QKServiceDate::parse(QKServiceDate::format(date)) == date);
}

void checkError(const QJsonValue &answer, const std::optional<QKError> &error)
{
    const bool hasCode = answer.isObject() && !answer.toObject().value(QStringLiteral("code")).isUndefined() &&
                         !answer.toObject().value(QStringLiteral("code")).isNull();
    FUZZ_CHECK(error.has_value() == hasCode);
    if (!error)
        return;
    FUZZ_CHECK(error->code() >= std::numeric_limits<qint32>::min() &&
               error->code() <= std::numeric_limits<qint32>::max());
    FUZZ_CHECK(!error->message().isNull());
    const QJsonValue code = answer.toObject().value(QStringLiteral("code"));
    const double number = code.toDouble();
    if (code.isDouble() && number == std::trunc(number) && std::fabs(number) <= 2147483647.0)
        FUZZ_CHECK(error->code() == qint64(number));
    const QJsonValue message = answer.toObject().value(QStringLiteral("message"));
    if (message.isString())
        FUZZ_CHECK(error->message() == message.toString());
}

void checkThreads(const QJsonValue &answer, const QKFeedbackItemList &items, bool listing)
{
    qsizetype objects = 0;
    for (const QJsonValue &element : answer.toArray())
        objects += element.isObject() ? 1 : 0;
    FUZZ_CHECK(items.size() == objects);
    for (const QKFeedbackItemPtr &item : items) {
        checkDate(item->createdAt());
        checkDate(item->modifiedAt());
        FUZZ_CHECK(item->subItems() && item->subItems()->isEmpty());
        const QVariantMap params = item->params();
        if (!listing) {
            FUZZ_CHECK(params.isEmpty() && item->state().isNull());
            continue;
        }
        for (auto it = params.cbegin(); it != params.cend(); ++it)
            FUZZ_CHECK(it.key() == QLatin1String("ImageUri") || it.key() == QLatin1String("CommentsCount"));
        if (params.contains(QStringLiteral("ImageUri")))
            FUZZ_CHECK(params.value(QStringLiteral("ImageUri")).metaType().id() == QMetaType::QString);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    Fuzz::makeApplication();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray body(reinterpret_cast<const char *>(data), qsizetype(size));
    const QJsonValue answer = parseJSON(body);
    FUZZ_CHECK(answer.isUndefined() || answer.isArray() || answer.isObject());

    // New item, edit, deletion: an error or nothing.
    const std::optional<QKError> error = errorAnswer(answer, "Feedback could not be send");
    checkError(answer, error);
    if (error)
        return 0;

    // Listing and comments.
    checkThreads(answer, readThreads(answer, true), true);
    checkThreads(answer, readThreads(answer, false), false);

    // A new comment takes what the service stored; absent fields clear the record's.
    auto comment = QKFeedbackItem::create();
    comment->setText(QStringLiteral("sent"));
    readThread(*comment, answer.toObject());
    checkDate(comment->createdAt());
    checkDate(comment->modifiedAt());
    if (!answer.toObject().value(QStringLiteral("Text")).isString())
        FUZZ_CHECK(comment->text().isNull());
    return 0;
}
