#include "QKServiceRoutes.h"
#include "QKJsonReader.h"
#include "QKServiceEvents.h"
#include "QKServiceStore.h"

#include "base/QKBase64.h"
#include "base/QKServiceDate.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <libdeflate.h>

#include <chrono>

namespace {

struct RefusalText
{
    int code;
    int status;
    const char *message;
};

RefusalText refusalText(QKServiceRefusal refusal)
{
    switch (refusal) {
    case QKServiceRefusal::UnreadableBody:
        return {4001, 400, "The service could not read what the app sent. Please update the app and try again."};
    case QKServiceRefusal::InvalidFields:
        return {4002, 400, "Some of what the app sent is missing or not in the expected form."};
    case QKServiceRefusal::NotPNG:
        return {4003, 400, "The screenshot could not be read as a PNG image."};
    case QKServiceRefusal::ImageTooLarge:
        return {4004, 400, "The screenshot is too large: it may be at most 16384 pixels on a side."};
    case QKServiceRefusal::InvalidFilter:
        return {4005, 400, "The service could not tell which feedback to look for."};
    case QKServiceRefusal::InvalidSort:
        return {4006, 400, "The service could not tell in which order to list the feedback."};
    case QKServiceRefusal::InvalidSkip:
        return {4007, 400, "The service could not tell which page of feedback to show."};
    case QKServiceRefusal::InvalidState:
        return {4008, 400, "Feedback can only be Open or Resolved."};
    case QKServiceRefusal::InvalidIdempotencyKey:
        return {4009, 400, "The request's Idempotency-Key is not valid."};
    case QKServiceRefusal::NotAllowed:
        return {4030, 403, "This app may only see and change its own feedback."};
    case QKServiceRefusal::UnknownApplication:
        return {4040, 404, "The service does not know this app. Please check its application key."};
    case QKServiceRefusal::NoSuchThread:
        return {4041, 404, "This feedback no longer exists."};
    case QKServiceRefusal::NotFound:
        return {4042, 404, "There is nothing at this address."};
    case QKServiceRefusal::MethodNotAllowed:
        return {4050, 405, "This address does not take this kind of request."};
    case QKServiceRefusal::BodyTooLarge:
        return {4130, 413, "The feedback is too large to send."};
    case QKServiceRefusal::HeadersTooLarge:
        return {4310, 431, "The request's headers are too large."};
    case QKServiceRefusal::Busy:
        return {5030, 503, "The service is busy. Please try again in a moment."};
    case QKServiceRefusal::StoreFailed:
        break;
    }
    return {5000, 500, "The service could not keep your feedback right now. Please try again later."};
}

const QString Open = QStringLiteral("Open");
const QString Resolved = QStringLiteral("Resolved");

qint64 now()
{
    return QDateTime::currentMSecsSinceEpoch();
}

// QKServiceDate::format's text without building a QDateTime: a listing writes forty.
QString date(qint64 ms)
{
    using namespace std::chrono;
    const sys_time<milliseconds> time{milliseconds(ms)};
    const auto day = floor<days>(time);
    const year_month_day ymd{day};
    const hh_mm_ss clock{time - day};
    const int y = int(ymd.year());
    if (y < 0 || y > 9999)
        return QKServiceDate::format(QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC));
    char text[] = "0000-00-00T00:00:00.000+0000";
    const auto put = [&text](int at, int value, int digits) {
        for (int i = digits - 1; i >= 0; --i, value /= 10)
            text[at + i] = char('0' + value % 10);
    };
    put(0, y, 4);
    put(5, int(unsigned(ymd.month())), 2);
    put(8, int(unsigned(ymd.day())), 2);
    put(11, int(clock.hours().count()), 2);
    put(14, int(clock.minutes().count()), 2);
    put(17, int(clock.seconds().count()), 2);
    put(20, int(clock.subseconds().count()), 3);
    return QString::fromLatin1(text, sizeof text - 1);
}

