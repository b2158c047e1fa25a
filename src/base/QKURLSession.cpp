#include "QKURLSession.h"

#include "QKThreadHandOff_p.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QMutex>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>
#include <QSet>
#include <QSslConfiguration>
#include <QSslError>
#include <QThread>
#include <QTimer>

#include <limits>
#include <openssl/crypto.h>
#include <vector>

namespace {

QKError transportError(qint64 code, const QString &description)
{
    return QKError::withMessage(QString::fromLatin1(QKURLSession::ErrorDomain), code, description);
}

bool hasForbiddenByte(const QByteArray &text)
{
    return text.contains('\r') || text.contains('\n') || text.contains('\0');
}

QMutex &threadMutex()
{
    static QMutex mutex;
    return mutex;
}

struct NetworkThread
{
    QThread *thread = nullptr;
    QKThreadHandOff *context = nullptr; // lives on the thread; blocks posted to it run there
    bool stopped = false;               // the application is gone: nothing is posted any more
};

// Every access holds threadMutex().
NetworkThread &networkState()
{
    static NetworkThread state;
    return state;
}

// The thread's context, the thread started on first use; null once the application is
// gone, so that no thread starts after it.
QKThreadHandOff *networkContextLocked()
{
    NetworkThread &state = networkState();
    if (state.stopped)
        return nullptr;
    if (!state.thread) {
        state.thread = new QThread;
        state.thread->setObjectName(QStringLiteral("Murmora network"));
        state.context = new QKThreadHandOff;
        state.context->moveToThread(state.thread);
        state.thread->start();
    }
    return state.context;
}

// Runs `block` on the network thread, or returns false once the application is gone.
bool postToNetworkThread(std::function<void()> block)
{
    QMutexLocker lock(&threadMutex());
    QKThreadHandOff *context = networkContextLocked();
    if (!context)
        return false;
    context->post(std::move(block));
    return true;
}

// Called on the network thread only, where the context lives.
QKThreadHandOff *networkContext()
{
    QMutexLocker lock(&threadMutex());
    return networkState().context;
}

QKError cancelled()
{
    return transportError(-999, QStringLiteral("cancelled"));
}

qint64 sslErrorCode(const QList<QSslError> &errors)
{
    for (const QSslError &error : errors) {
        switch (error.error()) {
        case QSslError::CertificateExpired:
            return -1201;
        case QSslError::CertificateNotYetValid:
            return -1204;
        default:
            break;
        }
    }
    return -1202;
}

qint64 replyErrorCode(QNetworkReply::NetworkError error)
{
    switch (error) {
    case QNetworkReply::ConnectionRefusedError:
    case QNetworkReply::ProxyConnectionRefusedError:
        return -1004;
    case QNetworkReply::RemoteHostClosedError:
    case QNetworkReply::ProxyConnectionClosedError:
        return -1005;
    case QNetworkReply::HostNotFoundError:
    case QNetworkReply::ProxyNotFoundError:
        return -1003;
    case QNetworkReply::TimeoutError:
    case QNetworkReply::ProxyTimeoutError:
        return -1001;
    case QNetworkReply::OperationCanceledError:
        return -999;
    case QNetworkReply::SslHandshakeFailedError:
        return -1200;
    case QNetworkReply::TemporaryNetworkFailureError:
    case QNetworkReply::NetworkSessionFailedError:
        return -1009;
    case QNetworkReply::ProtocolUnknownError:
        return -1002;
    case QNetworkReply::TooManyRedirectsError:
        return -1007;
    case QNetworkReply::UnknownContentError:
        return -1016; // content that cannot be decoded, such as a gzip bomb Qt stopped
    case QNetworkReply::InsecureRedirectError:
        return -1022; // an https request sent on to plain http
    default:
        return -1;
    }
}

} // namespace

// Lives on the network thread: owns the QNetworkAccessManager and the tasks in flight.
class QKURLSessionWorker : public QObject
{
public:
    struct Settings
    {
        QSslConfiguration tls;
        int timeout = 60000;
        qint64 resourceTimeout = qint64(7) * 24 * 3600 * 1000;
        qint64 maximumSize = qint64(64) << 20;
        quint64 generation = 0;
    };

    QKURLSessionWorker(const Settings &settings, QObject *parent) : QObject(parent), m_settings(settings) {}

    ~QKURLSessionWorker() override
    {
        // Cancel what is still running; each completion still runs, once.
        const auto replies = m_replies;
        for (QNetworkReply *reply : replies)
            reply->abort();
    }

