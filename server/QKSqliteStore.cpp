#include "QKSqliteStore.h"

#include <QDateTime>
#include <QHash>
#include <QMutexLocker>

#include <sqlite3.h>

namespace {

[[noreturn]] void raise(sqlite3 *db, const char *what)
{
    throw QKServiceStoreError(std::string(what) + ": " + (db ? sqlite3_errmsg(db) : "out of memory"));
}

const char *const Migrations[] = {
    // 1: the first schema.
    "CREATE TABLE apps (id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE, key TEXT NOT NULL UNIQUE,"
    " created_at INTEGER NOT NULL);"
    "CREATE TABLE threads (seq INTEGER PRIMARY KEY, app_id INTEGER NOT NULL REFERENCES apps(id),"
    " id TEXT NOT NULL UNIQUE, root_id TEXT, uid TEXT, text TEXT, author TEXT, state TEXT,"
    " created_at INTEGER NOT NULL, modified_at INTEGER NOT NULL, system_info TEXT, parameters TEXT,"
    " image_id TEXT, comments INTEGER NOT NULL DEFAULT 0);"
    "CREATE INDEX threads_device ON threads (app_id, uid, root_id, created_at, id);"
    "CREATE INDEX threads_root ON threads (app_id, root_id, created_at, id);"
    "CREATE TABLE images (id TEXT NOT NULL PRIMARY KEY, thread_id TEXT NOT NULL, png BLOB NOT NULL);"
    "CREATE INDEX images_thread ON images (thread_id);"
    "CREATE TABLE answers (app_id INTEGER NOT NULL, key TEXT NOT NULL, created_at INTEGER NOT NULL,"
    " body BLOB NOT NULL, PRIMARY KEY (app_id, key));"
    "CREATE INDEX answers_age ON answers (created_at);",
    // 2: the dashboard: members and their sessions, who sees which application, what each
    // member has read, webhooks and their deliveries, full-text search.
    "ALTER TABLE threads ADD COLUMN member_id INTEGER;"
    "CREATE INDEX threads_inbox ON threads (app_id, created_at, id) WHERE root_id IS NULL;"
    "CREATE INDEX threads_recent ON threads (created_at, id) WHERE root_id IS NULL;"
    "CREATE TABLE members (id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE, password_hash TEXT NOT NULL,"
    " admin INTEGER NOT NULL DEFAULT 0, created_at INTEGER NOT NULL);"
    "CREATE TABLE sessions (token_hash TEXT NOT NULL PRIMARY KEY,"
    " member_id INTEGER NOT NULL REFERENCES members(id) ON DELETE CASCADE, csrf TEXT NOT NULL,"
    " created_at INTEGER NOT NULL, expires_at INTEGER NOT NULL);"
    "CREATE INDEX sessions_expiry ON sessions (expires_at);"
    "CREATE TABLE memberships (app_id INTEGER NOT NULL REFERENCES apps(id) ON DELETE CASCADE,"
    " member_id INTEGER NOT NULL REFERENCES members(id) ON DELETE CASCADE, PRIMARY KEY (app_id, member_id));"
    "CREATE TABLE reads (member_id INTEGER NOT NULL REFERENCES members(id) ON DELETE CASCADE,"
    " thread_id TEXT NOT NULL, seen_at INTEGER NOT NULL, PRIMARY KEY (member_id, thread_id));"
    "CREATE TABLE webhooks (id INTEGER PRIMARY KEY, app_id INTEGER NOT NULL REFERENCES apps(id) ON DELETE CASCADE,"
    " url TEXT NOT NULL, secret TEXT NOT NULL, created_at INTEGER NOT NULL);"
    "CREATE INDEX webhooks_app ON webhooks (app_id);"
    "CREATE TABLE deliveries (id INTEGER PRIMARY KEY,"
    " webhook_id INTEGER NOT NULL REFERENCES webhooks(id) ON DELETE CASCADE, event TEXT NOT NULL,"
    " payload TEXT NOT NULL, status TEXT NOT NULL, attempts INTEGER NOT NULL DEFAULT 0, next_at INTEGER,"
    " response_status INTEGER, error TEXT, created_at INTEGER NOT NULL, delivered_at INTEGER);"
    "CREATE INDEX deliveries_due ON deliveries (status, next_at);"
    "CREATE INDEX deliveries_webhook ON deliveries (webhook_id, id);"
    "CREATE VIRTUAL TABLE threads_fts USING fts5(text, content='threads', content_rowid='seq',"
    " tokenize='unicode61 remove_diacritics 2');"
    "INSERT INTO threads_fts (threads_fts) VALUES ('rebuild');"
    "CREATE TRIGGER threads_fts_insert AFTER INSERT ON threads BEGIN"
    " INSERT INTO threads_fts (rowid, text) VALUES (new.seq, new.text); END;"
    "CREATE TRIGGER threads_fts_delete AFTER DELETE ON threads BEGIN"
    " INSERT INTO threads_fts (threads_fts, rowid, text) VALUES ('delete', old.seq, old.text); END;"
    "CREATE TRIGGER threads_fts_update AFTER UPDATE OF text ON threads BEGIN"
    " INSERT INTO threads_fts (threads_fts, rowid, text) VALUES ('delete', old.seq, old.text);"
    " INSERT INTO threads_fts (rowid, text) VALUES (new.seq, new.text); END;",
};

qint64 now()
{
    return QDateTime::currentMSecsSinceEpoch();
}

constexpr qint64 AnswerLifetimeMs = 24 * 3600 * 1000;

} // namespace

