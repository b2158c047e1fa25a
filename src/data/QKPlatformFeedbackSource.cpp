#include "QKPlatformFeedbackSource.h"
#include "QKPlatformFeedbackSource_p.h"

#include "../base/QKBase64.h"
#include "../base/QKDeviceInfo.h"
#include "../base/QKDispatch.h"
#include "../base/QKException.h"
#include "../base/QKLocalizedString.h"
#include "../base/QKPNGCodec.h"
#include "../base/QKServiceDate.h"

#include <QJsonArray>
#include <QUuid>
#include <QJsonDocument>

#include <cmath>
#include <semaphore>
#include <limits>

namespace {

const QByteArray SortNewestFirst = QByteArrayLiteral("{\"CreatedAt\" : -1}");

// How the platform prints a nil object into a format.
QString orNull(const QString &text)
{
    return text.isNull() ? QStringLiteral("(null)") : text;
}

// The URL text is built first and then parsed, as it stands.
QUrl parseURL(const QString &text)
{
    return QUrl(text, QUrl::StrictMode);
}

QKError serviceError(qint64 code, const QString &message)
{
    return QKError::withMessage(QKLocalizedString("Wendax Platform"), code, message);
}

QKError transportFailure(const QKError &transport, const char *message)
{
    return serviceError(transport.code(), QKLocalizedString(message));
}

// The "code" of an error answer as a 32-bit signed integer, whether number or text.
qint64 serviceCode(const QJsonValue &value)
{
    if (value.isDouble()) {
        // Whole numbers keep their low 32 bits, as a C conversion to int does.
        const double number = std::trunc(value.toDouble());
        if (!(std::fabs(number) < 9.2e18))
            return 0;
        return qint64(qint32(quint32(quint64(qint64(number)))));
    }
    if (value.isBool())
        return value.toBool() ? 1 : 0;
    if (!value.isString())
        return 0;
    // Leading blanks, a sign and digits, like the platform's intValue; saturating.
    const QString text = value.toString().trimmed();
    qsizetype at = 0;
    bool negative = false;
    if (at < text.size() && (text[at] == QLatin1Char('+') || text[at] == QLatin1Char('-')))
        negative = text[at++] == QLatin1Char('-');
    qint64 result = 0;
    for (; at < text.size() && text[at].isDigit() && text[at].unicode() < 128; ++at) {
        result = result * 10 + (text[at].unicode() - '0');
        if (result > qint64(std::numeric_limits<qint32>::max()) + 1)
            break;
    }
    result = negative ? -result : result;
    return qBound(qint64(std::numeric_limits<qint32>::min()), result, qint64(std::numeric_limits<qint32>::max()));
}

QString stringField(const QJsonObject &object, const char *key)
{
    const QJsonValue value = object.value(QLatin1String(key));
    return value.isString() ? value.toString() : QString();
}

QDateTime dateField(const QJsonObject &object, const char *key)
{
    const QJsonValue value = object.value(QLatin1String(key));
    return value.isString() ? QKServiceDate::parse(value.toString()) : QDateTime();
}

} // namespace

namespace QKPlatformAnswer {

std::optional<QKError> errorAnswer(const QJsonValue &value, const char *fixedMessage)
{
    if (!value.isObject())
        return std::nullopt;
    const QJsonObject object = value.toObject();
    const QJsonValue code = object.value(QStringLiteral("code"));
    if (code.isUndefined() || code.isNull())
        return std::nullopt;
    const QJsonValue message = object.value(QStringLiteral("message"));
    return serviceError(serviceCode(code), message.isString() ? message.toString() : QKLocalizedString(fixedMessage));
}

QJsonValue parseJSON(const QByteArray &body)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(body, &error);
    if (error.error != QJsonParseError::NoError)
        return QJsonValue(QJsonValue::Undefined);
    if (document.isArray())
        return document.array();
    if (document.isObject())
        return document.object();
    return QJsonValue(QJsonValue::Undefined);
}