    void start(const QKURLRequest &request, const Settings &settings, const QKURLSession::Completion &completion)
    {
        const QString scheme = request.url.scheme().toLower();
        if (!request.url.isValid() || request.url.host().isEmpty() ||
            (scheme != QLatin1String("https") && scheme != QLatin1String("http"))) {
            completion(QByteArray(), 0, transportError(-1002, QStringLiteral("unsupported URL")));
            return;
        }
        if (!m_manager || settings.generation != m_settings.generation) {
            // Qt reuses connections whatever their TLS settings; new settings, new connections.
            if (m_manager)
                m_manager->clearConnectionCache();
            else
                m_manager = new QNetworkAccessManager(this);
            m_settings = settings;
        }
        auto task = std::make_shared<Task>();
        task->request = request;
        task->completion = completion;
        task->started.start();
        send(task);
    }

private:
    // One request from start to completion, across the redirects it follows.
    struct Task
    {
        QKURLRequest request; // its URL is the current one
        QKURLSession::Completion completion;
        QElapsedTimer started;
        int redirectsLeft = 16;
    };

    void send(const std::shared_ptr<Task> &task)
    {
        QNetworkRequest networkRequest(task->request.url);
        for (const auto &[name, value] : task->request.headers)
            networkRequest.setRawHeader(name, value);
        networkRequest.setSslConfiguration(m_settings.tls);
        // Redirects are ours to judge: Qt would follow them to any host.
        networkRequest.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
        QNetworkReply *reply = m_manager->sendCustomRequest(networkRequest, task->request.method, task->request.body);
        m_replies.insert(reply);

        struct State
        {
            bool timedOut = false;
            bool tooLarge = false;
            std::optional<qint64> certificateCode;
            std::vector<QMetaObject::Connection> connections;
        };
        auto state = std::make_shared<State>();
        auto *idle = new QTimer(reply);
        idle->setSingleShot(true);
        idle->setInterval(m_settings.timeout);
        auto *overall = new QTimer(reply);
        overall->setSingleShot(true);
        const auto timeOut = [reply, state] {
            state->timedOut = true;
            reply->abort();
        };
        auto &connections = state->connections;
        connections.push_back(QObject::connect(idle, &QTimer::timeout, reply, timeOut));
        connections.push_back(QObject::connect(overall, &QTimer::timeout, reply, timeOut));
        idle->start();
        const qint64 left = qMax<qint64>(0, m_settings.resourceTimeout - task->started.elapsed());
        overall->start(int(qMin<qint64>(left, std::numeric_limits<int>::max())));
        const qint64 cap = m_settings.maximumSize;
        connections.push_back(
            QObject::connect(reply, &QNetworkReply::uploadProgress, idle, qOverload<>(&QTimer::start)));
        // Checked on every arrival: Qt emits downloadProgress at most every 100 ms, so a
        // declared length that is too large, or a fast stream, would slip past it.
        const auto checkSize = [reply, state, cap](qint64 size) {
            if (size > cap && !state->tooLarge) {
                state->tooLarge = true;
                reply->abort();
            }
        };
        connections.push_back(QObject::connect(reply, &QNetworkReply::metaDataChanged, reply, [reply, checkSize] {
            checkSize(reply->header(QNetworkRequest::ContentLengthHeader).toLongLong());
        }));
        connections.push_back(QObject::connect(reply, &QNetworkReply::readyRead, reply, [reply, idle, checkSize] {
            idle->start();
            checkSize(reply->bytesAvailable());
        }));
        connections.push_back(
            QObject::connect(reply, &QNetworkReply::sslErrors, reply, [state](const QList<QSslError> &errors) {
                state->certificateCode = sslErrorCode(errors);
            }));
        connections.push_back(QObject::connect(reply, &QNetworkReply::finished, this, [this, reply, state, task] {
            m_replies.remove(reply);
            // Our slots are let go here, on this thread. Left to the reply's deletion,
            // Qt may free them on its HTTP thread, together with what they hold.
            for (const QMetaObject::Connection &connection : state->connections)
                QObject::disconnect(connection);
            reply->deleteLater();
            const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
            const QNetworkReply::NetworkError error = reply->error();
            const QKURLSession::Completion &completion = task->completion;
            if (state->timedOut) {
                completion(QByteArray(), 0, transportError(-1001, QStringLiteral("The request timed out.")));
            } else if (state->tooLarge) {
                completion(QByteArray(), 0,
                           transportError(-1103, QStringLiteral("The resource exceeds the maximum size.")));
            } else if (error == QNetworkReply::NoError && isRedirect(status.toInt()) &&
                       reply->hasRawHeader("Location")) {
                redirect(task, reply->url(), status.toInt(), reply->rawHeader("Location"));
            } else if (error == QNetworkReply::NoError || (status.isValid() && isStatusError(error, status.toInt()))) {
                completion(reply->readAll(), status.toInt(), std::nullopt);
            } else {
                qint64 code = replyErrorCode(error);
                if (error == QNetworkReply::SslHandshakeFailedError && state->certificateCode)
                    code = *state->certificateCode;
                completion(QByteArray(), status.toInt(), transportError(code, reply->errorString()));
            }
        }));
    }