// One database connection with its prepared statements; used by one thread at a time.
class QKSqliteStore::Connection
{
public:
    explicit Connection(const QString &path)
    {
        const int rc = sqlite3_open_v2(path.toUtf8().constData(), &db,
                                       SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
        if (rc != SQLITE_OK) {
            const std::string message = db ? sqlite3_errmsg(db) : "out of memory";
            sqlite3_close(db);
            throw QKServiceStoreError("Cannot open the database " + path.toStdString() + ": " + message);
        }
        sqlite3_busy_timeout(db, 30000);
        exec("PRAGMA journal_mode=WAL");
        exec("PRAGMA synchronous=FULL");
        // Listings read pages through the mapping instead of a pread each.
        exec("PRAGMA mmap_size=1073741824");
        exec("PRAGMA foreign_keys=ON");
    }
    ~Connection()
    {
        for (sqlite3_stmt *s : std::as_const(statements))
            sqlite3_finalize(s);
        for (sqlite3_stmt *s : std::as_const(filtered))
            sqlite3_finalize(s);
        sqlite3_close(db);
    }

    void exec(const char *sql)
    {
        char *message = nullptr;
        if (sqlite3_exec(db, sql, nullptr, nullptr, &message) != SQLITE_OK) {
            const std::string text = message ? message : "unknown error";
            sqlite3_free(message);
            throw QKServiceStoreError(std::string("Database error: ") + text);
        }
    }

    // A prepared statement, reset and ready to bind; kept for the connection's lifetime,
    // or with `keep` false among the last few filters: they come in too many shapes to
    // keep them all, and in few enough that preparing each listing anew would be waste.
    sqlite3_stmt *prepare(const QString &sql, bool keep)
    {
        QHash<QString, sqlite3_stmt *> &cache = keep ? statements : filtered;
        if (sqlite3_stmt *s = cache.value(sql))
            return s;
        if (!keep && cache.size() >= 32) {
            for (sqlite3_stmt *old : std::as_const(cache))
                sqlite3_finalize(old);
            cache.clear();
        }
        sqlite3_stmt *s = nullptr;
        const QByteArray utf8 = sql.toUtf8();
        if (sqlite3_prepare_v3(db, utf8.constData(), int(utf8.size()), SQLITE_PREPARE_PERSISTENT, &s, nullptr) !=
            SQLITE_OK)
            raise(db, "Cannot prepare a statement");
        cache.insert(sql, s);
        return s;
    }

    sqlite3 *db = nullptr;
    QHash<QString, sqlite3_stmt *> statements;
    QHash<QString, sqlite3_stmt *> filtered;
};

namespace {

using Connection = QKSqliteStore::Connection;

// Binds, steps and resets one statement.
class Query
{
public:
    Query(Connection *c, const QString &sql, bool keep = true) : c(c), s(c->prepare(sql, keep)) {}
    Query(Connection *c, const char *sql) : Query(c, QString::fromLatin1(sql)) {}
    ~Query()
    {
        sqlite3_reset(s);
        sqlite3_clear_bindings(s);
    }

