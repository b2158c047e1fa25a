#include "QKPostgresStore.h"

#include <QDateTime>
#include <QHash>
#include <QMutexLocker>
#include <QUrl>

#include <libpq-fe.h>

#include <cstdlib>

namespace {

// Migration 1 of the SQLite store in PostgreSQL's types. Text compares in the "C"
// collation, byte by byte as SQLite does, whatever the database's default is.
const char *const Migrations[] = {
    "CREATE TABLE apps (id BIGSERIAL PRIMARY KEY, name TEXT COLLATE \"C\" NOT NULL UNIQUE,"
    " key TEXT COLLATE \"C\" NOT NULL UNIQUE, created_at BIGINT NOT NULL);"
    "CREATE TABLE threads (seq BIGSERIAL PRIMARY KEY, app_id BIGINT NOT NULL REFERENCES apps(id),"
    " id TEXT COLLATE \"C\" NOT NULL UNIQUE, root_id TEXT COLLATE \"C\", uid TEXT COLLATE \"C\","
    " text TEXT COLLATE \"C\", author TEXT COLLATE \"C\", state TEXT COLLATE \"C\", created_at BIGINT NOT NULL,"
    " modified_at BIGINT NOT NULL, system_info TEXT, parameters TEXT, image_id TEXT COLLATE \"C\","
    " comments BIGINT NOT NULL DEFAULT 0);"
    "CREATE INDEX threads_device ON threads (app_id, uid, root_id, created_at, id);"
    // PostgreSQL takes no order from an index past "root_id IS NULL": a device's items
    // have their own.
    "CREATE INDEX threads_device_items ON threads (app_id, uid, created_at, id) WHERE root_id IS NULL;"
    "CREATE INDEX threads_root ON threads (app_id, root_id, created_at, id);"
    "CREATE TABLE images (id TEXT COLLATE \"C\" PRIMARY KEY, thread_id TEXT COLLATE \"C\" NOT NULL,"
    " png BYTEA NOT NULL);"
    "CREATE INDEX images_thread ON images (thread_id);"
    "CREATE TABLE answers (app_id BIGINT NOT NULL, key TEXT COLLATE \"C\" NOT NULL, created_at BIGINT NOT NULL,"
    " body BYTEA NOT NULL, PRIMARY KEY (app_id, key));"
    "CREATE INDEX answers_age ON answers (created_at);",
    // 2: the dashboard: members and their sessions, who sees which application, what each
    // member has read, webhooks and their deliveries, full-text search.
    "ALTER TABLE threads ADD COLUMN member_id BIGINT;"
    "CREATE INDEX threads_inbox ON threads (app_id, created_at, id) WHERE root_id IS NULL;"
    "CREATE INDEX threads_recent ON threads (created_at, id) WHERE root_id IS NULL;"
    "CREATE INDEX threads_words ON threads USING GIN (to_tsvector('simple', coalesce(text, '')));"
    "CREATE TABLE members (id BIGSERIAL PRIMARY KEY, name TEXT COLLATE \"C\" NOT NULL UNIQUE,"
    " password_hash TEXT NOT NULL, admin INTEGER NOT NULL DEFAULT 0, created_at BIGINT NOT NULL);"
    "CREATE TABLE sessions (token_hash TEXT COLLATE \"C\" PRIMARY KEY,"
    " member_id BIGINT NOT NULL REFERENCES members(id) ON DELETE CASCADE, csrf TEXT NOT NULL,"
    " created_at BIGINT NOT NULL, expires_at BIGINT NOT NULL);"
    "CREATE INDEX sessions_expiry ON sessions (expires_at);"
    "CREATE TABLE memberships (app_id BIGINT NOT NULL REFERENCES apps(id) ON DELETE CASCADE,"
    " member_id BIGINT NOT NULL REFERENCES members(id) ON DELETE CASCADE, PRIMARY KEY (app_id, member_id));"
    "CREATE TABLE reads (member_id BIGINT NOT NULL REFERENCES members(id) ON DELETE CASCADE,"
    " thread_id TEXT COLLATE \"C\" NOT NULL, seen_at BIGINT NOT NULL, PRIMARY KEY (member_id, thread_id));"
    "CREATE TABLE webhooks (id BIGSERIAL PRIMARY KEY, app_id BIGINT NOT NULL REFERENCES apps(id) ON DELETE CASCADE,"
    " url TEXT NOT NULL, secret TEXT NOT NULL, created_at BIGINT NOT NULL);"
    "CREATE INDEX webhooks_app ON webhooks (app_id);"
    "CREATE TABLE deliveries (id BIGSERIAL PRIMARY KEY,"
    " webhook_id BIGINT NOT NULL REFERENCES webhooks(id) ON DELETE CASCADE, event TEXT NOT NULL,"
    " payload TEXT NOT NULL, status TEXT NOT NULL, attempts INTEGER NOT NULL DEFAULT 0, next_at BIGINT,"
    " response_status INTEGER, error TEXT, created_at BIGINT NOT NULL, delivered_at BIGINT);"
    "CREATE INDEX deliveries_due ON deliveries (status, next_at);"
    "CREATE INDEX deliveries_webhook ON deliveries (webhook_id, id);",
};

// "murmora" in ASCII: the advisory lock that queues the migrations of processes starting together.
constexpr const char *MigrationLock = "SELECT pg_advisory_xact_lock(30809906784203361)";

constexpr qint64 AnswerLifetimeMs = 24 * 3600 * 1000;

qint64 now()
{
    return QDateTime::currentMSecsSinceEpoch();
}

// The password of a libpq URI, as written and decoded, wherever it is given.
QList<QByteArray> secretsOf(const QByteArray &url)
{
    QList<QByteArray> secrets;
    const auto add = [&secrets](const QByteArray &raw) {
        if (raw.isEmpty())
            return;
        secrets << raw << QByteArray::fromPercentEncoding(raw);
    };
    const qsizetype scheme = url.indexOf("://");
    const qsizetype start = scheme < 0 ? 0 : scheme + 3;
    qsizetype end = url.size();
    for (const char stop : {'/', '?', '#'})
        if (const qsizetype at = url.indexOf(stop, start); at >= 0 && at < end)
            end = at;
    const QByteArray authority = url.mid(start, end - start);
    if (const qsizetype at = authority.lastIndexOf('@'); at >= 0) {
        const QByteArray userInfo = authority.left(at);
        if (const qsizetype colon = userInfo.indexOf(':'); colon >= 0)
            add(userInfo.mid(colon + 1));
    }
    if (const qsizetype query = url.indexOf('?'); query >= 0)
        for (const QByteArray &item : url.mid(query + 1).split('&'))
            if (item.startsWith("password="))
                add(item.mid(9));
    return secrets;
}

} // namespace

