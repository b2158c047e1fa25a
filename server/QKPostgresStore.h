#pragma once

// The shared store: PostgreSQL 15 through libpq, for several murmora-server processes
// that hold no state of their own. Screenshots are kept in the database, where every
// instance reaches them. One connection per concurrent caller.

#include "QKServiceStore.h"

#include <QMutex>

class QKPostgresStore : public QKServiceStore
{
public:
    // `url` is a libpq connection URI (postgresql://user@host:port/db?…). Throws
    // QKServiceStoreError.
    explicit QKPostgresStore(const QString &url);
    ~QKPostgresStore() override;

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

    QByteArray m_url;
    QMutex m_mutex;
    QList<Connection *> m_idle;
    QList<Connection *> m_all;
};
