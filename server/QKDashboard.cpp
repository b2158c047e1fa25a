#include "QKDashboard.h"
#include "QKJsonReader.h"
#include "QKServiceStore.h"
#include "QKWebhooks.h"

#include <QBuffer>
#include <QCache>
#include <QCryptographicHash>
#include <QDateTime>
#include <QDirIterator>
#include <QFile>
#include <QImage>
#include <QImageReader>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutex>
#include <QSet>
#include <QUrlQuery>

#include <openssl/crypto.h>

#include <condition_variable>
#include <mutex>
#include <thread>

namespace {

qint64 now()
{
    return QDateTime::currentMSecsSinceEpoch();
}

const QByteArray ContentSecurityPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' blob: data:; connect-src 'self'; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

void addHeader(QKServiceResponse &response, const QByteArray &name, const QByteArray &value)
{
    response.headers.append(qMakePair(name, value));
}

QKServiceResponse json(const QJsonObject &object, int status = 200)
{
    QKServiceResponse response;
    response.status = status;
    response.body = QJsonDocument(object).toJson(QJsonDocument::Compact);
    return response;
}

QKServiceResponse error(int status, int code, const char *message)
{
    return json({{QStringLiteral("code"), code}, {QStringLiteral("message"), QString::fromUtf8(message)}}, status);
}

QKServiceResponse notFound()
{
    return error(404, 4043, "There is no such feedback.");
}

QKServiceResponse forbidden()
{
    return error(403, 4032, "Only administrators can do this.");
}

QKServiceResponse badRequest(const char *message)
{
    return error(400, 4002, message);
}

QJsonValue orNull(const QString &text)
{
    return text.isNull() ? QJsonValue() : QJsonValue(text);
}

// The library sends "" for an anonymous author.
QJsonValue authorOf(const QString &text)
{
    return text.isEmpty() ? QJsonValue() : QJsonValue(text);
}

QJsonValue objectOrNull(const QVariant &text)
{
    if (text.isNull())
        return {};
    const QJsonDocument document = QJsonDocument::fromJson(text.toString().toUtf8());
    return document.isObject() ? QJsonValue(document.object()) : QJsonValue();
}

QByteArray cookie(const QKServiceRequest &request, QByteArrayView name)
{
    for (const auto &h : request.headers) {
        if (h.first.compare("cookie", Qt::CaseInsensitive) != 0)
            continue;
        for (const QByteArray &part : h.second.split(';')) {
            const QByteArray item = part.trimmed();
            if (item.startsWith(name) && item.size() > name.size() && item[name.size()] == '=')
                return item.mid(name.size() + 1);
        }
    }
    return {};
}

QByteArray sessionCookie(const QByteArray &token, qint64 maxAgeSeconds)
{
    return "murmora_session=" + token +
           "; Path=/; HttpOnly; Secure; SameSite=Strict; Max-Age=" + QByteArray::number(maxAgeSeconds);
}

bool sameBytes(const QByteArray &a, const QByteArray &b)
{
    return a.size() == b.size() && CRYPTO_memcmp(a.constData(), b.constData(), size_t(a.size())) == 0;
}

// Words of a search, letters and digits only, so nothing of the text reaches either
// store's query syntax.
QStringList searchWords(const QString &text)
{
    QStringList words;
    QString word;
    for (const QChar c : text + QLatin1Char(' ')) {
        if (c.isLetterOrNumber()) {
            word += c;
        } else if (!word.isEmpty()) {
            if (words.size() < 8)
                words.append(word.left(64));
            word.clear();
        }
    }
    return words;
}

QByteArray contentType(const QString &path)
{
    static const QHash<QString, QByteArray> types{{QStringLiteral("html"), "text/html; charset=utf-8"},
                                                  {QStringLiteral("js"), "text/javascript; charset=utf-8"},
                                                  {QStringLiteral("css"), "text/css; charset=utf-8"},
                                                  {QStringLiteral("svg"), "image/svg+xml"},
                                                  {QStringLiteral("png"), "image/png"},
                                                  {QStringLiteral("json"), "application/json"},
                                                  {QStringLiteral("ico"), "image/x-icon"},
                                                  {QStringLiteral("webmanifest"), "application/manifest+json"}};
    return types.value(path.section(QLatin1Char('.'), -1), "application/octet-stream");
}

// The route for the log: ids and file names left out.
QByteArray routeOf(const QByteArray &path)
{
    if (!path.startsWith("/dashboard/api/"))
        return path == "/" || path == "/index.html" ? path : QByteArray("/assets/{file}");
    QList<QByteArray> segments = path.split('/'); // "", "dashboard", "api", collection, id, …
    for (qsizetype i = 4; i < segments.size(); i += 2)
        segments[i] = "{id}";
    return segments.join('/');
}

struct Asset
{
    QByteArray body;
    QByteArray type;
    QByteArray etag;
};

// The open event streams, each with what its member may see, and their heartbeat.
class EventHub
{
public:
    struct Listener
    {
        std::shared_ptr<QKResponseStream> stream;
        bool admin = false;
        QSet<qint64> apps;
    };