    Query &bind(const QVariant &value)
    {
        if (value.typeId() == QMetaType::QString)
            return text(value.toString());
        ++index;
        int rc;
        switch (value.typeId()) {
        case QMetaType::UnknownType:
            rc = sqlite3_bind_null(s, index);
            break;
        case QMetaType::LongLong:
        case QMetaType::Int:
        case QMetaType::Bool:
            rc = sqlite3_bind_int64(s, index, value.toLongLong());
            break;
        case QMetaType::Double:
            rc = sqlite3_bind_double(s, index, value.toDouble());
            break;
        case QMetaType::QByteArray: {
            const QByteArray bytes = value.toByteArray();
            rc = sqlite3_bind_blob64(s, index, bytes.constData(), sqlite3_uint64(bytes.size()), SQLITE_TRANSIENT);
            break;
        }
        default:
            --index; // text() counts it
            return text(value.toString());
        }
        check(rc);
        return *this;
    }
    Query &text(const QString &value)
    {
        if (value.isNull()) {
            ++index;
            check(sqlite3_bind_null(s, index));
            return *this;
        }
        const QByteArray utf8 = value.toUtf8();
        check(sqlite3_bind_text64(s, ++index, utf8.constData(), sqlite3_uint64(utf8.size()), SQLITE_TRANSIENT,
                                  SQLITE_UTF8));
        return *this;
    }
    Query &integer(qint64 value)
    {
        check(sqlite3_bind_int64(s, ++index, value));
        return *this;
    }
    // A blob that outlives the step.
    Query &blob(const QByteArray &value)
    {
        check(sqlite3_bind_blob64(s, ++index, value.constData(), sqlite3_uint64(value.size()), SQLITE_STATIC));
        return *this;
    }
    // Text that outlives the step; empty binds NULL.
    Query &json(const QByteArray &value)
    {
        if (value.isEmpty())
            check(sqlite3_bind_null(s, ++index));
        else
            check(sqlite3_bind_text64(s, ++index, value.constData(), sqlite3_uint64(value.size()), SQLITE_STATIC,
                                      SQLITE_UTF8));
        return *this;
    }

    bool next()
    {
        const int rc = sqlite3_step(s);
        if (rc == SQLITE_ROW)
            return true;
        if (rc != SQLITE_DONE)
            raise(c->db, "Database error");
        return false;
    }
    void run()
    {
        while (next()) {
        }
    }

    QString string(int column) const
    {
        if (sqlite3_column_type(s, column) == SQLITE_NULL)
            return {};
        const auto *data = reinterpret_cast<const char *>(sqlite3_column_text(s, column));
        return QString::fromUtf8(data, sqlite3_column_bytes(s, column));
    }
    QByteArray bytes(int column) const
    {
        if (sqlite3_column_type(s, column) == SQLITE_NULL)
            return {};
        const void *data = sqlite3_column_blob(s, column);
        const int size = sqlite3_column_bytes(s, column);
        return data ? QByteArray(static_cast<const char *>(data), size) : QByteArray("");
    }
    qint64 number(int column) const { return sqlite3_column_int64(s, column); }
    QVariant value(int column) const
    {
        switch (sqlite3_column_type(s, column)) {
        case SQLITE_NULL:
            return {};
        case SQLITE_INTEGER:
            return number(column);
        case SQLITE_FLOAT:
            return sqlite3_column_double(s, column);
        case SQLITE_BLOB:
            return bytes(column);
        default:
            return string(column);
        }
    }
    QKSqlRows rows()
    {
        QKSqlRows all;
        const int columns = sqlite3_column_count(s);
        while (next()) {
            QVariantList row;
            row.reserve(columns);
            for (int i = 0; i < columns; ++i)
                row.append(value(i));
            all.append(row);
        }
        return all;
    }

private:
    void check(int rc)
    {
        if (rc != SQLITE_OK)
            raise(c->db, "Cannot bind a value");
    }