// One libpq connection; used by one thread at a time.
class QKPostgresStore::Connection
{
public:
    explicit Connection(const QByteArray &url) : secrets(secretsOf(url))
    {
        // The URL's own settings win over these defaults, except the encoding we read and write.
        const char *keywords[] = {"connect_timeout", "fallback_application_name", "dbname", "client_encoding", nullptr};
        const char *values[] = {"10", "murmora-server", url.constData(), "UTF8", nullptr};
        conn = PQconnectdbParams(keywords, values, 1);
        if (PQstatus(conn) != CONNECTION_OK) {
            const QByteArray where = QUrl::fromEncoded(url).toString(QUrl::RemovePassword | QUrl::RemoveQuery).toUtf8();
            const std::string message =
                this->message("Cannot connect to PostgreSQL at " + where + ": " + (conn ? PQerrorMessage(conn) : ""));
            PQfinish(conn);
            throw QKServiceStoreError(message);
        }
        PQsetNoticeReceiver(conn, &Connection::notice, nullptr);
    }
    ~Connection() { PQfinish(conn); }

    // `text` without the password, for people and logs.
    std::string message(QByteArray text) const
    {
        for (const QByteArray &secret : secrets)
            text.replace(secret, "…");
        return text.trimmed().toStdString();
    }