    EventHub()
    {
        m_heartbeat = std::thread([this] {
            std::unique_lock lock(m_mutex);
            while (!m_stopping) {
                // Proxies and browsers drop a silent stream; a comment every 20 s keeps it.
                m_wake.wait_for(lock, std::chrono::seconds(20), [this] { return m_stopping; });
                if (!m_stopping)
                    sendLocked(": ping\n\n", [](const Listener &) { return true; });
            }
        });
    }
    ~EventHub() { stop(); }

    void stop()
    {
        {
            std::lock_guard lock(m_mutex);
            m_stopping = true;
            m_listeners.clear();
        }
        m_wake.notify_all();
        if (m_heartbeat.joinable())
            m_heartbeat.join();
    }

    bool add(Listener listener)
    {
        std::lock_guard lock(m_mutex);
        if (m_stopping || m_listeners.size() >= size_t(QKDashboard::MaxEventStreams))
            return false;
        listener.stream->write("retry: 5000\n: connected\n\n");
        m_listeners.push_back(std::move(listener));
        return true;
    }

    bool full()
    {
        std::lock_guard lock(m_mutex);
        return m_listeners.size() >= size_t(QKDashboard::MaxEventStreams);
    }

    void publish(const QKServiceEvent &event)
    {
        // Ids only: the page asks for the rest through its session.
        const QByteArray data = QJsonDocument(QJsonObject{{QStringLiteral("app"), event.appId},
                                                          {QStringLiteral("thread"), event.threadId},
                                                          {QStringLiteral("kind"), QLatin1String(event.kindName())}})
                                    .toJson(QJsonDocument::Compact);
        std::lock_guard lock(m_mutex);
        sendLocked("event: thread\ndata: " + data + "\n\n",
                   [&event](const Listener &l) { return l.admin || l.apps.contains(event.appId); });
    }

private:
    template <class Wanted>
    void sendLocked(const QByteArray &bytes, Wanted wanted)
    {
        for (auto it = m_listeners.begin(); it != m_listeners.end();) {
            if (wanted(*it) && !it->stream->write(bytes))
                it = m_listeners.erase(it);
            else
                ++it;
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_stopping = false;
    std::vector<Listener> m_listeners;
    std::thread m_heartbeat;
};

// The columns of an inbox row, in the order threadObject reads them.
const char *const InboxColumns = "t.id, t.app_id, a.name, t.uid, t.text, t.author, t.state, t.created_at,"
                                 " t.modified_at, t.image_id, t.comments";

QJsonObject threadObject(const QVariantList &row)
{
    return {{QStringLiteral("id"), row.value(0).toString()},
            {QStringLiteral("app"), QJsonObject{{QStringLiteral("id"), row.value(1).toLongLong()},
                                                {QStringLiteral("name"), row.value(2).toString()}}},
            {QStringLiteral("uid"), orNull(row.value(3).toString())},
            {QStringLiteral("text"), orNull(row.value(4).toString())},
            {QStringLiteral("author"), authorOf(row.value(5).toString())},
            {QStringLiteral("state"), orNull(row.value(6).toString())},
            {QStringLiteral("createdAt"), row.value(7).toLongLong()},
            {QStringLiteral("modifiedAt"), row.value(8).toLongLong()},
            {QStringLiteral("imageId"), orNull(row.value(9).toString())},
            {QStringLiteral("comments"), row.value(10).toLongLong()}};
}

} // namespace

struct QKDashboard::Private
{
    QKServiceStore *store;
    QKServiceEvents *events;
    QKWebhooks *webhooks;
    QKAccounts accounts;
    QHash<QByteArray, Asset> assets;
    EventHub hub;
    QKServiceEvents::Subscription subscription;
    QMutex thumbnailsMutex;
    QCache<QString, QByteArray> thumbnails{16 * 1024 * 1024};
    bool stopped = false;