void readThread(QKFeedbackItem &item, const QJsonObject &thread)
{
    item.setCreatedAt(dateField(thread, "CreatedAt"));
    item.setModifiedAt(dateField(thread, "ModifiedAt"));
    item.setKey(stringField(thread, "Id"));
    item.setText(stringField(thread, "Text"));
    item.setAuthor(stringField(thread, "Author"));
}

QKFeedbackItemList readThreads(const QJsonValue &answer, bool listing)
{
    QKFeedbackItemList items;
    items.reserve(4);
    for (const QJsonValue &element : answer.toArray()) {
        if (!element.isObject())
            continue;
        const QJsonObject thread = element.toObject();
        auto item = QKFeedbackItem::create();
        readThread(*item, thread);
        if (listing) {
            item->setState(stringField(thread, "State"));
            QVariantMap params;
            const QJsonValue image = thread.value(QStringLiteral("Image"));
            if (image.isObject() && image.toObject().value(QStringLiteral("Uri")).isString())
                params.insert(QStringLiteral("ImageUri"), image.toObject().value(QStringLiteral("Uri")).toString());
            const QJsonValue count = thread.value(QStringLiteral("CommentsCount"));
            if (!count.isUndefined() && !count.isNull())
                params.insert(QStringLiteral("CommentsCount"), count.toVariant());
            item->setParams(params);
        }
        items.append(item);
    }
    return items;
}

} // namespace QKPlatformAnswer

using namespace QKPlatformAnswer;