void appendJsonString(QByteArray &out, QStringView text)
{
    static const char hex[] = "0123456789abcdef";
    out.append('"');
    const QByteArray utf8 = text.toUtf8();
    const char *p = utf8.constData();
    const char *end = p + utf8.size();
    while (p != end) {
        const char *run = p;
        while (p != end && static_cast<unsigned char>(*p) >= 0x20 && *p != '"' && *p != '\\')
            ++p;
        out.append(run, p - run);
        if (p == end)
            break;
        const unsigned char c = static_cast<unsigned char>(*p++);
        if (c == '"' || c == '\\') {
            out.append('\\').append(char(c));
        } else {
            const char escape[] = {'\\', 'u', '0', '0', hex[c >> 4], hex[c & 15]};
            out.append(escape, sizeof escape);
        }
    }
    out.append('"');
}

// Fields go out in this order, absent ones left out.
class ObjectWriter
{
public:
    explicit ObjectWriter(QByteArray &out) : out(out) { out.append('{'); }
    ~ObjectWriter() { out.append('}'); }
    void string(const char *name, const QString &value)
    {
        if (value.isNull())
            return;
        key(name);
        appendJsonString(out, value);
    }
    void raw(const char *name, const QByteArray &json)
    {
        if (json.isEmpty())
            return;
        key(name);
        out.append(json);
    }
    void number(const char *name, qint64 value)
    {
        key(name);
        out.append(QByteArray::number(value));
    }

private:
    void key(const char *name)
    {
        if (!first)
            out.append(',');
        first = false;
        out.append('"').append(name).append("\":");
    }
    QByteArray &out;
    bool first = true;
};

QByteArray imageObject(const QString &base, const QString &imageId)
{
    if (imageId.isNull())
        return {};
    QByteArray out;
    {
        ObjectWriter image(out);
        image.string("Uri", base + imageId);
    }
    return out;
}

void writeThread(QByteArray &out, const QKServiceThread &t, const QString &imageBase)
{
    ObjectWriter w(out);
    w.string("Id", t.id);
    w.string("RootId", t.rootId);
    w.string("Text", t.text);
    w.string("Author", t.author);
    w.string("State", t.state);
    w.string("CreatedAt", date(t.createdAt));
    w.string("ModifiedAt", date(t.modifiedAt));
    if (t.rootId.isNull()) {
        w.raw("Image", imageObject(imageBase, t.imageId));
        w.number("CommentsCount", 1 + t.comments);
    }
}

QKServiceResponse ok(QByteArray body, int status = 200)
{
    QKServiceResponse response;
    response.status = status;
    response.body = std::move(body);
    return response;
}

// The PNG signature and a well-formed IHDR chunk of a sensible size; the pixels are
// not decoded.
std::optional<QKServiceRefusal> checkPNG(const QByteArray &png)
{
    static const char signature[] = "\x89PNG\r\n\x1a\n";
    if (png.size() < 33 || !png.startsWith(QByteArrayView(signature, 8)) ||
        png.mid(8, 8) != QByteArrayView("\0\0\0\x0dIHDR", 8))
        return QKServiceRefusal::NotPNG;
    const auto *b = reinterpret_cast<const unsigned char *>(png.constData());
    const auto be32 = [b](int at) {
        return quint32(b[at]) << 24 | quint32(b[at + 1]) << 16 | quint32(b[at + 2]) << 8 | b[at + 3];
    };
    if (libdeflate_crc32(0, b + 12, 17) != be32(29))
        return QKServiceRefusal::NotPNG;
    const quint32 width = be32(16);
    const quint32 height = be32(20);
    const int depth = b[24];
    const int colour = b[25];
    const bool validDepth = (colour == 0 && (depth == 1 || depth == 2 || depth == 4 || depth == 8 || depth == 16)) ||
                            (colour == 3 && (depth == 1 || depth == 2 || depth == 4 || depth == 8)) ||
                            ((colour == 2 || colour == 4 || colour == 6) && (depth == 8 || depth == 16));
    if (width == 0 || height == 0 || !validDepth || b[26] != 0 || b[27] != 0 || b[28] > 1)
        return QKServiceRefusal::NotPNG;
    if (width > quint32(QKServiceRoutes::MaxImageSide) || height > quint32(QKServiceRoutes::MaxImageSide))
        return QKServiceRefusal::ImageTooLarge;
    return std::nullopt;
}