    // Notices ("already exists, skipping") are no news; warnings go to the log.
    static void notice(void *, const PGresult *r)
    {
        const char *severity = PQresultErrorField(r, PG_DIAG_SEVERITY_NONLOCALIZED);
        if (severity && qstrcmp(severity, "WARNING") == 0)
            qWarning("PostgreSQL: %s", PQresultErrorField(r, PG_DIAG_MESSAGE_PRIMARY));
    }

    bool healthy() const { return PQstatus(conn) == CONNECTION_OK && PQtransactionStatus(conn) == PQTRANS_IDLE; }

    PGconn *conn = nullptr;
    QList<QByteArray> secrets;
    // Taken from the pool: its server may have gone since, so the first statement may retry.
    bool mayRetry = false;
    // Statements prepared on this connection, by their text: a listing is parsed and
    // planned once per connection rather than once per request.
    QHash<QByteArray, QByteArray> prepared;
};

namespace {

using Connection = QKPostgresStore::Connection;

// Statement parameters: text, or binary for bytea.
class Params
{
public:
    Params &text(const QString &value)
    {
        if (value.isNull())
            return null();
        return add(value.toUtf8(), 0);
    }
    Params &integer(qint64 value) { return add(QByteArray::number(value), 0); }
    Params &bytes(const QByteArray &value) { return add(value, 1); }
    // A JSON object as text; empty is NULL.
    Params &json(const QByteArray &value) { return value.isEmpty() ? null() : add(value, 0); }
    Params &variant(const QVariant &value)
    {
        switch (value.typeId()) {
        case QMetaType::UnknownType:
            return null();
        case QMetaType::Int:
        case QMetaType::LongLong:
        case QMetaType::Bool:
            return integer(value.toLongLong());
        case QMetaType::Double:
            return add(QByteArray::number(value.toDouble(), 'g', 17), 0);
        case QMetaType::QByteArray:
            return bytes(value.toByteArray());
        default:
            return text(value.toString());
        }
    }

    QList<QByteArray> values;
    QList<bool> nulls;
    QList<int> formats;

private:
    Params &null()
    {
        values.append(QByteArray());
        nulls.append(true);
        formats.append(0);
        return *this;
    }
    Params &add(const QByteArray &value, int format)
    {
        // libpq reads text parameters up to the first NUL, so refuse rather than cut.
        if (format == 0 && value.contains('\0'))
            throw QKServiceStoreError("PostgreSQL cannot store text holding a NUL character.");
        values.append(value);
        nulls.append(false);
        formats.append(format);
        return *this;
    }
};

class Result
{
public:
    explicit Result(PGresult *r) : r(r) {}
    Result(Result &&other) noexcept : r(std::exchange(other.r, nullptr)) {}
    Result(const Result &) = delete;
    Result &operator=(const Result &) = delete;
    ~Result() { PQclear(r); }