    static bool isRedirect(int status)
    {
        return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
    }

    // Followed only within the request's own origin, and for a method other than GET only
    // where the method and body stay (307, 308): a 301, 302 or 303 would turn a POST into
    // a GET whose answer is not the POST's.
    void redirect(const std::shared_ptr<Task> &task, const QUrl &from, int status, const QByteArray &location)
    {
        const QUrl to = from.resolved(QUrl::fromEncoded(location, QUrl::StrictMode));
        const auto port = [](const QUrl &url) { return url.port(url.scheme() == QLatin1String("https") ? 443 : 80); };
        const bool keepsMethod = status == 307 || status == 308 || task->request.method == "GET";
        if (from.scheme() == QLatin1String("https") && to.scheme() == QLatin1String("http")) {
            task->completion(QByteArray(), status,
                             transportError(-1022, QStringLiteral("a redirect from https to plain http")));
        } else if (!to.isValid() || to.scheme() != from.scheme() || to.host() != from.host() ||
                   port(to) != port(from)) {
            task->completion(QByteArray(), status,
                             transportError(QKURLSession::RedirectRefusedError,
                                            QStringLiteral("a redirect to another server was refused")));
        } else if (!keepsMethod) {
            task->completion(QByteArray(), status,
                             transportError(QKURLSession::RedirectRefusedError,
                                            QStringLiteral("a redirect that would change the method was refused")));
        } else if (task->redirectsLeft-- <= 0) {
            task->completion(QByteArray(), status, transportError(-1007, QStringLiteral("too many redirects")));
        } else {
            task->request.url = to;
            send(task);
        }
    }

private:
    // Whether `error` is only Qt's report of an answer's 4xx or 5xx status (and so no
    // error here). Qt reports a failed decompression of a 200 answer with a status
    // error too; that one must not pass as an answer.
    static bool isStatusError(QNetworkReply::NetworkError error, int status)
    {
        switch (status) {
        case 400:
        case 418:
            return error == QNetworkReply::ProtocolInvalidOperationError;
        case 401:
            return error == QNetworkReply::AuthenticationRequiredError;
        case 403:
            return error == QNetworkReply::ContentAccessDenied;
        case 404:
            return error == QNetworkReply::ContentNotFoundError;
        case 405:
            return error == QNetworkReply::ContentOperationNotPermittedError;
        case 407:
            return error == QNetworkReply::ProxyAuthenticationRequiredError;
        case 409:
            return error == QNetworkReply::ContentConflictError;
        case 410:
            return error == QNetworkReply::ContentGoneError;
        case 500:
            return error == QNetworkReply::InternalServerError;
        case 501:
            return error == QNetworkReply::OperationNotImplementedError;
        case 503:
            return error == QNetworkReply::ServiceUnavailableError;
        default:
            return status > 500 ? error == QNetworkReply::UnknownServerError
                                : status >= 400 && error == QNetworkReply::UnknownContentError;
        }
    }

    Settings m_settings;
    QNetworkAccessManager *m_manager = nullptr;
    QSet<QNetworkReply *> m_replies;
};

namespace {

// Every request still in flight ends now, once, with -999, while the thread still runs
// its completions; whatever is posted after this fails at once. A batch waiting on a
// request wakes, so the application's wait for its thread pool ends.
void stopNetworkThread()
{
    QThread *thread = nullptr;
    {
        QMutexLocker lock(&threadMutex());
        NetworkThread &state = networkState();
        if (state.stopped)
            return;
        state.stopped = true;
        if (!state.thread)
            return;
        thread = state.thread;
        QKThreadHandOff *context = state.context;
        // Runs after every block posted before it, so each request started is cancelled.
        context->post([context] {
            // Deleted, not only cancelled: the access manager then stops its own HTTP
            // thread, which would otherwise still be closing connections while the
            // process exits.
            qDeleteAll(context->findChildren<QKURLSessionWorker *>(Qt::FindDirectChildrenOnly));
            QThread::currentThread()->quit();
        });
    }
    thread->wait();
}

// With each application: stopped when it goes, so that no thread outlives what it uses.
// A later application gets a thread of its own.
void watchApplication()
{
    // Qt's TLS threads end, and free their OpenSSL thread state, only after QThread::wait
    // has returned; OpenSSL's own exit handler would free the state they free into.
    // Without it the process's memory simply goes with the process.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    QMutexLocker lock(&threadMutex());
    NetworkThread &state = networkState();
    if (state.stopped && state.thread) {
        state.thread->wait();
        delete state.context;
        delete state.thread;
        state.thread = nullptr;
        state.context = nullptr;
    }
    state.stopped = false;
    qAddPostRoutine(stopNetworkThread);
}
Q_COREAPP_STARTUP_FUNCTION(watchApplication)

} // namespace