bool validIdempotencyKey(const QByteArray &key)
{
    if (key.isEmpty() || key.size() > 128)
        return false;
    for (char c : key)
        if (c < 0x21 || c > 0x7e)
            return false;
    return true;
}

bool holdsNul(const QString &s)
{
    return s.contains(QChar(0));
}

// The fields common to items and comments; the rest of the body becomes the host's
// parameters. A refusal when a field has the wrong type.
std::optional<QKServiceRefusal> readSender(const QJsonObject &body, const QStringList &own, QKServiceThread &t)
{
    const QJsonValue text = body.value(QLatin1String("Text"));
    const QJsonValue uid = body.value(QLatin1String("Uid"));
    const QJsonValue author = body.value(QLatin1String("Author"));
    const QJsonValue info = body.value(QLatin1String("SystemInfo"));
    if (!text.isString() || !uid.isString() || !(author.isUndefined() || author.isString()) ||
        !(info.isUndefined() || info.isObject()))
        return QKServiceRefusal::InvalidFields;
    t.text = text.toString();
    t.uid = uid.toString();
    t.author = author.isString() ? author.toString() : QString();
    if (holdsNul(t.text) || holdsNul(t.uid) || holdsNul(t.author) || t.uid.size() > 256)
        return QKServiceRefusal::InvalidFields;
    if (info.isObject())
        t.systemInfo = QJsonDocument(info.toObject()).toJson(QJsonDocument::Compact);
    QJsonObject parameters = body;
    for (const QString &name : own)
        parameters.remove(name);
    if (!parameters.isEmpty())
        t.parameters = QJsonDocument(parameters).toJson(QJsonDocument::Compact);
    return std::nullopt;
}

// The stored object as answered to its POST: the host's parameters first, the
// service's fields over them.
QByteArray answerObject(const QKServiceThread &t, const QString &imageBase)
{
    QJsonObject object;
    if (!t.parameters.isEmpty())
        object = QJsonDocument::fromJson(t.parameters).object();
    object.insert(QLatin1String("Id"), t.id);
    object.remove(QLatin1String("RootId"));
    object.insert(QLatin1String("Uid"), t.uid);
    object.insert(QLatin1String("Text"), t.text);
    if (!t.author.isNull())
        object.insert(QLatin1String("Author"), t.author);
    else
        object.remove(QLatin1String("Author"));
    if (!t.state.isNull())
        object.insert(QLatin1String("State"), t.state);
    else
        object.remove(QLatin1String("State"));
    object.insert(QLatin1String("CreatedAt"), date(t.createdAt));
    object.insert(QLatin1String("ModifiedAt"), date(t.modifiedAt));
    if (t.rootId.isNull()) {
        if (!t.systemInfo.isEmpty())
            object.insert(QLatin1String("SystemInfo"), QJsonDocument::fromJson(t.systemInfo).object());
        if (!t.imageId.isNull())
            object.insert(QLatin1String("Image"), QJsonObject{{QLatin1String("Uri"), imageBase + t.imageId}});
        else
            object.remove(QLatin1String("Image"));
        object.insert(QLatin1String("CommentsCount"), 1);
    } else {
        object = QJsonObject{{QLatin1String("Id"), t.id},
                             {QLatin1String("RootId"), t.rootId},
                             {QLatin1String("Uid"), t.uid},
                             {QLatin1String("Text"), t.text},
                             {QLatin1String("CreatedAt"), date(t.createdAt)},
                             {QLatin1String("ModifiedAt"), date(t.modifiedAt)}};
        if (!t.author.isNull())
            object.insert(QLatin1String("Author"), t.author);
    }
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

QKServiceResponse stored(const QKStoredAnswer &answer)
{
    QKServiceResponse response = ok(answer.body, 201);
    if (answer.outcome == QKStoredAnswer::Outcome::Replayed)
        response.headers.append(qMakePair(QByteArray("Idempotent-Replayed"), QByteArray("true")));
    return response;
}

std::optional<QKServiceRefusal> readIdempotencyKey(const QKServiceRequest &request, QString *key)
{
    const QByteArray value = request.header("idempotency-key");
    if (value.isNull())
        return std::nullopt;
    if (!validIdempotencyKey(value))
        return QKServiceRefusal::InvalidIdempotencyKey;
    *key = QString::fromLatin1(value);
    return std::nullopt;
}

std::optional<QJsonObject> readObject(const QByteArray &body)
{
    const auto value = QKJsonReader::read(body);
    if (!value || !value->isObject())
        return std::nullopt;
    return value->toObject();
}

// What a new item's and a new comment's requests share: the idempotency key, a JSON
// object for a body, the sender's fields.
std::optional<QKServiceRefusal> readPost(const QKServiceRequest &request, const QStringList &own, QString *key,
                                         QJsonObject *body, QKServiceThread &t)
{
    if (auto refused = readIdempotencyKey(request, key))
        return refused;
    auto object = readObject(request.body);
    if (!object)
        return QKServiceRefusal::UnreadableBody;
    *body = std::move(*object);
    return readSender(*body, own, t);
}

} // namespace