    Private(QKServiceStore *store, QKServiceEvents *events, QKWebhooks *webhooks)
        : store(store), events(events), webhooks(webhooks), accounts(store)
    {
        QDirIterator it(QStringLiteral(":/web"), QDir::Files, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            QFile file(path);
            if (!file.open(QIODevice::ReadOnly))
                continue;
            Asset asset{file.readAll(), contentType(path), {}};
            asset.etag = '"' + QCryptographicHash::hash(asset.body, QCryptographicHash::Sha256).toHex().left(20) + '"';
            const QByteArray relative = path.mid(6).toUtf8(); // past ":/web/"
            assets.insert("/assets/" + relative, asset);
            if (relative == "index.html")
                assets.insert("/", asset);
        }
        if (events)
            subscription = events->subscribe([this](const QKServiceEvent &event) { hub.publish(event); });
    }

    QKServiceResponse asset(const QKServiceRequest &request, const QByteArray &path) const
    {
        const auto it = assets.constFind(path);
        if (it == assets.cend())
            return error(404, 4042, "There is nothing at this address.");
        if (request.method != "GET" && request.method != "HEAD") {
            QKServiceResponse response = error(405, 4050, "This address does not take this kind of request.");
            addHeader(response, "Allow", "GET");
            return response;
        }
        QKServiceResponse response;
        response.contentType = it->type;
        addHeader(response, "ETag", it->etag);
        addHeader(response, "Cache-Control", "no-cache");
        if (request.header("if-none-match") == it->etag) {
            response.status = 304;
            return response;
        }
        response.body = request.method == "HEAD" ? QByteArray() : it->body;
        return response;
    }

    QList<qint64> visibleApps(const QKMember &member)
    {
        QList<qint64> ids;
        const QString sql = member.admin ? QStringLiteral("SELECT id FROM apps")
                                         : QStringLiteral("SELECT app_id FROM memberships WHERE member_id = ?");
        for (const QVariantList &row : store->query(sql, member.admin ? QVariantList{} : QVariantList{member.id}))
            ids.append(row.value(0).toLongLong());
        return ids;
    }

    bool maysee(const QKMember &member, qint64 appId)
    {
        return member.admin ||
               !store
                    ->query(QStringLiteral("SELECT 1 FROM memberships WHERE member_id = ? AND app_id = ?"),
                            {member.id, appId})
                    .isEmpty();
    }

    // --- the routes ---

    QKServiceResponse sessionAnswer(const QKSession &session)
    {
        return json({{QStringLiteral("member"), QJsonObject{{QStringLiteral("id"), session.member.id},
                                                            {QStringLiteral("name"), session.member.name},
                                                            {QStringLiteral("admin"), session.member.admin}}},
                     {QStringLiteral("csrf"), QString::fromLatin1(session.csrf)}});
    }

    QKServiceResponse logIn(const QKServiceRequest &request, const QJsonObject &body)
    {
        const QJsonValue name = body.value(QLatin1String("name"));
        const QJsonValue password = body.value(QLatin1String("password"));
        if (!name.isString() || !password.isString() || password.toString().size() > 1024)
            return badRequest("Give a name and a password.");
        const QKAccounts::Login login = accounts.logIn(name.toString(), password.toString().toUtf8(), request.peer);
        if (login.outcome == QKAccounts::Login::Outcome::Slowed) {
            const QByteArray message =
                "Too many failed logins. Try again in " + QByteArray::number(login.retryAfterSeconds) + " seconds.";
            QKServiceResponse response = error(429, 4290, message.constData());
            addHeader(response, "Retry-After", QByteArray::number(login.retryAfterSeconds));
            return response;
        }
        if (login.outcome == QKAccounts::Login::Outcome::Wrong)
            return error(401, 4010, "Wrong name or password.");
        QKServiceResponse response = sessionAnswer(login.session);
        addHeader(response, "Set-Cookie", sessionCookie(login.token, QKAccounts::SessionLifetimeMs / 1000));
        return response;
    }