    int rows() const { return PQntuples(r); }
    qint64 changed() const { return std::strtoll(PQcmdTuples(r), nullptr, 10); }
    bool isNull(int row, int column) const { return PQgetisnull(r, row, column); }
    QString string(int row, int column) const
    {
        if (isNull(row, column))
            return {};
        return QString::fromUtf8(PQgetvalue(r, row, column), PQgetlength(r, row, column));
    }
    QByteArray bytes(int row, int column) const
    {
        if (isNull(row, column))
            return {};
        return QByteArray(PQgetvalue(r, row, column), PQgetlength(r, row, column));
    }
    qint64 number(int row, int column) const { return std::strtoll(PQgetvalue(r, row, column), nullptr, 10); }
    // Any column of a text-format result, by its type.
    QVariant value(int row, int column) const
    {
        if (isNull(row, column))
            return {};
        switch (PQftype(r, column)) {
        case 16: // bool
            return qint64(PQgetvalue(r, row, column)[0] == 't');
        case 20: // int8
        case 21: // int2
        case 23: // int4
            return number(row, column);
        case 700:  // float4
        case 701:  // float8
        case 1700: // numeric
            return std::strtod(PQgetvalue(r, row, column), nullptr);
        case 17: { // bytea, as \x hex in text results
            size_t length = 0;
            unsigned char *raw =
                PQunescapeBytea(reinterpret_cast<const unsigned char *>(PQgetvalue(r, row, column)), &length);
            if (!raw)
                throw QKServiceStoreError("PostgreSQL gave bytea that cannot be read.");
            const QByteArray bytes(reinterpret_cast<const char *>(raw), qsizetype(length));
            PQfreemem(raw);
            return bytes;
        }
        default:
            return string(row, column);
        }
    }
    QKSqlRows all() const
    {
        QKSqlRows list;
        const int columns = PQnfields(r);
        for (int row = 0; row < rows(); ++row) {
            QVariantList values;
            values.reserve(columns);
            for (int column = 0; column < columns; ++column)
                values.append(value(row, column));
            list.append(values);
        }
        return list;
    }

private:
    PGresult *r;
};

bool succeeded(PGresult *r)
{
    const ExecStatusType status = PQresultStatus(r);
    return status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK;
}

[[noreturn]] void fail(Connection *c, const char *sql, PGresult *r)
{
    const QByteArray error = r && PQresultErrorMessage(r)[0] ? PQresultErrorMessage(r) : PQerrorMessage(c->conn);
    PQclear(r);
    QByteArray statement(sql);
    if (statement.size() > 60)
        statement = statement.left(60) + "…";
    throw QKServiceStoreError(c->message("PostgreSQL failed on \"" + statement + "\": " + error));
}

// Runs one statement; `binary` asks for the result columns in binary (bytea as raw bytes).
Result exec(Connection *c, const char *sql, const Params &p = {}, bool binary = false)
{
    const int n = int(p.values.size());
    QList<const char *> values(n);
    QList<int> lengths(n);
    for (int i = 0; i < n; ++i) {
        values[i] = p.nulls[i] ? nullptr : p.values[i].constData();
        lengths[i] = int(p.values[i].size());
    }
    const auto run = [&]() -> PGresult * {
        // Only the simple protocol takes several statements at once (the migrations).
        if (n == 0 && !binary)
            return PQexec(c->conn, sql);
        QByteArray name = c->prepared.value(QByteArray(sql));
        if (name.isNull()) {
            // Filters come in many shapes; a bounded set stays prepared.
            if (c->prepared.size() >= 64) {
                PQclear(PQexec(c->conn, "DEALLOCATE ALL"));
                c->prepared.clear();
            }
            name = "s" + QByteArray::number(c->prepared.size());
            PGresult *made = PQprepare(c->conn, name.constData(), sql, n, nullptr);
            if (!succeeded(made))
                return made;
            PQclear(made);
            c->prepared.insert(QByteArray(sql), name);
        }
        return PQexecPrepared(c->conn, name.constData(), n, values.constData(), lengths.constData(),
                              p.formats.constData(), binary ? 1 : 0);
    };
    PGresult *r = run();
    if (!succeeded(r) && c->mayRetry && PQstatus(c->conn) == CONNECTION_BAD) {
        // A pooled connection whose server went away (a restart) fails its first statement
        // of a lease, before anything of the lease was done: reconnect and say it again.
        PQclear(r);
        PQreset(c->conn);
        c->prepared.clear();
        r = PQstatus(c->conn) == CONNECTION_OK ? run() : nullptr;
    }
    c->mayRetry = false;
    if (!succeeded(r))
        fail(c, sql, r);
    return Result(r);
}

// BEGIN … COMMIT, rolled back when left early or by an exception.
class Transaction
{
public:
    explicit Transaction(Connection *c) : c(c) { exec(c, "BEGIN ISOLATION LEVEL READ COMMITTED"); }
    ~Transaction()
    {
        if (open && PQtransactionStatus(c->conn) != PQTRANS_IDLE)
            PQclear(PQexec(c->conn, "ROLLBACK"));
    }
    void commit()
    {
        exec(c, "COMMIT");
        open = false;
    }

private:
    Connection *c;
    bool open = true;
};

QKServiceApp readApp(const Result &r, int row)
{
    return {r.number(row, 0), r.string(row, 1), r.string(row, 2), r.number(row, 3)};
}

// Claims `key` for `answer`, or gives the first answer given under it. A concurrent
// transaction holding the same key makes the insert wait for its end, so exactly one
// of them stores its thread; an answer past its lifetime is taken over.
std::optional<QByteArray> claimKey(Connection *c, qint64 appId, const QString &key, const QByteArray &answer)
{
    if (key.isEmpty())
        return std::nullopt;
    const qint64 t = now();
    const Result claimed =
        exec(c,
             "INSERT INTO answers (app_id, key, created_at, body) VALUES ($1, $2, $3, $4)"
             " ON CONFLICT (app_id, key) DO UPDATE SET created_at = EXCLUDED.created_at,"
             " body = EXCLUDED.body WHERE answers.created_at < $5 RETURNING 1",
             Params().integer(appId).text(key).integer(t).bytes(answer).integer(t - AnswerLifetimeMs));
    if (claimed.rows() == 1)
        return std::nullopt;
    // The conflicting row stays locked by this transaction, so it is there to read.
    const Result first =
        exec(c, "SELECT body FROM answers WHERE app_id = $1 AND key = $2", Params().integer(appId).text(key), true);
    if (first.rows() != 1)
        throw QKServiceStoreError("PostgreSQL lost the answer kept under an idempotency key.");
    return first.bytes(0, 0);
}

void insertRow(Connection *c, qint64 appId, const QKServiceThread &t)
{
    exec(c,
         "INSERT INTO threads (app_id, id, root_id, uid, text, author, state, created_at, modified_at,"
         " system_info, parameters, image_id) VALUES ($1, $2, $3, $4, $5, $6, $7, $8, $9, $10, $11, $12)",
         Params()
             .integer(appId)
             .text(t.id)
             .text(t.rootId)
             .text(t.uid)
             .text(t.text)
             .text(t.author)
             .text(t.state)
             .integer(t.createdAt)
             .integer(t.modifiedAt)
             .json(t.systemInfo)
             .json(t.parameters)
             .text(t.imageId));
}

} // namespace