    Connection *c;
    sqlite3_stmt *s;
    int index = 0;
};

// BEGIN IMMEDIATE … COMMIT, rolled back when left early or by an exception.
// Writers of this process queue on `writer` rather than on SQLite's lock, whose busy
// handler sleeps and retries.
class WriteTransaction
{
public:
    WriteTransaction(Connection *c, QMutex &writer) : lock(&writer), c(c) { Query(c, "BEGIN IMMEDIATE").run(); }
    ~WriteTransaction()
    {
        if (open)
            sqlite3_exec(c->db, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    void commit()
    {
        Query(c, "COMMIT").run();
        open = false;
    }

private:
    QMutexLocker<QMutex> lock;
    Connection *c;
    bool open = true;
};

QKServiceApp readApp(const Query &q)
{
    return {q.number(0), q.string(1), q.string(2), q.number(3)};
}

std::optional<QByteArray> replayedAnswer(Connection *c, qint64 appId, const QString &key)
{
    if (key.isEmpty())
        return std::nullopt;
    Query q(c, "SELECT body FROM answers WHERE app_id = ? AND key = ? AND created_at >= ?");
    q.integer(appId).text(key).integer(now() - AnswerLifetimeMs);
    if (q.next())
        return q.bytes(0);
    return std::nullopt;
}

void keepAnswer(Connection *c, qint64 appId, const QString &key, const QByteArray &answer)
{
    if (key.isEmpty())
        return;
    Query(c, "INSERT OR REPLACE INTO answers (app_id, key, created_at, body) VALUES (?, ?, ?, ?)")
        .integer(appId)
        .text(key)
        .integer(now())
        .blob(answer)
        .run();
}

void insertRow(Connection *c, qint64 appId, const QKServiceThread &t)
{
    Query(c, "INSERT INTO threads (app_id, id, root_id, uid, text, author, state, created_at, modified_at,"
             " system_info, parameters, image_id) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)")
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
        .text(t.imageId)
        .run();
}

} // namespace

class QKSqliteStore::Lease
{
public:
    explicit Lease(QKSqliteStore *store) : store(store), c(store->acquire()) {}
    ~Lease() { store->release(c); }
    Connection *operator->() const { return c; }
    operator Connection *() const { return c; }

private:
    QKSqliteStore *store;
    Connection *c;
};

QKSqliteStore::QKSqliteStore(const QString &path) : m_path(path)
{
    try {
        migrate();
    } catch (...) {
        // No destructor runs for a constructor that throws.
        qDeleteAll(m_all);
        throw;
    }
}

QKSqliteStore::~QKSqliteStore()
{
    for (Connection *c : std::as_const(m_all))
        delete c;
}

QKSqliteStore::Connection *QKSqliteStore::acquire()
{
    {
        QMutexLocker lock(&m_mutex);
        if (!m_idle.isEmpty())
            return m_idle.takeLast();
    }
    auto *c = new Connection(m_path);
    QMutexLocker lock(&m_mutex);
    m_all.append(c);
    return c;
}

void QKSqliteStore::release(Connection *connection)
{
    QMutexLocker lock(&m_mutex);
    m_idle.append(connection);
}

void QKSqliteStore::migrate()
{
    Lease c(this);
    WriteTransaction transaction(c, m_writer);
    Query(c, "CREATE TABLE IF NOT EXISTS schema_version (version INTEGER NOT NULL)").run();
    int version = 0;
    {
        Query q(c, "SELECT version FROM schema_version");
        if (q.next())
            version = int(q.number(0));
    }
    if (version > schemaVersion())
        throw QKServiceStoreError(newerSchemaMessage(version).toStdString());
    if (version == schemaVersion())
        return;
    for (int v = version; v < schemaVersion(); ++v)
        c->exec(Migrations[v]);
    Query(c, "DELETE FROM schema_version").run();
    Query(c, "INSERT INTO schema_version (version) VALUES (?)").integer(qint64(schemaVersion())).run();
    transaction.commit();
}

std::optional<QKServiceApp> QKSqliteStore::appByKey(const QString &key)
{
    Lease c(this);
    Query q(c, "SELECT id, name, key, created_at FROM apps WHERE key = ?");
    q.text(key);
    if (q.next())
        return readApp(q);
    return std::nullopt;
}

QList<QKServiceApp> QKSqliteStore::apps()
{
    Lease c(this);
    Query q(c, "SELECT id, name, key, created_at FROM apps ORDER BY name");
    QList<QKServiceApp> list;
    while (q.next())
        list.append(readApp(q));
    return list;
}

QKServiceApp QKSqliteStore::addApp(const QString &name)
{
    Lease c(this);
    WriteTransaction transaction(c, m_writer);
    {
        Query q(c, "SELECT 1 FROM apps WHERE name = ?");
        q.text(name);
        if (q.next())
            throw QKServiceStoreError(
                QStringLiteral("An application named %1 exists already.").arg(name).toStdString());
    }
    QKServiceApp app{0, name, newIdentifier(), now()};
    Query(c, "INSERT INTO apps (name, key, created_at) VALUES (?, ?, ?)")
        .text(name)
        .text(app.key)
        .integer(app.createdAt)
        .run();
    app.id = sqlite3_last_insert_rowid(c->db);
    transaction.commit();
    return app;
}

std::optional<QKServiceApp> QKSqliteStore::rotateApp(const QString &name)
{
    Lease c(this);
    WriteTransaction transaction(c, m_writer);
    Query(c, "UPDATE apps SET key = ? WHERE name = ?").text(newIdentifier()).text(name).run();
    if (sqlite3_changes(c->db) == 0)
        return std::nullopt;
    Query q(c, "SELECT id, name, key, created_at FROM apps WHERE name = ?");
    q.text(name);
    q.next();
    const QKServiceApp app = readApp(q);
    transaction.commit();
    return app;
}

QKStoredAnswer QKSqliteStore::insertThread(qint64 appId, const QKServiceThread &thread, const QByteArray &png,
                                           const QString &idempotencyKey, const QByteArray &answer)
{
    Lease c(this);
    WriteTransaction transaction(c, m_writer);
    if (auto first = replayedAnswer(c, appId, idempotencyKey))
        return {QKStoredAnswer::Outcome::Replayed, *first};
    insertRow(c, appId, thread);
    if (!png.isEmpty())
        Query(c, "INSERT INTO images (id, thread_id, png) VALUES (?, ?, ?)")
            .text(thread.imageId)
            .text(thread.id)
            .blob(png)
            .run();
    keepAnswer(c, appId, idempotencyKey, answer);
    transaction.commit();
    return {QKStoredAnswer::Outcome::Stored, answer};
}

QKStoredAnswer QKSqliteStore::insertComment(qint64 appId, const QKServiceThread &comment, const QString &idempotencyKey,
                                            const QByteArray &answer)
{
    Lease c(this);
    WriteTransaction transaction(c, m_writer);
    if (auto first = replayedAnswer(c, appId, idempotencyKey))
        return {QKStoredAnswer::Outcome::Replayed, *first};
    {
        Query q(c, "SELECT 1 FROM threads WHERE app_id = ? AND id = ? AND root_id IS NULL");
        q.integer(appId).text(comment.rootId);
        if (!q.next())
            return {QKStoredAnswer::Outcome::NoSuchThread, {}};
    }
    insertRow(c, appId, comment);
    Query(c, "UPDATE threads SET comments = comments + 1 WHERE app_id = ? AND id = ?")
        .integer(appId)
        .text(comment.rootId)
        .run();
    keepAnswer(c, appId, idempotencyKey, answer);
    transaction.commit();
    return {QKStoredAnswer::Outcome::Stored, answer};
}

QList<QKServiceThread> QKSqliteStore::threads(qint64 appId, const QKThreadPage &page)
{
    QVariantList parameters{appId};
    const QString sql =
        QStringLiteral("SELECT %1 FROM threads WHERE app_id = ? AND %2 ORDER BY %3 LIMIT ? OFFSET ?")
            .arg(QLatin1String(ThreadColumns), page.filter.toSql(QKFilterQuery::Dialect::SQLite, parameters),
                 QKFilterQuery::orderBy(page.sort));
    parameters << qint64(page.limit) << page.skip;
    Lease c(this);
    Query q(c, sql, false);
    for (const QVariant &p : std::as_const(parameters))
        q.bind(p);
    QList<QKServiceThread> list;
    while (q.next())
        list.append(readThread(q));
    return list;
}

qint64 QKSqliteStore::updateState(qint64 appId, const QString &rootId, const QString &state, qint64 modifiedAt)
{
    Lease c(this);
    WriteTransaction transaction(c, m_writer);
    Query(c, "UPDATE threads SET state = ?, modified_at = ? WHERE app_id = ? AND"
             " ((id = ? AND root_id IS NULL) OR root_id = ?)")
        .text(state)
        .integer(modifiedAt)
        .integer(appId)
        .text(rootId)
        .text(rootId)
        .run();
    const qint64 changed = sqlite3_changes(c->db);
    transaction.commit();
    return changed;
}

bool QKSqliteStore::deleteThread(qint64 appId, const QString &id)
{
    Lease c(this);
    WriteTransaction transaction(c, m_writer);
    QString rootId;
    {
        Query q(c, "SELECT root_id FROM threads WHERE app_id = ? AND id = ?");
        q.integer(appId).text(id);
        if (!q.next())
            return false;
        rootId = q.string(0);
    }
    if (rootId.isNull()) {
        Query(c, "DELETE FROM images WHERE thread_id = ?").text(id).run();
        Query(c, "DELETE FROM threads WHERE app_id = ? AND root_id = ?").integer(appId).text(id).run();
    } else {
        Query(c, "UPDATE threads SET comments = comments - 1 WHERE app_id = ? AND id = ?")
            .integer(appId)
            .text(rootId)
            .run();
    }
    Query(c, "DELETE FROM threads WHERE app_id = ? AND id = ?").integer(appId).text(id).run();
    transaction.commit();
    return true;
}

std::optional<QByteArray> QKSqliteStore::image(const QString &imageId)
{
    Lease c(this);
    Query q(c, "SELECT png FROM images WHERE id = ?");
    q.text(imageId);
    if (q.next())
        return q.bytes(0);
    return std::nullopt;
}

void QKSqliteStore::forgetAnswers(qint64 olderThan)
{
    Lease c(this);
    QMutexLocker writer(&m_writer);
    Query(c, "DELETE FROM answers WHERE created_at < ?").integer(olderThan).run();
}

QKFilterQuery::Dialect QKSqliteStore::dialect() const
{
    return QKFilterQuery::Dialect::SQLite;
}

namespace {

QKSqlRows run(Connection *c, const QString &sql, const QVariantList &parameters)
{
    Query q(c, sql, false);
    for (const QVariant &p : parameters)
        q.bind(p);
    return q.rows();
}

} // namespace

QKSqlRows QKSqliteStore::query(const QString &sql, const QVariantList &parameters)
{
    Lease c(this);
    return run(c, sql, parameters);
}

void QKSqliteStore::transaction(const std::function<void(const QKSql &run)> &work)
{
    Lease c(this);
    WriteTransaction transaction(c, m_writer);
    work([&c](const QString &sql, const QVariantList &parameters) { return run(c, sql, parameters); });
    transaction.commit();
}