    QKServiceResponse inbox(const QKMember &member, const QUrlQuery &query)
    {
        QString sql = QStringLiteral("SELECT %1, r.seen_at, (SELECT MAX(c.created_at) FROM threads c"
                                     " WHERE c.app_id = t.app_id AND c.root_id = t.id AND c.member_id IS NULL)"
                                     " FROM threads t JOIN apps a ON a.id = t.app_id"
                                     " LEFT JOIN reads r ON r.member_id = ? AND r.thread_id = t.id"
                                     " WHERE t.root_id IS NULL")
                          .arg(QLatin1String(InboxColumns));
        QVariantList parameters{member.id};
        if (!member.admin) {
            sql += QLatin1String(" AND t.app_id IN (SELECT app_id FROM memberships WHERE member_id = ?)");
            parameters << member.id;
        }
        const QString state = query.queryItemValue(QStringLiteral("state"), QUrl::FullyDecoded);
        if (state.isEmpty() || state == QLatin1String("open") || state == QLatin1String("resolved")) {
            sql += QLatin1String(" AND t.state = ?");
            parameters << (state == QLatin1String("resolved") ? QStringLiteral("Resolved") : QStringLiteral("Open"));
        } else if (state != QLatin1String("all")) {
            return badRequest("The state is open, resolved or all.");
        }
        if (const QString app = query.queryItemValue(QStringLiteral("app")); !app.isEmpty()) {
            bool ok = false;
            const qint64 id = app.toLongLong(&ok);
            if (!ok)
                return badRequest("The application is given by its number.");
            sql += QLatin1String(" AND t.app_id = ?");
            parameters << id;
        }
        if (const QString device = query.queryItemValue(QStringLiteral("device"), QUrl::FullyDecoded);
            !device.isEmpty()) {
            sql += QLatin1String(" AND t.uid = ?");
            parameters << device;
        }
        if (const QStringList words = searchWords(query.queryItemValue(QStringLiteral("q"), QUrl::FullyDecoded));
            !words.isEmpty()) {
            if (store->dialect() == QKFilterQuery::Dialect::SQLite) {
                sql += QLatin1String(" AND t.id IN (SELECT COALESCE(x.root_id, x.id) FROM threads x WHERE x.seq IN"
                                     " (SELECT rowid FROM threads_fts WHERE threads_fts MATCH ?))");
                QStringList terms;
                for (const QString &w : words)
                    terms << QLatin1Char('"') + w + QLatin1String("\"*");
                parameters << terms.join(QLatin1Char(' '));
            } else {
                sql += QLatin1String(" AND t.id IN (SELECT COALESCE(x.root_id, x.id) FROM threads x WHERE"
                                     " to_tsvector('simple', coalesce(x.text, '')) @@ to_tsquery('simple', ?))");
                QStringList terms;
                for (const QString &w : words)
                    terms << w + QLatin1String(":*");
                parameters << terms.join(QLatin1String(" & "));
            }
        }
        // Keyset paging: the page after the row (created_at, id), an index range, never an offset.
        if (const QString after = query.queryItemValue(QStringLiteral("after")); !after.isEmpty()) {
            bool ok = false;
            const qint64 createdAt = after.section(QLatin1Char('.'), 0, 0).toLongLong(&ok);
            const QString id = after.section(QLatin1Char('.'), 1);
            if (!ok || id.isEmpty())
                return badRequest("The page to continue from is not one the service gave.");
            sql += QLatin1String(" AND (t.created_at, t.id) < (?, ?)");
            parameters << createdAt << id;
        }
        sql += QStringLiteral(" ORDER BY t.created_at DESC, t.id DESC LIMIT %1").arg(PageSize + 1);
        const QKSqlRows rows = store->query(sql, parameters);
        QJsonArray threads;
        for (qsizetype i = 0; i < qMin<qsizetype>(rows.size(), PageSize); ++i) {
            const QVariantList &row = rows[i];
            QJsonObject thread = threadObject(row);
            const qint64 activity = qMax(row.value(7).toLongLong(), row.value(12).toLongLong());
            thread.insert(QStringLiteral("unread"), row.value(11).isNull() || row.value(11).toLongLong() < activity);
            threads.append(thread);
        }
        QJsonValue next;
        if (rows.size() > PageSize) {
            const QVariantList &last = rows[PageSize - 1];
            next = QString::number(last.value(7).toLongLong()) + QLatin1Char('.') + last.value(0).toString();
        }
        return json({{QStringLiteral("threads"), threads}, {QStringLiteral("next"), next}});
    }