class QKPostgresStore::Lease
{
public:
    explicit Lease(QKPostgresStore *store) : store(store), c(store->acquire()) {}
    ~Lease() { store->release(c); }
    Connection *operator->() const { return c; }
    operator Connection *() const { return c; }

private:
    QKPostgresStore *store;
    Connection *c;
};

QKPostgresStore::QKPostgresStore(const QString &url) : m_url(url.toUtf8())
{
    try {
        migrate();
    } catch (...) {
        // No destructor runs for a constructor that throws.
        qDeleteAll(m_all);
        throw;
    }
}

QKPostgresStore::~QKPostgresStore()
{
    for (Connection *c : std::as_const(m_all))
        delete c;
}

QKPostgresStore::Connection *QKPostgresStore::acquire()
{
    {
        QMutexLocker lock(&m_mutex);
        if (!m_idle.isEmpty()) {
            Connection *c = m_idle.takeLast();
            c->mayRetry = true;
            return c;
        }
    }
    auto *c = new Connection(m_url);
    QMutexLocker lock(&m_mutex);
    m_all.append(c);
    return c;
}

void QKPostgresStore::release(Connection *connection)
{
    if (connection->healthy()) {
        QMutexLocker lock(&m_mutex);
        m_idle.append(connection);
        return;
    }
    // A lost or confused connection is dropped; the next caller opens a new one.
    {
        QMutexLocker lock(&m_mutex);
        m_all.removeOne(connection);
    }
    delete connection;
}

void QKPostgresStore::migrate()
{
    Lease c(this);
    Transaction transaction(c);
    exec(c, MigrationLock);
    exec(c, "CREATE TABLE IF NOT EXISTS schema_version (version INTEGER NOT NULL)");
    int version = 0;
    {
        const Result r = exec(c, "SELECT version FROM schema_version");
        if (r.rows() > 0)
            version = int(r.number(0, 0));
    }
    if (version > schemaVersion())
        throw QKServiceStoreError(newerSchemaMessage(version).toStdString());
    if (version == schemaVersion())
        return;
    for (int v = version; v < schemaVersion(); ++v)
        exec(c, Migrations[v]);
    exec(c, "DELETE FROM schema_version");
    exec(c, "INSERT INTO schema_version (version) VALUES ($1)", Params().integer(schemaVersion()));
    transaction.commit();
}