namespace {

QByteArray json(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

template <class Properties>
QUrl collectionURL(const Properties &p)
{
    return parseURL(QStringLiteral("%1/%2/threads").arg(orNull(p.baseURL), orNull(p.apiKey)));
}

template <class Properties>
QUrl threadURL(const Properties &p, const QString &key)
{
    return parseURL(QStringLiteral("%1/%2/threads/%3").arg(orNull(p.baseURL), orNull(p.apiKey), orNull(key)));
}

// One per logical POST: Qt's own resend after a dropped connection repeats the request
// with its headers, so the service can tell a resend from a new item.
QByteArray newIdempotencyKey()
{
    return QUuid::createUuid().toByteArray(QUuid::WithoutBraces);
}

// No name at all is sent as anonymous too.
QString authorValue(const QString &userName)
{
    if (userName.isNull() || userName.compare(QLatin1String("Anonymous"), Qt::CaseInsensitive) == 0)
        return QStringLiteral("");
    return userName;
}

void send(const QSharedPointer<QKURLSession> &session, const QKURLRequest &request, const char *failureMessage,
          QKFeedbackDataSource::ErrorCompletion completionHandler)
{
    session->dataTask(request,
                      [completionHandler, failureMessage](const QByteArray &body, int, std::optional<QKError> error) {
                          if (error) {
                              completionHandler(transportFailure(*error, failureMessage));
                              return;
                          }
                          completionHandler(errorAnswer(parseJSON(body), failureMessage));
                      });
}

// Lists thread objects: the items of the listing, or the comments of a thread.
void fetchThreads(const QSharedPointer<QKURLSession> &session, const QKURLRequest &request, const char *failureMessage,
                  bool listing, QKFeedbackDataSource::ItemsCompletion completionHandler)
{
    session->dataTask(request, [completionHandler, failureMessage, listing](const QByteArray &body, int,
                                                                            std::optional<QKError> error) {
        if (error) {
            completionHandler(std::nullopt, transportFailure(*error, failureMessage));
            return;
        }
        const QJsonValue answer = parseJSON(body);
        if (auto failure = errorAnswer(answer, failureMessage)) {
            completionHandler(std::nullopt, failure);
            return;
        }
        completionHandler(readThreads(answer, listing), std::nullopt);
    });
}

[[noreturn]] void missingText()
{
    throw QKException(QStringLiteral("QKPlatformFeedbackSource"), QStringLiteral("A feedback item needs a text."));
}

} // namespace

// Everything a request needs, copied by value into work that outlives the call.
class QKPlatformFeedbackSourcePrivate
{
public:
    QString apiKey;
    QString uid;
    QString baseURL;
    QVariantMap parameters;
    QString userName;
    QSharedPointer<QKURLSession> session;
};

namespace {
QKURLRequest feedbackRequest(const QKPlatformFeedbackSourcePrivate &p, const QKFeedbackItemPtr &item,
                             const QJsonObject &info);
} // namespace

QString QKPlatformFeedbackSource::defaultBaseURL()
{
    return QStringLiteral("https://platform.wendax.com/feedback/api/v1");
}

QKPlatformFeedbackSource::QKPlatformFeedbackSource(QObject *parent)
    : QKFeedbackDataSource(parent), d(std::make_unique<QKPlatformFeedbackSourcePrivate>())
{
    d->baseURL = defaultBaseURL();
    d->session = QKURLSession::sharedSession();
}

QKPlatformFeedbackSource::~QKPlatformFeedbackSource() = default;

QString QKPlatformFeedbackSource::apiKey() const
{
    return d->apiKey;
}
void QKPlatformFeedbackSource::setApiKey(const QString &value)
{
    d->apiKey = value;
}
QString QKPlatformFeedbackSource::UID() const
{
    return d->uid;
}
void QKPlatformFeedbackSource::setUID(const QString &value)
{
    d->uid = value;
}
QString QKPlatformFeedbackSource::baseURL() const
{
    return d->baseURL;
}
void QKPlatformFeedbackSource::setBaseURL(const QString &value)
{
    d->baseURL = value;
}
QVariantMap QKPlatformFeedbackSource::parameters() const
{
    return d->parameters;
}
void QKPlatformFeedbackSource::setParameters(const QVariantMap &value)
{
    d->parameters = value;
}
QString QKPlatformFeedbackSource::userName() const
{
    return d->userName;
}
void QKPlatformFeedbackSource::setUserName(const QString &value)
{
    d->userName = value;
}
QSharedPointer<QKURLSession> QKPlatformFeedbackSource::session() const
{
    return d->session;
}
void QKPlatformFeedbackSource::setSession(const QSharedPointer<QKURLSession> &value)
{
    d->session = value;
}

QKPlatformFeedbackSource::QKPlatformFeedbackSource(const QString &key, QObject *parent)
    : QKPlatformFeedbackSource(key, QString(), parent)
{}

QKPlatformFeedbackSource::QKPlatformFeedbackSource(const QString &key, const QString &uid, QObject *parent)
    : QKPlatformFeedbackSource(parent)
{
    d->apiKey = key;
    d->uid = uid;
}

QKPlatformFeedbackSource::QKPlatformFeedbackSource(const QString &key, const QString &uid, const QString &url,
                                                   const QVariantMap &params, QObject *parent)
    : QKPlatformFeedbackSource(key, uid, parent)
{
    setBaseURL(url);
    setParameters(params);
}

void QKPlatformFeedbackSource::validateService() const
{
    if (d->uid.isNull())
        throw QKException(
            QStringLiteral("QKPlatformFeedbackSource"),
            QStringLiteral("Please provide the UID property to work properly with Wendax Platform service."));
}

QJsonObject QKPlatformFeedbackSource::systemInfo() const
{
    QJsonObject info;
    const QString model = QKDeviceInfo::model();
    if (!model.isNull())
        info.insert(QStringLiteral("Model"), model);
    const QString version = QKDeviceInfo::systemVersion();
    if (!version.isNull())
        info.insert(QStringLiteral("OSVersion"), version);
    info.insert(QStringLiteral("Uuid"), d->uid);
    info.insert(QStringLiteral("AppId"), QKDeviceInfo::applicationIdentifier());
    const QString appVersion = QKDeviceInfo::applicationVersion();
    if (!appVersion.isNull())
        info.insert(QStringLiteral("AppVersion"), appVersion);
    // Points, not pixels, whatever the keys say: the service stores what it is given.
    const QSizeF screen = QKDeviceInfo::screenSize();
    info.insert(QStringLiteral("WidthInPixels"), double(screen.width() > 0 ? screen.width() : 0));
    info.insert(QStringLiteral("HeightInPixels"), double(screen.height() > 0 ? screen.height() : 0));
    return info;
}

bool QKPlatformFeedbackSource::implements(Operation operation) const
{
    return operation != Operation::UserEmail;
}

void QKPlatformFeedbackSource::feedbackItems(ItemsCompletion completionHandler)
{
    feedbackItemsByState(QString(), std::move(completionHandler));
}

void QKPlatformFeedbackSource::feedbackItemsByState(const QString &state, ItemsCompletion completionHandler)
{
    feedbackItemsByState(state, 0, std::move(completionHandler));
}

void QKPlatformFeedbackSource::feedbackItemsByState(const QString &state, qint64 skip,
                                                    ItemsCompletion completionHandler)
{
    QKURLRequest request;
    request.url = collectionURL(*d);
    request.setHeader("x-sort-meta", SortNewestFirst);
    validateService();
    // Values go in verbatim, as the service's filters expect.
    const QString filter =
        state.isNull() ? QStringLiteral("{\"$and\":[{\"RootId\" : null}, {\"Uid\" : \"%1\"}]}").arg(d->uid)
                       : QStringLiteral("{\"$and\":[{\"RootId\" : null}, {\"Uid\" : \"%1\"}, {\"State\" : \"%2\"}]}")
                             .arg(d->uid, state);
    request.setHeader("x-filter-meta", filter.toUtf8());
    request.setHeader("x-skip-meta", QByteArray::number(skip));
    fetchThreads(d->session, request, "Feedback could not be retrieved", true, std::move(completionHandler));
}

void QKPlatformFeedbackSource::addFeedback(const QKFeedbackItemPtr &item, ErrorCompletion completionHandler)
{
    validateService();
    send(d->session, feedbackRequest(*d, item, systemInfo()), "Feedback could not be send",
         std::move(completionHandler));
}

namespace {
QKURLRequest feedbackRequest(const QKPlatformFeedbackSourcePrivate &p, const QKFeedbackItemPtr &item,
                             const QJsonObject &info)
{
    QKURLRequest request;
    request.url = collectionURL(p);
    request.method = "POST";
    request.setHeader("Content-Type", "application/json");
    request.setHeader("Idempotency-Key", newIdempotencyKey());
    if (item->text().isNull())
        missingText();
    QJsonObject image{{QStringLiteral("Filename"), QStringLiteral("nimbrel.png")},
                      {QStringLiteral("ContentType"), QStringLiteral("image/png")}};
    // The kept Base64 text: a send's screenshot is encoded once, not per request.
    if (const QByteArray base64 = item->imageBase64(); !base64.isNull())
        image.insert(QStringLiteral("base64"), QString::fromLatin1(base64));
    QJsonObject body{{QStringLiteral("Image"), image},
                     {QStringLiteral("Text"), item->text()},
                     {QStringLiteral("Author"), authorValue(p.userName)},
                     {QStringLiteral("Uid"), p.uid},
                     {QStringLiteral("SystemInfo"), info}};
    for (auto it = p.parameters.cbegin(); it != p.parameters.cend(); ++it)
        if (!body.contains(it.key()))
            body.insert(it.key(), QJsonValue::fromVariant(it.value()));
    request.body = json(body);
    return request;
}
} // namespace

void QKPlatformFeedbackSource::addFeedbackItems(const QKFeedbackItemList &items, ErrorCompletion completionHandler)
{
    // Checked here, on the caller's thread, so that nothing throws on the worker.
    if (!items.isEmpty())
        validateService();
    for (const auto &item : items)
        if (item->text().isNull())
            missingText();
    // Screen information is read here, on the caller's (GUI) thread.
    const QJsonObject info = items.isEmpty() ? QJsonObject() : systemInfo();
    QKDispatch::async(QKDispatch::globalQueue(), [p = *d, items, info, completionHandler] {
        std::optional<QKError> shared;
        // One after the other, stopping at the first failure; the next request (its
        // picture encoded, its body written) is made while the one before is on its way.
        std::optional<QKURLRequest> next;
        if (!items.isEmpty())
            next = feedbackRequest(p, items.first(), info);
        for (qsizetype i = 0; i < items.size(); ++i) {
            std::binary_semaphore done(0);
            send(p.session, *next, "Feedback could not be send", [&shared, &done](std::optional<QKError> error) {
                if (error)
                    shared = error;
                done.release();
            });
            next.reset();
            if (i + 1 < items.size())
                next = feedbackRequest(p, items.at(i + 1), info);
            done.acquire();
            if (shared)
                break;
        }
        completionHandler(shared);
    });
}

void QKPlatformFeedbackSource::editWithKey(const QString &key, const QString &state, ErrorCompletion completionHandler)
{
    QKURLRequest request;
    request.url = collectionURL(*d);
    request.method = "PUT";
    request.setHeader("Content-Type", "application/json");
    request.setHeader("x-filter-meta", QStringLiteral("{\"RootId\":\"%1\"}").arg(orNull(key)).toUtf8());
    request.body = json(QJsonObject{{QStringLiteral("State"), state.isNull() ? QJsonValue() : QJsonValue(state)}});
    send(d->session, request, "Feedback could not be edit", std::move(completionHandler));
}

void QKPlatformFeedbackSource::deleteWithKey(const QString &key, ErrorCompletion completionHandler)
{
    QKURLRequest request;
    request.url = threadURL(*d, key);
    request.method = "DELETE";
    send(d->session, request, "Feedback could not be deleted", std::move(completionHandler));
}

void QKPlatformFeedbackSource::imageForKey(const QString &key, ImageCompletion completionHandler)
{
    QKURLRequest request;
    request.url = parseURL(key);
    d->session->dataTask(request, [completionHandler](const QByteArray &body, int, std::optional<QKError> error) {
        if (error) {
            completionHandler(QImage(), transportFailure(*error, "Feedback screenshot could not be retrieved"));
            return;
        }
        completionHandler(QKPNGCodec::decode(body), std::nullopt);
    });
}

void QKPlatformFeedbackSource::subItemsForKey(const QString &key, ItemsCompletion completionHandler)
{
    QKURLRequest request;
    request.url = collectionURL(*d);
    request.setHeader("x-sort-meta", SortNewestFirst);
    request.setHeader("x-filter-meta", QStringLiteral("{\"RootId\":\"%1\"}").arg(orNull(key)).toUtf8());
    fetchThreads(d->session, request, "Feedback comments could not be retrieved", false, std::move(completionHandler));
}

void QKPlatformFeedbackSource::addSubItemForKey(const QString &key, const QKFeedbackItemPtr &subItem,
                                                ErrorCompletion completionHandler)
{
    if (d->uid.isNull())
        throw QKException(QStringLiteral("QKPlatformFeedbackSource"), QStringLiteral("A comment needs the UID."));
    if (subItem->text().isNull())
        throw QKException(QStringLiteral("QKPlatformFeedbackSource"), QStringLiteral("A comment needs a text."));
    QKURLRequest request;
    request.url = threadURL(*d, key);
    request.method = "POST";
    request.setHeader("Content-Type", "application/json");
    request.setHeader("Idempotency-Key", newIdempotencyKey());
    request.body = json(QJsonObject{{QStringLiteral("Text"), subItem->text()},
                                    {QStringLiteral("Author"), authorValue(d->userName)},
                                    {QStringLiteral("Uid"), d->uid},
                                    {QStringLiteral("SystemInfo"), systemInfo()}});
    d->session->dataTask(request,
                         [subItem, completionHandler](const QByteArray &body, int, std::optional<QKError> error) {
                             if (error) {
                                 completionHandler(transportFailure(*error, "Feedback comments could not be send"));
                                 return;
                             }
                             const QJsonValue answer = parseJSON(body);
                             if (auto failure = errorAnswer(answer, "Feedback comments could not be send")) {
                                 completionHandler(failure);
                                 return;
                             }
                             // Absent fields clear the record's: it takes what the service stored.
                             readThread(*subItem, answer.toObject());
                             completionHandler(std::nullopt);
                         });
}