    // The item `id` with its application, when the member may see it.
    std::optional<QVariantList> item(const QKMember &member, const QString &id, bool withDetails = false)
    {
        const QString sql = QStringLiteral("SELECT %1%2 FROM threads t JOIN apps a ON a.id = t.app_id"
                                           " WHERE t.id = ? AND t.root_id IS NULL")
                                .arg(QLatin1String(InboxColumns),
                                     withDetails ? QLatin1String(", t.system_info, t.parameters") : QLatin1String());
        const QKSqlRows rows = store->query(sql, {id});
        if (rows.isEmpty() || !maysee(member, rows[0].value(1).toLongLong()))
            return std::nullopt;
        return rows[0];
    }

    QKServiceResponse thread(const QKMember &member, const QString &id)
    {
        const auto row = item(member, id, true);
        if (!row)
            return notFound();
        QJsonObject thread = threadObject(*row);
        thread.insert(QStringLiteral("unread"), false);
        thread.insert(QStringLiteral("systemInfo"), objectOrNull(row->value(11)));
        thread.insert(QStringLiteral("parameters"), objectOrNull(row->value(12)));
        QJsonArray comments;
        const QKSqlRows rows =
            store->query(QStringLiteral("SELECT id, text, author, created_at, member_id FROM threads"
                                        " WHERE app_id = ? AND root_id = ? ORDER BY created_at, id LIMIT 1000"),
                         {row->value(1), id});
        // Read up to the newest thing shown, whatever the clocks of the processes that wrote it.
        qint64 seen = qMax(now(), row->value(7).toLongLong());
        for (const QVariantList &c : rows) {
            seen = qMax(seen, c.value(3).toLongLong());
            comments.append(QJsonObject{{QStringLiteral("id"), c.value(0).toString()},
                                        {QStringLiteral("text"), orNull(c.value(1).toString())},
                                        {QStringLiteral("author"), authorOf(c.value(2).toString())},
                                        {QStringLiteral("createdAt"), c.value(3).toLongLong()},
                                        {QStringLiteral("team"), !c.value(4).isNull()}});
        }
        store->transaction([&](const QKSql &sql) {
            sql(QStringLiteral("INSERT INTO reads (member_id, thread_id, seen_at) VALUES (?, ?, ?)"
                               " ON CONFLICT (member_id, thread_id) DO UPDATE SET seen_at = excluded.seen_at"),
                {member.id, id, seen});
        });
        return json({{QStringLiteral("thread"), thread}, {QStringLiteral("comments"), comments}});
    }

    QKServiceResponse reply(const QKMember &member, const QString &id, const QJsonObject &body)
    {
        const QString text = body.value(QLatin1String("text")).toString().trimmed();
        if (text.isEmpty() || text.size() > 10000)
            return badRequest("A reply is 1 to 10000 characters.");
        const auto row = item(member, id);
        if (!row)
            return notFound();
        const qint64 appId = row->value(1).toLongLong();
        const qint64 t = now();
        const QString commentId = QKServiceStore::newIdentifier();
        bool stored = false;
        // The device's uid and the item's state, as a comment from the device would have.
        store->transaction([&](const QKSql &sql) {
            const QKSqlRows still =
                sql(QStringLiteral("SELECT uid, state FROM threads WHERE app_id = ? AND id = ? AND root_id IS NULL"),
                    {appId, id});
            if (still.isEmpty())
                return;
            sql(QStringLiteral("INSERT INTO threads (app_id, id, root_id, uid, text, author, state, created_at,"
                               " modified_at, member_id) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"),
                {appId, commentId, id, still[0].value(0), text, member.name, still[0].value(1), t, t, member.id});
            sql(QStringLiteral("UPDATE threads SET comments = comments + 1 WHERE app_id = ? AND id = ?"), {appId, id});
            stored = true;
        });
        if (!stored)
            return notFound();
        if (events)
            events->publish({QKServiceEvent::Kind::Comment, appId, id, commentId, false});
        return json({{QStringLiteral("comment"), QJsonObject{{QStringLiteral("id"), commentId},
                                                             {QStringLiteral("text"), text},
                                                             {QStringLiteral("author"), member.name},
                                                             {QStringLiteral("createdAt"), t},
                                                             {QStringLiteral("team"), true}}}},
                    201);
    }

    QKServiceResponse setState(const QKMember &member, const QString &id, const QJsonObject &body)
    {
        const QString state = body.value(QLatin1String("state")).toString();
        if (state != QLatin1String("Open") && state != QLatin1String("Resolved"))
            return badRequest("Feedback can only be Open or Resolved.");
        auto row = item(member, id);
        if (!row)
            return notFound();
        const qint64 appId = row->value(1).toLongLong();
        const qint64 t = now();
        // Zero rows: deleted since it was read.
        if (store->updateState(appId, id, state, t) == 0)
            return notFound();
        if (events)
            events->publish({QKServiceEvent::Kind::State, appId, id, {}, false});
        (*row)[6] = state;
        (*row)[8] = t;
        return json({{QStringLiteral("thread"), threadObject(*row)}});
    }