std::optional<QKServiceApp> QKPostgresStore::appByKey(const QString &key)
{
    Lease c(this);
    const Result r = exec(c, "SELECT id, name, key, created_at FROM apps WHERE key = $1", Params().text(key));
    if (r.rows() == 0)
        return std::nullopt;
    return readApp(r, 0);
}

QList<QKServiceApp> QKPostgresStore::apps()
{
    Lease c(this);
    const Result r = exec(c, "SELECT id, name, key, created_at FROM apps ORDER BY name");
    QList<QKServiceApp> list;
    for (int row = 0; row < r.rows(); ++row)
        list.append(readApp(r, row));
    return list;
}

QKServiceApp QKPostgresStore::addApp(const QString &name)
{
    QKServiceApp app{0, name, newIdentifier(), now()};
    Lease c(this);
    const Result r = exec(c,
                          "INSERT INTO apps (name, key, created_at) VALUES ($1, $2, $3)"
                          " ON CONFLICT (name) DO NOTHING RETURNING id",
                          Params().text(name).text(app.key).integer(app.createdAt));
    if (r.rows() == 0)
        throw QKServiceStoreError(QStringLiteral("An application named %1 exists already.").arg(name).toStdString());
    app.id = r.number(0, 0);
    return app;
}

std::optional<QKServiceApp> QKPostgresStore::rotateApp(const QString &name)
{
    Lease c(this);
    const Result r = exec(c, "UPDATE apps SET key = $1 WHERE name = $2 RETURNING id, name, key, created_at",
                          Params().text(newIdentifier()).text(name));
    if (r.rows() == 0)
        return std::nullopt;
    return readApp(r, 0);
}

QKStoredAnswer QKPostgresStore::insertThread(qint64 appId, const QKServiceThread &thread, const QByteArray &png,
                                             const QString &idempotencyKey, const QByteArray &answer)
{
    Lease c(this);
    Transaction transaction(c);
    if (auto first = claimKey(c, appId, idempotencyKey, answer))
        return {QKStoredAnswer::Outcome::Replayed, *first};
    insertRow(c, appId, thread);
    if (!png.isEmpty())
        exec(c, "INSERT INTO images (id, thread_id, png) VALUES ($1, $2, $3)",
             Params().text(thread.imageId).text(thread.id).bytes(png));
    transaction.commit();
    return {QKStoredAnswer::Outcome::Stored, answer};
}

QKStoredAnswer QKPostgresStore::insertComment(qint64 appId, const QKServiceThread &comment,
                                              const QString &idempotencyKey, const QByteArray &answer)
{
    Lease c(this);
    Transaction transaction(c);
    if (auto first = claimKey(c, appId, idempotencyKey, answer))
        return {QKStoredAnswer::Outcome::Replayed, *first};
    // Counting first locks the item, so a concurrent delete cannot leave the comment orphaned.
    const Result item = exec(c,
                             "UPDATE threads SET comments = comments + 1"
                             " WHERE app_id = $1 AND id = $2 AND root_id IS NULL",
                             Params().integer(appId).text(comment.rootId));
    if (item.changed() == 0)
        return {QKStoredAnswer::Outcome::NoSuchThread, {}};
    insertRow(c, appId, comment);
    transaction.commit();
    return {QKStoredAnswer::Outcome::Stored, answer};
}

QList<QKServiceThread> QKPostgresStore::threads(qint64 appId, const QKThreadPage &page)
{
    QVariantList parameters{appId};
    const QString condition = page.filter.toSql(QKFilterQuery::Dialect::PostgreSQL, parameters);
    const QByteArray sql = QStringLiteral("SELECT %1 FROM threads WHERE app_id = $1 AND %2 ORDER BY %3 LIMIT $%4"
                                          " OFFSET $%5")
                               .arg(QLatin1String(ThreadColumns), condition, QKFilterQuery::orderBy(page.sort))
                               .arg(parameters.size() + 1)
                               .arg(parameters.size() + 2)
                               .toUtf8();
    Params p;
    for (const QVariant &value : std::as_const(parameters))
        p.variant(value);
    p.integer(page.limit).integer(page.skip);
    Lease c(this);
    const Result r = exec(c, sql.constData(), p);
    QList<QKServiceThread> list;
    list.reserve(r.rows());
    for (int row = 0; row < r.rows(); ++row) {
        // One row of the result, as readThread reads columns.
        struct Column
        {
            const Result &r;
            int row;
            QString string(int c) const { return r.string(row, c); }
            QByteArray bytes(int c) const { return r.bytes(row, c); }
            qint64 number(int c) const { return r.number(row, c); }
        };
        list.append(readThread(Column{r, row}));
    }
    return list;
}