QByteArray QKServiceRequest::header(QByteArrayView name) const
{
    for (const auto &h : headers)
        if (h.first.compare(name, Qt::CaseInsensitive) == 0)
            return h.second.isNull() ? QByteArray("") : h.second;
    return {};
}

QKServiceRoutes::QKServiceRoutes(QKServiceStore *store, const QString &publicUrl, QKServiceEvents *events)
    : m_store(store), m_imageBase(publicUrl + QLatin1String("/feedback/api/v1/images/")), m_events(events)
{}

void QKServiceRoutes::publish(const QKServiceEvent &event) const
{
    if (m_events)
        m_events->publish(event);
}

int QKServiceRoutes::code(QKServiceRefusal refusal)
{
    return refusalText(refusal).code;
}

QKServiceResponse QKServiceRoutes::refusal(QKServiceRefusal refusal, const QString &detail)
{
    const RefusalText text = refusalText(refusal);
    QKServiceResponse response;
    response.status = text.status;
    {
        ObjectWriter w(response.body);
        w.number("code", text.code);
        w.string("message", QString::fromUtf8(text.message));
        // For the developer reading the exchange; the app shows "message".
        if (!detail.isEmpty())
            w.string("detail", detail);
    }
    return response;
}

QKServiceResponse QKServiceRoutes::handle(const QKServiceRequest &request) const
{
    QByteArray path = request.target;
    if (const qsizetype query = path.indexOf('?'); query >= 0)
        path.truncate(query);
    static const QByteArray prefix = "/feedback/api/v1/";
    QKServiceResponse response;
    if (!path.startsWith(prefix)) {
        response = refusal(QKServiceRefusal::NotFound);
        response.route = "(unknown)";
        return response;
    }
    QList<QByteArray> segments = path.mid(prefix.size()).split('/');
    const QByteArray &method = request.method;
    const auto segment = [&segments](int i) { return QString::fromUtf8(QByteArray::fromPercentEncoding(segments[i])); };
    QByteArray route = "(unknown)";
    try {
        if (segments.size() == 2 && segments[0] == "images") {
            route = "/feedback/api/v1/images/{image}";
            response = method == "GET" ? image(segment(1)) : refusal(QKServiceRefusal::MethodNotAllowed);
            response.route = route;
            if (response.status == 405)
                response.headers.append(qMakePair(QByteArray("Allow"), QByteArray("GET")));
            return response;
        }
        if ((segments.size() != 2 && segments.size() != 3) || segments[1] != "threads" || segments[0].isEmpty() ||
            (segments.size() == 3 && segments[2].isEmpty())) {
            response = refusal(QKServiceRefusal::NotFound);
            response.route = "(unknown)";
            return response;
        }
        const bool collection = segments.size() == 2;
        route = collection ? "/feedback/api/v1/{key}/threads" : "/feedback/api/v1/{key}/threads/{id}";
        const QByteArray allowed = collection ? "GET, POST, PUT" : "POST, DELETE";
        const bool methodFits = collection ? (method == "GET" || method == "POST" || method == "PUT")
                                           : (method == "POST" || method == "DELETE");
        if (!methodFits) {
            response = refusal(QKServiceRefusal::MethodNotAllowed);
            response.headers.append(qMakePair(QByteArray("Allow"), QByteArray(allowed)));
        } else if (const auto app = m_store->appByKey(segment(0)); !app) {
            response = refusal(QKServiceRefusal::UnknownApplication);
        } else if (collection) {
            response = method == "GET"    ? listThreads(app->id, request)
                       : method == "POST" ? postThread(app->id, request)
                                          : updateThreads(app->id, request);
        } else {
            response = method == "POST" ? postComment(app->id, segment(2), request) : deleteThread(app->id, segment(2));
        }
        response.route = route;
    } catch (const QKServiceStoreError &error) {
        response = refusal(QKServiceRefusal::StoreFailed);
        response.note = error.what();
        response.route = route;
    }
    return response;
}

