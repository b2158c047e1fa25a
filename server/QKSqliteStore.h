#pragma once

// The embedded store: one SQLite database file in the data directory, in WAL mode with
// synchronous=FULL, so an answered POST survives a power cut. Screenshots live in the
// same file, written in the thread's own transaction. One connection per concurrent
// caller; writers queue on SQLite's lock.

#include "QKServiceStore.h"

#include <QMutex>

struct sqlite3;

class QKSqliteStore : public QKServiceStore
{
public:
    // Throws QKServiceStoreError.
    explicit QKSqliteStore(const QString &path);
    ~QKSqliteStore() override;

    std::optional<QKServiceApp> appByKey(const QString &key) override;
    QList<QKServiceApp> apps() override;
    QKServiceApp addApp(const QString &name) override;
    std::optional<QKServiceApp> rotateApp(const QString &name) override;
    QKStoredAnswer insertThread(qint64 appId, const QKServiceThread &thread, const QByteArray &png,
                                const QString &idempotencyKey, const QByteArray &answer) override;
    QKStoredAnswer insertComment(qint64 appId, const QKServiceThread &comment, const QString &idempotencyKey,
                                 const QByteArray &answer) override;
    QList<QKServiceThread> threads(qint64 appId, const QKThreadPage &page) override;
    qint64 updateState(qint64 appId, const QString &rootId, const QString &state, qint64 modifiedAt) override;
    bool deleteThread(qint64 appId, const QString &id) override;
    std::optional<QByteArray> image(const QString &imageId) override;
    void forgetAnswers(qint64 olderThan) override;
    QKFilterQuery::Dialect dialect() const override;
    QKSqlRows query(const QString &sql, const QVariantList &parameters = {}) override;
    void transaction(const std::function<void(const QKSql &run)> &work) override;

    class Connection;

private:
    class Lease;
    friend class Lease;
    Connection *acquire();
    void release(Connection *connection);
    void migrate();

    QString m_path;
    QMutex m_mutex;
    QMutex m_writer;
    QList<Connection *> m_idle;
    QList<Connection *> m_all;
};
