#pragma once

// HTTP/1.1 over TLS (or plain TCP behind a TLS-terminating proxy), on Boost.Beast.
// Worker threads run the connections and call the handler synchronously, so their
// number bounds the requests being served at once. Limits: header size, body size, a
// budget for all bodies being read at once, deadlines for slow clients, a connection cap.

#include "QKServiceRoutes.h"

#include <QByteArray>
#include <QString>

#include <functional>
#include <memory>

struct QKHttpServerOptions
{
    QString host = QStringLiteral("127.0.0.1");
    quint16 port = 8443; // 0 picks a free one
    bool tls = true;
    QString certificateFile; // PEM chain, leaf first
    QString keyFile;
    int threads = 8;
    int maxConnections = 1024;
    int maxHeaderBytes = 16 * 1024;
    qint64 maxBodyBytes = 32 * 1024 * 1024;
    qint64 bodyBudgetBytes = 256 * 1024 * 1024; // bodies of all connections at once
    int headerTimeoutMs = 10000;                // TLS handshake, or request line and headers (also idle keep-alive)
    int bodyTimeoutMs = 60000;
    int writeTimeoutMs = 60000;
    int drainTimeoutMs = 10000; // how long stop() lets requests in flight finish
};

class QKHttpServer
{
public:
    using Handler = std::function<QKServiceResponse(const QKServiceRequest &)>;
    // One line per request, without the line break.
    using Logger = std::function<void(const QByteArray &line)>;

    QKHttpServer(const QKHttpServerOptions &options, Handler handler, Logger logger);
    ~QKHttpServer(); // stop()

    // Binds (port() is known from then on); throws std::runtime_error with a message for
    // people. start() binds first when that has not been done.
    void bind();
    // Starts the workers.
    void start();
    quint16 port() const;
    // Stops accepting, lets requests in flight finish (at most drainTimeoutMs), closes
    // every connection and joins the workers. Idempotent.
    void stop();

    struct Private; // public so that the connections in the .cpp can reach it

private:
    std::unique_ptr<Private> d;
};