QKServiceResponse QKServiceRoutes::postThread(qint64 appId, const QKServiceRequest &request) const
{
    QString idempotencyKey;
    QJsonObject body;
    QKServiceThread t;
    static const QStringList own{QStringLiteral("Text"), QStringLiteral("Uid"), QStringLiteral("Author"),
                                 QStringLiteral("SystemInfo"), QStringLiteral("Image")};
    if (auto refused = readPost(request, own, &idempotencyKey, &body, t))
        return refusal(*refused);
    QByteArray png;
    const QJsonValue image = body.value(QLatin1String("Image"));
    if (!image.isUndefined() && !image.isNull()) {
        const QJsonValue base64 = image.toObject().value(QLatin1String("base64"));
        if (!image.isObject() || !(base64.isUndefined() || base64.isString()))
            return refusal(QKServiceRefusal::InvalidFields);
        if (base64.isString()) {
            png = QKBase64::decodeIgnoringUnknownCharacters(base64.toString());
            if (auto refused = checkPNG(png))
                return refusal(*refused);
            t.imageId = QKServiceStore::newIdentifier();
        }
    }
    t.id = QKServiceStore::newIdentifier();
    t.state = Open;
    t.createdAt = t.modifiedAt = now();
    const QKStoredAnswer answer = m_store->insertThread(appId, t, png, idempotencyKey, answerObject(t, m_imageBase));
    if (answer.outcome == QKStoredAnswer::Outcome::Stored)
        publish({QKServiceEvent::Kind::Created, appId, t.id, {}, true});
    return stored(answer);
}

QKServiceResponse QKServiceRoutes::postComment(qint64 appId, const QString &threadId,
                                               const QKServiceRequest &request) const
{
    QString idempotencyKey;
    QJsonObject body;
    QKServiceThread t;
    static const QStringList own{QStringLiteral("Text"), QStringLiteral("Uid"), QStringLiteral("Author"),
                                 QStringLiteral("SystemInfo")};
    if (auto refused = readPost(request, own, &idempotencyKey, &body, t))
        return refusal(*refused);
    t.id = QKServiceStore::newIdentifier();
    t.rootId = threadId;
    t.createdAt = t.modifiedAt = now();
    const QKStoredAnswer answer = m_store->insertComment(appId, t, idempotencyKey, answerObject(t, m_imageBase));
    if (answer.outcome == QKStoredAnswer::Outcome::NoSuchThread)
        return refusal(QKServiceRefusal::NoSuchThread);
    if (answer.outcome == QKStoredAnswer::Outcome::Stored)
        publish({QKServiceEvent::Kind::Comment, appId, threadId, t.id, true});
    return stored(answer);
}