    QKServiceResponse remove(const QKMember &member, const QString &id)
    {
        const auto row = item(member, id);
        if (!row)
            return notFound();
        const qint64 appId = row->value(1).toLongLong();
        if (!store->deleteThread(appId, id))
            return notFound();
        store->transaction(
            [&](const QKSql &sql) { sql(QStringLiteral("DELETE FROM reads WHERE thread_id = ?"), {id}); });
        if (events)
            events->publish({QKServiceEvent::Kind::Deleted, appId, id, {}, false});
        return json({{QStringLiteral("id"), id}});
    }

    QKServiceResponse image(const QKMember &member, const QString &imageId, bool thumb)
    {
        const QKSqlRows owner = store->query(QStringLiteral("SELECT t.app_id FROM images i JOIN threads t"
                                                            " ON t.id = i.thread_id WHERE i.id = ?"),
                                             {imageId});
        if (owner.isEmpty() || !maysee(member, owner[0].value(0).toLongLong()))
            return error(404, 4042, "There is nothing at this address.");
        QKServiceResponse response;
        response.contentType = "image/png";
        addHeader(response, "Cache-Control", "private, max-age=86400");
        if (thumb) {
            QMutexLocker lock(&thumbnailsMutex);
            if (const QByteArray *kept = thumbnails.object(imageId)) {
                response.body = *kept;
                return response;
            }
        }
        const auto png = store->image(imageId);
        if (!png)
            return error(404, 4042, "There is nothing at this address.");
        if (!thumb) {
            response.body = *png;
            return response;
        }
        QBuffer source;
        source.setData(*png);
        QImageReader reader(&source, "png");
        const QSize size = reader.size();
        if (size.width() > 160)
            reader.setScaledSize(QSize(160, qMax(1, size.height() * 160 / size.width())));
        const QImage picture = reader.read();
        if (picture.isNull()) {
            response.body = *png;
            return response;
        }
        QBuffer out(&response.body);
        out.open(QIODevice::WriteOnly);
        picture.save(&out, "PNG");
        QMutexLocker lock(&thumbnailsMutex);
        thumbnails.insert(imageId, new QByteArray(response.body), int(response.body.size()));
        return response;
    }

    QJsonObject appObject(const QKServiceApp &app, bool admin, const QKSqlRows &memberships)
    {
        QJsonObject object{{QStringLiteral("id"), app.id},
                           {QStringLiteral("name"), app.name},
                           {QStringLiteral("createdAt"), app.createdAt}};
        if (admin) {
            object.insert(QStringLiteral("key"), app.key);
            QJsonArray members;
            for (const QVariantList &row : memberships)
                if (row.value(0).toLongLong() == app.id)
                    members.append(row.value(1).toLongLong());
            object.insert(QStringLiteral("members"), members);
        }
        return object;
    }

    QKSqlRows memberships() { return store->query(QStringLiteral("SELECT app_id, member_id FROM memberships")); }

    std::optional<QKServiceApp> appById(qint64 id)
    {
        for (const QKServiceApp &app : store->apps())
            if (app.id == id)
                return app;
        return std::nullopt;
    }

    QKServiceResponse apps(const QKMember &member)
    {
        const QList<qint64> visible = visibleApps(member);
        const QKSqlRows all = member.admin ? memberships() : QKSqlRows();
        QJsonArray list;
        for (const QKServiceApp &app : store->apps())
            if (visible.contains(app.id))
                list.append(appObject(app, member.admin, all));
        return json({{QStringLiteral("apps"), list}});
    }

    QKServiceResponse addApp(const QJsonObject &body)
    {
        const QString name = body.value(QLatin1String("name")).toString().trimmed();
        if (name.isEmpty() || name.size() > 200)
            return badRequest("An application's name is 1 to 200 characters.");
        for (const QKServiceApp &app : store->apps())
            if (app.name == name)
                return error(409, 4091, "An application of that name exists already.");
        return json({{QStringLiteral("app"), appObject(store->addApp(name), true, {})}}, 201);
    }

