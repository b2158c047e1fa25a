#pragma once

// murmora-server in process for a test: SQLite in a temporary directory (or the
// PostgreSQL at `databaseUrl`), HTTPS on 127.0.0.1 with the committed test certificate
// (so clients trust FakeService::caCertificates()), one application, and every request
// recorded as it arrived.

#include "support/FakeService.h"

#include "QKServiceRoutes.h"
#include "QKServiceStore.h"

#include <QTemporaryDir>

#include <memory>

class QKService;

class TestService : public RequestLog
{
public:
    explicit TestService(const QString &databaseUrl = {});
    ~TestService();

    // False (with a warning) when the service cannot start.
    bool start();
    QString baseUrl() const;
    // The key of the application made at start.
    QString apiKey() const { return m_apiKey; }
    // An item of device `uid` as the service stores it, created at `createdAt` (0: now),
    // with `png` as its screenshot; returns its id.
    QString addThread(const QString &uid, const QString &text, const QString &state = QStringLiteral("Open"),
                      qint64 createdAt = 0, const QByteArray &png = {});
    // A comment on item `rootId`; returns its id.
    QString addComment(const QString &rootId, const QString &text, qint64 createdAt = 0);
    // The application's threads that match `filter` (the service's filter language), newest first.
    QList<QKServiceThread> threads(const QByteArray &filter) const;

    // The text the service answers a refusal with, which the app shows.
    static QString message(QKServiceRefusal refusal);

private:
    QKServiceStore *store() const;

    QTemporaryDir m_dir;
    QString m_databaseUrl;
    std::unique_ptr<QKService> m_service;
    QString m_apiKey;
    qint64 m_appId = 0;
};