struct QKURLSession::Private
{
    QMutex mutex;
    QKURLSessionWorker::Settings settings;
    QPointer<QKURLSessionWorker> worker; // made and used on the network thread only

    QKURLSessionWorker::Settings snapshot()
    {
        QMutexLocker lock(&mutex);
        return settings;
    }
};

void QKURLRequest::setHeader(const QByteArray &name, const QByteArray &value)
{
    for (auto &header : headers) {
        if (header.first.compare(name, Qt::CaseInsensitive) == 0) {
            header.second = value;
            return;
        }
    }
    headers.append({name, value});
}

QByteArray QKURLRequest::header(const QByteArray &name) const
{
    for (const auto &header : headers)
        if (header.first.compare(name, Qt::CaseInsensitive) == 0)
            return header.second;
    return QByteArray();
}

QKURLSession::QKURLSession() : d(std::make_shared<Private>())
{
    d->settings.tls = QSslConfiguration::defaultConfiguration();
    d->settings.tls.setPeerVerifyMode(QSslSocket::VerifyPeer);
}

QKURLSession::~QKURLSession()
{
    // The worker goes on its own thread, after the tasks already posted have started;
    // it cancels whatever is still running. Once the thread has stopped, so has it.
    auto shutdown = [d = d] { delete d->worker.data(); };
    if (QThread::currentThread() == networkThread())
        shutdown();
    else
        postToNetworkThread(shutdown);
}

QSharedPointer<QKURLSession> QKURLSession::sharedSession()
{
    static auto *shared = new QSharedPointer<QKURLSession>(new QKURLSession);
    return *shared;
}

QThread *QKURLSession::networkThread()
{
    QMutexLocker lock(&threadMutex());
    networkContextLocked();
    return networkState().thread;
}

void QKURLSession::addCaCertificates(const QList<QSslCertificate> &certificates)
{
    QMutexLocker lock(&d->mutex);
    d->settings.tls.addCaCertificates(certificates);
    ++d->settings.generation;
}

void QKURLSession::setTimeoutInterval(int msecs)
{
    QMutexLocker lock(&d->mutex);
    d->settings.timeout = msecs;
}

int QKURLSession::timeoutInterval() const
{
    QMutexLocker lock(&d->mutex);
    return d->settings.timeout;
}

void QKURLSession::setResourceTimeout(qint64 msecs)
{
    QMutexLocker lock(&d->mutex);
    d->settings.resourceTimeout = msecs;
}

void QKURLSession::setMaximumResponseSize(qint64 bytes)
{
    QMutexLocker lock(&d->mutex);
    d->settings.maximumSize = bytes;
}

qint64 QKURLSession::maximumResponseSize() const
{
    QMutexLocker lock(&d->mutex);
    return d->settings.maximumSize;
}

void QKURLSession::dataTask(const QKURLRequest &request, Completion completion)
{
    std::optional<QKError> refused;
    for (const auto &[name, value] : request.headers) {
        // A header holding a line break would let a value inject headers of its own.
        if (name.isEmpty() || hasForbiddenByte(name) || name.contains(':') || hasForbiddenByte(value))
            refused = transportError(-1002, QStringLiteral("unsupported URL: a header holds a line break or NUL"));
    }
    const auto settings = d->snapshot();
    std::weak_ptr<Private> weak = d;
    const bool posted = postToNetworkThread([weak, request, settings, completion, refused] {
        if (refused) {
            completion(QByteArray(), 0, refused);
            return;
        }
        auto d = weak.lock();
        if (!d) {
            completion(QByteArray(), 0, cancelled());
            return;
        }
        if (!d->worker)
            d->worker = new QKURLSessionWorker(settings, networkContext());
        d->worker->start(request, settings, completion);
    });
    // The application is gone: no thread is left to answer on.
    if (!posted)
        completion(QByteArray(), 0, cancelled());
}
