#include "QKService.h"
#include "QKServiceCertificates.h"

#include <QDateTime>

#include <csignal>
#include <cstdio>
#include <cstring>

#include <pthread.h>
#include <stdexcept>

QKService::QKService(const QKServiceOptions &options) : m_options(options)
{}

QKService::~QKService()
{
    stop();
}

bool QKService::parseListen(const QString &text, QString *host, quint16 *port)
{
    const qsizetype colon = text.lastIndexOf(QLatin1Char(':'));
    if (colon <= 0)
        return false;
    QString h = text.left(colon);
    if (h.startsWith(QLatin1Char('[')) && h.endsWith(QLatin1Char(']')))
        h = h.mid(1, h.size() - 2);
    else if (h.contains(QLatin1Char(':')))
        return false;
    bool ok = false;
    const uint p = text.mid(colon + 1).toUInt(&ok);
    if (!ok || p > 65535 || h.isEmpty())
        return false;
    *host = h;
    *port = quint16(p);
    return true;
}

void QKService::start()
{
    QKHttpServerOptions http = m_options.http;
    if (!parseListen(m_options.listen, &http.host, &http.port))
        throw std::runtime_error("--listen takes HOST:PORT, for example 127.0.0.1:8443; got " +
                                 m_options.listen.toStdString());
    m_host = http.host;
    m_store = QKServiceStore::open(m_options.databaseUrl, m_options.dataDirectory);
    http.tls = !m_options.insecureHttp;
    if (http.tls) {
        if (m_options.certificateFile.isEmpty() != m_options.keyFile.isEmpty())
            throw std::runtime_error("--tls-cert and --tls-key go together.");
        if (m_options.certificateFile.isEmpty()) {
            if (m_options.dataDirectory.isEmpty())
                throw std::runtime_error("Without --tls-cert, the service keeps its own certificate in --data DIR.");
            const QKServiceCertificates made = QKServiceCertificates::ensure(m_options.dataDirectory);
            http.certificateFile = made.certificateFile;
            http.keyFile = made.keyFile;
            m_caFile = made.caFile;
        } else {
            http.certificateFile = m_options.certificateFile;
            http.keyFile = m_options.keyFile;
        }
    }
    QKHttpServer::Logger logger;
    if (m_options.logRequests)
        logger = [](const QByteArray &line) {
            const QByteArray text = line + '\n';
            std::fwrite(text.constData(), 1, size_t(text.size()), stderr);
        };
    else
        logger = [](const QByteArray &) {};
    m_http = std::make_unique<QKHttpServer>(
        http,
        [this](const QKServiceRequest &request) {
            if (m_options.observer)
                m_options.observer(request);
            return QKDashboard::serves(request.target) ? m_dashboard->handle(request) : m_routes->handle(request);
        },
        logger);
    m_http->bind();
    m_publicUrl = m_options.publicUrl;
    while (m_publicUrl.endsWith(QLatin1Char('/')))
        m_publicUrl.chop(1);
    if (m_publicUrl.isEmpty())
        m_publicUrl = listeningUrl().chopped(int(std::strlen("/feedback/api/v1")));
    QKWebhookOptions hooks;
    hooks.firstRetryMs = m_options.webhookFirstRetryMs;
    m_webhooks = std::make_unique<QKWebhooks>(m_store.get(), hooks);
    m_webhookSubscription =
        m_events.subscribe([webhooks = m_webhooks.get()](const QKServiceEvent &event) { webhooks->publish(event); });
    m_dashboard = std::make_unique<QKDashboard>(m_store.get(), &m_events, m_webhooks.get());
    m_routes = std::make_unique<QKServiceRoutes>(m_store.get(), m_publicUrl, &m_events);
    m_webhooks->start();
    m_http->start();
    m_cleaner = std::thread([this] { forgetOldAnswers(); });
}

void QKService::forgetOldAnswers()
{
    std::unique_lock lock(m_cleanerMutex);
    while (!m_stopping) {
        lock.unlock();
        try {
            const qint64 now = QDateTime::currentMSecsSinceEpoch();
            m_store->forgetAnswers(now - 24 * 3600 * 1000);
            // The delivery log keeps a month of finished deliveries.
            m_store->transaction([now](const QKSql &sql) {
                sql(QStringLiteral("DELETE FROM deliveries WHERE status <> 'pending' AND created_at < ?"),
                    {now - 30LL * 24 * 3600 * 1000});
            });
        } catch (const QKServiceStoreError &error) {
            std::fprintf(stderr, "Cannot drop old idempotency answers and deliveries: %s\n", error.what());
        }
        lock.lock();
        m_cleanerWake.wait_for(lock, std::chrono::hours(1), [this] { return m_stopping; });
    }
}

void QKService::stop()
{
    if (m_dashboard)
        m_dashboard->stop();
    if (m_http)
        m_http->stop();
    if (m_webhooks)
        m_webhooks->stop();
    if (m_webhookSubscription) {
        m_events.unsubscribe(*m_webhookSubscription);
        m_webhookSubscription.reset();
    }
    {
        std::lock_guard lock(m_cleanerMutex);
        m_stopping = true;
    }
    m_cleanerWake.notify_all();
    if (m_cleaner.joinable())
        m_cleaner.join();
    m_http.reset();
    m_routes.reset();
    m_dashboard.reset();
    m_webhooks.reset();
    m_store.reset();
}

void QKService::blockStopSignals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void QKService::runUntilSignalled()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    int signal = 0;
    sigwait(&set, &signal);
    stop();
}

quint16 QKService::port() const
{
    return m_http ? m_http->port() : 0;
}

QString QKService::listeningUrl() const
{
    const QString host = m_host.contains(QLatin1Char(':')) ? QLatin1Char('[') + m_host + QLatin1Char(']') : m_host;
    return QStringLiteral("%1://%2:%3/feedback/api/v1")
        .arg(m_options.insecureHttp ? QStringLiteral("http") : QStringLiteral("https"), host)
        .arg(port());
}

QString QKService::baseUrl() const
{
    return m_publicUrl + QLatin1String("/feedback/api/v1");
}

QString QKService::madeCaFile() const
{
    return m_caFile;
}

QKServiceStore *QKService::store() const
{
    return m_store.get();
}

QKDashboard *QKService::dashboard() const
{
    return m_dashboard.get();
}