    QKServiceResponse rotate(qint64 appId)
    {
        const auto app = appById(appId);
        if (!app)
            return error(404, 4044, "There is no such application.");
        const auto rotated = store->rotateApp(app->name);
        if (!rotated)
            return error(404, 4044, "There is no such application.");
        return json({{QStringLiteral("app"), appObject(*rotated, true, memberships())}});
    }

    QKServiceResponse setMembers(qint64 appId, const QJsonObject &body)
    {
        const auto app = appById(appId);
        if (!app)
            return error(404, 4044, "There is no such application.");
        const QJsonValue members = body.value(QLatin1String("members"));
        if (!members.isArray())
            return badRequest("Give the members as a list of their numbers.");
        QVariantList ids;
        for (const QJsonValue &m : members.toArray()) {
            if (!m.isDouble())
                return badRequest("Give the members as a list of their numbers.");
            ids << qint64(m.toDouble());
        }
        store->transaction([&](const QKSql &sql) {
            sql(QStringLiteral("DELETE FROM memberships WHERE app_id = ?"), {appId});
            for (const QVariant &id : std::as_const(ids))
                sql(QStringLiteral("INSERT INTO memberships (app_id, member_id) SELECT ?, id FROM members WHERE id = ?"
                                   " ON CONFLICT DO NOTHING"),
                    {appId, id});
        });
        return json({{QStringLiteral("app"), appObject(*app, true, memberships())}});
    }

    QKServiceResponse members()
    {
        QJsonArray list;
        for (const QKMember &m : accounts.members())
            list.append(QJsonObject{
                {QStringLiteral("id"), m.id}, {QStringLiteral("name"), m.name}, {QStringLiteral("admin"), m.admin}});
        return json({{QStringLiteral("members"), list}});
    }

    QKServiceResponse openEvents(const QKMember &member)
    {
        if (hub.full())
            return error(503, 5030, "Too many dashboards are open at once; this one will try again.");
        const QList<qint64> visible = visibleApps(member);
        QKServiceResponse response;
        response.contentType = "text/event-stream";
        addHeader(response, "Cache-Control", "no-store");
        addHeader(response, "X-Accel-Buffering", "no");
        response.stream = [this, admin = member.admin, apps = QSet<qint64>(visible.cbegin(), visible.cend())](
                              const std::shared_ptr<QKResponseStream> &stream) {
            hub.add({stream, admin, apps});
        };
        return response;
    }

