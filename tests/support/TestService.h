#pragma once

// murmora-server in process for a test: SQLite in a temporary directory (or the
// PostgreSQL at `databaseUrl`), HTTPS on 127.0.0.1 with the committed test certificate
// (so clients trust FakeService::caCertificates()), one application, and every request
// recorded as it arrived.

#include "support/FakeService.h"

#include "QKServiceStore.h"

#include <QMutex>
#include <QTemporaryDir>

#include <memory>

class QKService;

class TestService
{
public:
    explicit TestService(const QString &databaseUrl = {});
    ~TestService();

    // False (with a warning) when the service cannot start.
    bool start();
    void stop();
    QString baseUrl() const;
    QString origin() const;
    // The key of the application made at start.
    QString apiKey() const { return m_apiKey; }
    QString addApplication(const QString &name);
    QKServiceStore *store() const;
    // Stores `thread` for the application as the service would (a comment when `rootId`
    // is set), with `png` as its screenshot; an unset id or creation time is made up.
    // Returns the id.
    QString addThread(QKServiceThread thread, const QByteArray &png = {});
    // The application's threads that match `filter` (the service's filter language), newest first.
    QList<QKServiceThread> threads(const QByteArray &filter) const;

    QList<RecordedRequest> requests() const;
    void clearRequests();

private:
    QTemporaryDir m_dir;
    QString m_databaseUrl;
    std::unique_ptr<QKService> m_service;
    QString m_apiKey;
    qint64 m_appId = 0;
    mutable QMutex m_mutex;
    QList<RecordedRequest> m_requests;
};
