#pragma once

// The whole service in one object: store, TLS, routes and HTTP. murmora-server runs
// one; tests run one in process.

#include "QKDashboard.h"
#include "QKHttpServer.h"
#include "QKServiceEvents.h"
#include "QKServiceRoutes.h"
#include "QKServiceStore.h"
#include "QKWebhooks.h"

#include <QString>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

struct QKServiceOptions
{
    QString dataDirectory;
    QString databaseUrl; // empty: SQLite in the data directory
    QString listen = QStringLiteral("127.0.0.1:8443");
    QString certificateFile; // both empty: the service makes its own in the data directory
    QString keyFile;
    QString publicUrl; // empty: the address it listens on
    bool insecureHttp = false;
    QKHttpServerOptions http; // limits; host, port and TLS files come from the fields above
    bool logRequests = true;  // one line per request on standard error
    qint64 webhookFirstRetryMs = 30000;
    // Called on a worker thread with each request before it is served (tests, debugging).
    std::function<void(const QKServiceRequest &)> observer;
};

class QKService
{
public:
    explicit QKService(const QKServiceOptions &options);
    ~QKService();

    // Opens the store (applying migrations), makes the certificate when needed, binds and
    // serves. Throws std::runtime_error (QKServiceStoreError included) with a message for
    // people.
    void start();
    // Stops accepting, finishes requests in flight (bounded), closes the store.
    void stop();
    // Call first thing in main, before any thread starts: SIGTERM and SIGINT then wait
    // for runUntilSignalled() instead of killing the process.
    static void blockStopSignals();
    // Waits for SIGTERM or SIGINT, then stop().
    void runUntilSignalled();

    quint16 port() const;
    // "https://HOST:PORT/feedback/api/v1" as listened on.
    QString listeningUrl() const;
    // The base URL clients use: the public URL followed by "/feedback/api/v1".
    QString baseUrl() const;
    // The CA clients must trust when the service made its own certificate, else empty.
    QString madeCaFile() const;
    QKServiceStore *store() const;
    QKDashboard *dashboard() const;

    // "HOST:PORT" or "[v6]:PORT"; false when it is not that.
    static bool parseListen(const QString &text, QString *host, quint16 *port);

private:
    void forgetOldAnswers();

    QKServiceOptions m_options;
    std::unique_ptr<QKServiceStore> m_store;
    QKServiceEvents m_events;
    std::unique_ptr<QKWebhooks> m_webhooks;
    std::optional<QKServiceEvents::Subscription> m_webhookSubscription;
    std::unique_ptr<QKDashboard> m_dashboard;
    std::unique_ptr<QKServiceRoutes> m_routes;
    std::unique_ptr<QKHttpServer> m_http;
    QString m_host;
    QString m_caFile;
    QString m_publicUrl;

    std::mutex m_cleanerMutex;
    std::condition_variable m_cleanerWake;
    bool m_stopping = false;
    std::thread m_cleaner;
};