    QKServiceResponse api(const QKServiceRequest &request, const QByteArray &path, const QUrlQuery &query);
};

QKServiceResponse QKDashboard::Private::api(const QKServiceRequest &request, const QByteArray &path,
                                            const QUrlQuery &query)
{
    const QList<QByteArray> s = path.mid(int(qstrlen("/dashboard/api/"))).split('/');
    const QByteArray &method = request.method;
    const bool changes = method != "GET" && method != "HEAD";
    const auto text = [&s](int i) { return QString::fromUtf8(QByteArray::fromPercentEncoding(s.value(i))); };
    const auto number = [&s](int i) {
        bool ok = false;
        const qint64 n = s.value(i).toLongLong(&ok);
        return ok ? n : qint64(-1);
    };

    // A change comes from a page of this origin, and with a JSON body, which a form of
    // another site cannot send without asking first.
    if (changes) {
        if (const QByteArray origin = request.header("origin"); !origin.isNull()) {
            const QByteArray authority = origin.mid(origin.indexOf("://") + 3);
            if (origin.indexOf("://") < 0 || authority.compare(request.header("host"), Qt::CaseInsensitive) != 0)
                return error(403, 4031, "This change did not come from the dashboard.");
        }
        if (!request.body.isEmpty() && !request.header("content-type").startsWith("application/json"))
            return error(415, 4150, "The dashboard sends JSON.");
    }
    QJsonObject body;
    if (changes && !request.body.isEmpty()) {
        const auto value = QKJsonReader::read(request.body);
        if (!value || !value->isObject())
            return badRequest("The request is not a JSON object.");
        body = value->toObject();
    }

    if (s.size() == 1 && s[0] == "session" && method == "POST")
        return logIn(request, body);

    const QByteArray token = cookie(request, "murmora_session");
    const auto session = accounts.session(token);
    if (!session)
        return error(401, 4011, "Log in first.");
    if (changes && !sameBytes(request.header("x-csrf-token"), session->csrf))
        return error(403, 4031, "This change did not come from the dashboard.");
    const QKMember &member = session->member;

    if (s.size() == 1 && s[0] == "session") {
        if (method == "GET")
            return sessionAnswer(*session);
        if (method == "DELETE") {
            accounts.logOut(token);
            QKServiceResponse response = json({});
            addHeader(response, "Set-Cookie", sessionCookie("", 0));
            return response;
        }
    } else if (s.size() == 1 && s[0] == "threads" && method == "GET") {
        return inbox(member, query);
    } else if (s.size() == 2 && s[0] == "threads") {
        if (method == "GET")
            return thread(member, text(1));
        if (method == "DELETE")
            return remove(member, text(1));
    } else if (s.size() == 3 && s[0] == "threads" && s[2] == "comments" && method == "POST") {
        return reply(member, text(1), body);
    } else if (s.size() == 3 && s[0] == "threads" && s[2] == "state" && method == "PUT") {
        return setState(member, text(1), body);
    } else if (s.size() == 2 && s[0] == "images" && method == "GET") {
        return image(member, text(1), !query.queryItemValue(QStringLiteral("thumb")).isEmpty());
    } else if (s.size() == 1 && s[0] == "events" && method == "GET") {
        return openEvents(member);
    } else if (s.size() == 1 && s[0] == "apps" && method == "GET") {
        return apps(member);
    } else if (!member.admin && (s[0] == "apps" || s[0] == "members" || s[0] == "webhooks")) {
        return forbidden();
    } else if (s.size() == 1 && s[0] == "apps" && method == "POST") {
        return addApp(body);
    } else if (s.size() == 3 && s[0] == "apps" && s[2] == "rotate" && method == "POST") {
        return rotate(number(1));
    } else if (s.size() == 3 && s[0] == "apps" && s[2] == "members" && method == "PUT") {
        return setMembers(number(1), body);
    } else if (s.size() == 1 && s[0] == "members" && method == "GET") {
        return members();
    } else if (s.size() == 3 && s[0] == "apps" && s[2] == "webhooks" && webhooks) {
        if (!appById(number(1)))
            return error(404, 4044, "There is no such application.");
        if (method == "GET")
            return json(webhooks->list(number(1)));
        if (method == "POST") {
            try {
                return json({{QStringLiteral("webhook"),
                              webhooks->add(number(1), body.value(QLatin1String("url")).toString())}},
                            201);
            } catch (const std::invalid_argument &e) {
                return badRequest(e.what());
            }
        }
    } else if (s.size() == 2 && s[0] == "webhooks" && method == "DELETE" && webhooks) {
        if (!webhooks->remove(number(1)))
            return error(404, 4045, "There is no such webhook.");
        return json({{QStringLiteral("id"), number(1)}});
    }
    return error(404, 4042, "There is nothing at this address.");
}

QKDashboard::QKDashboard(QKServiceStore *store, QKServiceEvents *events, QKWebhooks *webhooks)
    : d(std::make_unique<Private>(store, events, webhooks))
{}

QKDashboard::~QKDashboard()
{
    stop();
    if (d->events)
        d->events->unsubscribe(d->subscription);
}

bool QKDashboard::serves(const QByteArray &target)
{
    return !target.startsWith("/feedback/");
}

QKAccounts &QKDashboard::accounts()
{
    return d->accounts;
}

void QKDashboard::stop()
{
    d->hub.stop();
}

QKServiceResponse QKDashboard::handle(const QKServiceRequest &request)
{
    QByteArray path = request.target;
    QByteArray rawQuery;
    if (const qsizetype at = path.indexOf('?'); at >= 0) {
        rawQuery = path.mid(at + 1);
        path.truncate(at);
    }
    // Forms and URLSearchParams write a space as '+'.
    const QUrlQuery query(QString::fromLatin1(rawQuery.replace('+', "%20")));
    QKServiceResponse response;
    try {
        if (path.startsWith("/dashboard/api/")) {
            response = d->api(request, path, query);
            addHeader(response, "Cache-Control", "no-store");
        } else {
            response = d->asset(request, path == "/index.html" ? QByteArray("/") : path);
        }
    } catch (const QKServiceStoreError &e) {
        response = error(500, 5000, "The service could not reach its database. Try again in a moment.");
        response.note = e.what();
    }
    addHeader(response, "Content-Security-Policy", ContentSecurityPolicy);
    addHeader(response, "Referrer-Policy", "no-referrer");
    addHeader(response, "X-Frame-Options", "DENY");
    response.route = routeOf(path);
    return response;
}