QKServiceResponse QKServiceRoutes::listThreads(qint64 appId, const QKServiceRequest &request) const
{
    QKThreadPage page;
    QString problem;
    const QByteArray filterText = request.header("x-filter-meta");
    if (!filterText.isNull()) {
        auto filter = QKFilterQuery::parse(filterText, &problem);
        if (!filter)
            return refusal(QKServiceRefusal::InvalidFilter, problem);
        page.filter = std::move(*filter);
    }
    // The key is public: a device lists its own items, or the comments of an item whose
    // unguessable id it holds.
    const bool ownItems = page.filter.topLevelEquality(QStringLiteral("Uid")).has_value();
    const bool comments = page.filter.topLevelEquality(QStringLiteral("RootId")).has_value();
    if (!ownItems && !comments)
        return refusal(QKServiceRefusal::NotAllowed,
                       QStringLiteral("a listing needs a top-level \"Uid\" or \"RootId\""));
    if (const QByteArray sort = request.header("x-sort-meta"); !sort.isNull()) {
        auto keys = QKFilterQuery::parseSort(sort, &problem);
        if (!keys)
            return refusal(QKServiceRefusal::InvalidSort, problem);
        page.sort = *keys;
    }
    if (const QByteArray skip = request.header("x-skip-meta"); !skip.isNull()) {
        const QByteArray digits = skip.startsWith('-') || skip.startsWith('+') ? skip.mid(1) : skip;
        bool valid = !digits.isEmpty() && digits.size() <= 18;
        for (char c : digits)
            valid = valid && c >= '0' && c <= '9';
        if (!valid)
            return refusal(QKServiceRefusal::InvalidSkip, QStringLiteral("the skip count is a decimal integer"));
        const qint64 value = skip.toLongLong();
        if (value > MaxSkip)
            return refusal(QKServiceRefusal::InvalidSkip, QStringLiteral("the skip count is at most 1000000000"));
        page.skip = qMax<qint64>(0, value);
    }
    // A device's items come in pages; the comments of one item in one answer.
    page.limit = ownItems ? PageSize : MaxComments;
    const QList<QKServiceThread> rows = m_store->threads(appId, page);
    QByteArray out;
    out.reserve(256 * rows.size() + 2);
    out.append('[');
    for (qsizetype i = 0; i < rows.size(); ++i) {
        if (i)
            out.append(',');
        writeThread(out, rows[i], m_imageBase);
    }
    out.append(']');
    return ok(out);
}

QKServiceResponse QKServiceRoutes::updateThreads(qint64 appId, const QKServiceRequest &request) const
{
    QString problem;
    const QByteArray filterText = request.header("x-filter-meta");
    if (filterText.isNull())
        return refusal(QKServiceRefusal::NotAllowed, QStringLiteral("a change needs a {\"RootId\": id} filter"));
    const auto filter = QKFilterQuery::parse(filterText, &problem);
    if (!filter)
        return refusal(QKServiceRefusal::InvalidFilter, problem);
    const auto rootId = filter->topLevelEquality(QStringLiteral("RootId"));
    if (!filter->isOnlyEquality(QStringLiteral("RootId")) || !rootId)
        return refusal(QKServiceRefusal::NotAllowed, QStringLiteral("a change needs a {\"RootId\": id} filter"));
    const auto body = readObject(request.body);
    if (!body)
        return refusal(QKServiceRefusal::UnreadableBody);
    if (body->size() != 1 || !body->value(QLatin1String("State")).isString())
        return refusal(QKServiceRefusal::InvalidFields, QStringLiteral("the body is {\"State\": state}"));
    const QString state = body->value(QLatin1String("State")).toString();
    if (state != Open && state != Resolved)
        return refusal(QKServiceRefusal::InvalidState);
    const qint64 changed = m_store->updateState(appId, *rootId, state, now());
    if (changed == 0)
        return refusal(QKServiceRefusal::NoSuchThread);
    publish({QKServiceEvent::Kind::State, appId, *rootId, {}, true});
    QByteArray out;
    {
        ObjectWriter w(out);
        w.number("Updated", changed);
    }
    return ok(out);
}

QKServiceResponse QKServiceRoutes::deleteThread(qint64 appId, const QString &threadId) const
{
    if (!m_store->deleteThread(appId, threadId))
        return refusal(QKServiceRefusal::NoSuchThread);
    publish({QKServiceEvent::Kind::Deleted, appId, threadId, {}, true});
    QByteArray out;
    {
        ObjectWriter w(out);
        w.string("Id", threadId);
    }
    return ok(out);
}

QKServiceResponse QKServiceRoutes::image(const QString &imageId) const
{
    const auto png = m_store->image(imageId);
    if (!png)
        return refusal(QKServiceRefusal::NotFound);
    QKServiceResponse response = ok(*png);
    response.contentType = "image/png";
    response.headers.append(qMakePair(QByteArray("Cache-Control"), QByteArray("public, max-age=31536000, immutable")));
    return response;
}
