#pragma once

// The service's storage: applications, threads (feedback items and their comments),
// screenshots and the answers kept for idempotent POSTs. One interface, two stores
// (SQLite embedded, PostgreSQL shared by several server processes).
//
// Every member is thread-safe: the HTTP layer calls the store from its worker threads
// at once; each implementation keeps one connection per concurrent caller. A failure of
// the database itself throws QKServiceStoreError; expected outcomes (no such thread, a
// replayed key) are return values.

#include "QKFilterQuery.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QVariant>

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>

class QKServiceStoreError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// The rows of one statement: each value a qint64, a double, a QString, a QByteArray (a
// blob) or a null QVariant.
using QKSqlRows = QList<QVariantList>;
// Runs one statement written with '?' placeholders; bound values take the same types.
using QKSql = std::function<QKSqlRows(const QString &sql, const QVariantList &parameters)>;

struct QKServiceApp
{
    qint64 id = 0;
    QString name;
    QString key;
    qint64 createdAt = 0; // milliseconds since the epoch
};

// One row of the threads collection. A null QString is an absent field.
struct QKServiceThread
{
    QString id;
    QString rootId; // null for a feedback item, the item's id for a comment
    QString uid;
    QString text;
    QString author;
    QString state;
    qint64 createdAt = 0; // milliseconds since the epoch, UTC
    qint64 modifiedAt = 0;
    QByteArray systemInfo; // compact JSON object, or empty
    QByteArray parameters; // compact JSON object of the host's other fields, or empty
    QString imageId;       // null when the thread has no screenshot
    qint64 comments = 0;   // number of comments; items only
};

// What a POST stored, or what the first POST with the same idempotency key answered.
struct QKStoredAnswer
{
    enum class Outcome { Stored, Replayed, NoSuchThread };
    Outcome outcome = Outcome::Stored;
    QByteArray body; // the answer to send: the new one when stored, the first one when replayed
};

struct QKThreadPage
{
    QKFilterQuery filter;
    QList<QKSortKey> sort; // empty: newest first
    qint64 skip = 0;
    int limit = 20;
};

class QKServiceStore
{
public:
    // The columns a listing selects, in the order `readThread` takes them.
    static constexpr const char *ThreadColumns = "id, root_id, uid, text, author, state, created_at, modified_at,"
                                                 " system_info, parameters, image_id, comments";
    // One row of those columns; `column` has string(i), bytes(i) and number(i).
    template <class Column>
    static QKServiceThread readThread(const Column &column)
    {
        QKServiceThread t;
        t.id = column.string(0);
        t.rootId = column.string(1);
        t.uid = column.string(2);
        t.text = column.string(3);
        t.author = column.string(4);
        t.state = column.string(5);
        t.createdAt = column.number(6);
        t.modifiedAt = column.number(7);
        t.systemInfo = column.bytes(8);
        t.parameters = column.bytes(9);
        t.imageId = column.string(10);
        t.comments = column.number(11);
        return t;
    }

    virtual ~QKServiceStore();

    // "postgresql://…" (or "postgres://…") opens PostgreSQL; anything else must be empty
    // and opens SQLite in `dataDirectory`. Applies the schema migrations; throws
    // QKServiceStoreError with a message for people when it cannot open, or when the
    // database was made by a newer server.
    static std::unique_ptr<QKServiceStore> open(const QString &databaseUrl, const QString &dataDirectory);

    // The schema version this binary writes.
    static int schemaVersion();
    // 128 random bits from the system's generator, as 22 URL-safe characters: thread ids,
    // screenshot ids and application keys.
    static QString newIdentifier();
    // What `open` says of a database whose schema is `found`, newer than this binary's.
    static QString newerSchemaMessage(int found);

    // Applications. `addApp` throws when the name is taken.
    virtual std::optional<QKServiceApp> appByKey(const QString &key) = 0;
    virtual QList<QKServiceApp> apps() = 0;
    virtual QKServiceApp addApp(const QString &name) = 0;
    virtual std::optional<QKServiceApp> rotateApp(const QString &name) = 0;

    // A new feedback item, with its screenshot when `png` is not empty (`thread.imageId`
    // set by the caller), and `answer`, the body the caller will send. With a non-empty
    // idempotency key seen for this application in the last 24 hours, nothing is stored
    // and the first answer comes back. Durable when it returns.
    virtual QKStoredAnswer insertThread(qint64 appId, const QKServiceThread &thread, const QByteArray &png,
                                        const QString &idempotencyKey, const QByteArray &answer) = 0;
    // A comment on the item `comment.rootId` of this application; NoSuchThread when there
    // is no such item (a comment cannot be commented on).
    virtual QKStoredAnswer insertComment(qint64 appId, const QKServiceThread &comment, const QString &idempotencyKey,
                                         const QByteArray &answer) = 0;

    // One page of the application's threads that match, in the page's order.
    virtual QList<QKServiceThread> threads(qint64 appId, const QKThreadPage &page) = 0;

    // Sets the state of item `rootId` and of its comments; the number of rows changed,
    // 0 when there is no such item.
    virtual qint64 updateState(qint64 appId, const QString &rootId, const QString &state, qint64 modifiedAt) = 0;

    // Deletes thread `id` (with its comments and its screenshot, when it is an item);
    // false when there is none.
    virtual bool deleteThread(qint64 appId, const QString &id) = 0;

    // A screenshot by its id, whatever the application; nullopt when there is none.
    virtual std::optional<QByteArray> image(const QString &imageId) = 0;

    // Drops the idempotency answers older than `olderThan` (milliseconds since the epoch).
    virtual void forgetAnswers(qint64 olderThan) = 0;

    // Plain SQL for the dashboard's tables, written once for both stores: '?' placeholders
    // (numbered for PostgreSQL here), and the dialect for the few places they differ.
    virtual QKFilterQuery::Dialect dialect() const = 0;
    // One reading statement.
    virtual QKSqlRows query(const QString &sql, const QVariantList &parameters = {}) = 0;
    // Statements in one writing transaction, committed when `work` returns and rolled
    // back when it throws.
    virtual void transaction(const std::function<void(const QKSql &run)> &work) = 0;
};