// Writers lock an item before its comments, so deletes, comments and state changes of
// one thread never deadlock.
qint64 QKPostgresStore::updateState(qint64 appId, const QString &rootId, const QString &state, qint64 modifiedAt)
{
    Lease c(this);
    Transaction transaction(c);
    const Params p = Params().text(state).integer(modifiedAt).integer(appId).text(rootId);
    const qint64 item =
        exec(c, "UPDATE threads SET state = $1, modified_at = $2 WHERE app_id = $3 AND id = $4 AND root_id IS NULL", p)
            .changed();
    if (item == 0)
        return 0;
    const qint64 comments =
        exec(c, "UPDATE threads SET state = $1, modified_at = $2 WHERE app_id = $3 AND root_id = $4", p).changed();
    transaction.commit();
    return item + comments;
}

bool QKPostgresStore::deleteThread(qint64 appId, const QString &id)
{
    Lease c(this);
    Transaction transaction(c);
    const Params p = Params().integer(appId).text(id);
    QString rootId;
    {
        const Result r = exec(c, "SELECT root_id FROM threads WHERE app_id = $1 AND id = $2", p);
        if (r.rows() == 0)
            return false;
        rootId = r.string(0, 0);
    }
    if (rootId.isNull()) {
        if (exec(c, "DELETE FROM threads WHERE app_id = $1 AND id = $2 AND root_id IS NULL", p).changed() == 0)
            return false;
        exec(c, "DELETE FROM threads WHERE app_id = $1 AND root_id = $2", p);
        exec(c, "DELETE FROM images WHERE thread_id = $1", Params().text(id));
    } else {
        exec(c, "UPDATE threads SET comments = comments - 1 WHERE app_id = $1 AND id = $2",
             Params().integer(appId).text(rootId));
        if (exec(c, "DELETE FROM threads WHERE app_id = $1 AND id = $2", p).changed() == 0)
            return false;
    }
    transaction.commit();
    return true;
}

std::optional<QByteArray> QKPostgresStore::image(const QString &imageId)
{
    Lease c(this);
    const Result r = exec(c, "SELECT png FROM images WHERE id = $1", Params().text(imageId), true);
    if (r.rows() == 0)
        return std::nullopt;
    return r.bytes(0, 0);
}

void QKPostgresStore::forgetAnswers(qint64 olderThan)
{
    Lease c(this);
    exec(c, "DELETE FROM answers WHERE created_at < $1", Params().integer(olderThan));
}

QKFilterQuery::Dialect QKPostgresStore::dialect() const
{
    return QKFilterQuery::Dialect::PostgreSQL;
}

namespace {

// '?' placeholders numbered as $1, $2, …; the dashboard's statements hold no '?' of their own.
QKSqlRows run(Connection *c, const QString &sql, const QVariantList &parameters)
{
    QByteArray numbered;
    numbered.reserve(sql.size() + 16);
    int n = 0;
    for (const char ch : sql.toUtf8()) {
        if (ch == '?')
            numbered += '$' + QByteArray::number(++n);
        else
            numbered += ch;
    }
    Params p;
    for (const QVariant &value : parameters)
        p.variant(value);
    return exec(c, numbered.constData(), p).all();
}

} // namespace

QKSqlRows QKPostgresStore::query(const QString &sql, const QVariantList &parameters)
{
    Lease c(this);
    return run(c, sql, parameters);
}

void QKPostgresStore::transaction(const std::function<void(const QKSql &run)> &work)
{
    Lease c(this);
    Transaction transaction(c);
    work([&c](const QString &sql, const QVariantList &parameters) { return run(c, sql, parameters); });
    transaction.commit();
}
