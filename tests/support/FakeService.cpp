#include "FakeService.h"

#include <QFile>
#include <QHostAddress>
#include <QMutexLocker>
#include <QPointer>
#include <QSslConfiguration>
#include <QSslKey>
#include <QSslServer>
#include <QSslSocket>
#include <QTimer>
#include <QtGlobal>

#include <algorithm>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <optional>
#include <sys/socket.h>

namespace {

constexpr qsizetype MaxHeaderBytes = 1024 * 1024;
constexpr qint64 MaxBodyBytes = 512LL * 1024 * 1024;
constexpr qint64 BodyChunkBytes = 256 * 1024;
// Streamed bodies are queued only while less than this waits to be sent, so memory stays bounded.
constexpr qint64 LowWaterBytes = 1024 * 1024;

// Qt reads the status code only.
QByteArray statusLine(int status)
{
    const char *reason = status < 300 ? " OK\r\n" : status < 400 ? " Moved\r\n" : " Error\r\n";
    return "HTTP/1.1 " + QByteArray::number(status) + reason;
}

FakeService::Answer answerOf(int status, const QByteArray &body, const QByteArray &contentType = "application/json")
{
    FakeService::Answer answer;
    answer.status = status;
    answer.body = body;
    answer.contentType = contentType;
    return answer;
}

} // namespace

QByteArray RecordedRequest::header(const QByteArray &name) const
{
    QByteArray value;
    bool found = false;
    for (const auto &[headerName, headerValue] : headers) {
        if (headerName.compare(name, Qt::CaseInsensitive) != 0)
            continue;
        if (found)
            value += ", ";
        value += headerValue;
        found = true;
    }
    // Present but empty must still differ from absent.
    if (found && value.isNull())
        value = QByteArray("");
    return value;
}

bool RecordedRequest::hasHeader(const QByteArray &name) const
{
    return std::any_of(headers.begin(), headers.end(),
                       [&](const auto &header) { return header.first.compare(name, Qt::CaseInsensitive) == 0; });
}

struct FakeService::Connection
{
    QByteArray buffer;
    std::optional<RecordedRequest> pending;
    qint64 pendingBodyBytes = 0;
    bool busy = false;
    bool silent = false;
    bool closeAfterReply = false;
    qint64 bodyRemaining = 0;
};

FakeService::FakeService(Certificate certificate, QObject *parent) : QObject(parent), m_certificate(certificate)
{
    qRegisterMetaType<RecordedRequest>();
}

FakeService::~FakeService()
{
    // Sockets must go before the members their handlers use.
    const QList<QSslSocket *> sockets = m_connections.keys();
    m_connections.clear();
    for (QSslSocket *socket : sockets) {
        socket->disconnect(this);
        socket->abort();
        delete socket;
    }
    delete m_server;
}

bool FakeService::listen()
{
    if (m_server && m_server->isListening())
        return true;
    const QString name = m_certificate == Certificate::Trusted ? QStringLiteral("server") : QStringLiteral("untrusted");
    const QList<QSslCertificate> chain =
        QSslCertificate::fromPath(certsDirectory() + QLatin1Char('/') + name + QStringLiteral(".pem"));
    QFile keyFile(certsDirectory() + QLatin1Char('/') + name + QStringLiteral(".key"));
    if (chain.isEmpty() || !keyFile.open(QIODevice::ReadOnly)) {
        qWarning("FakeService: cannot read the %s certificate or key", qPrintable(name));
        return false;
    }
    const QSslKey key(keyFile.readAll(), QSsl::Rsa, QSsl::Pem);
    if (key.isNull()) {
        qWarning("FakeService: cannot decode %s.key", qPrintable(name));
        return false;
    }

    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setLocalCertificateChain(chain);
    configuration.setPrivateKey(key);
    configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
    configuration.setProtocol(QSsl::TlsV1_2OrLater);
    // Offering only HTTP/1.1 keeps the client from negotiating HTTP/2, which this server does not speak.
    configuration.setAllowedNextProtocols({QByteArrayLiteral("http/1.1")});

    if (!m_server) {
        m_server = new QSslServer(this);
        connect(m_server, &QTcpServer::pendingConnectionAvailable, this, &FakeService::acceptConnections);
    }
    m_server->setSslConfiguration(configuration);
    if (!m_server->listen(QHostAddress::LocalHost, 0)) {
        qWarning("FakeService: cannot listen: %s", qPrintable(m_server->errorString()));
        return false;
    }
    return true;
}

quint16 FakeService::port() const
{
    return m_server ? m_server->serverPort() : 0;
}

QString FakeService::origin() const
{
    return QStringLiteral("https://127.0.0.1:%1").arg(port());
}

QString FakeService::baseUrl() const
{
    return origin() + QStringLiteral("/feedback/api/v1");
}

QString FakeService::certsDirectory()
{
    return QStringLiteral(MURMORA_TEST_CERTS);
}

QList<QSslCertificate> FakeService::caCertificates()
{
    static const QList<QSslCertificate> certificates =
        QSslCertificate::fromPath(certsDirectory() + QStringLiteral("/ca.pem"));
    return certificates;
}

QList<RecordedRequest> FakeService::requests() const
{
    QMutexLocker locker(&m_mutex);
    return m_requests;
}

void FakeService::clearRequests()
{
    QMutexLocker locker(&m_mutex);
    m_requests.clear();
}

void FakeService::answer(const QByteArray &method, const QString &targetPattern, const Answer &answer, int times)
{
    if (times == 0)
        return;
    CannedAnswer canned{method, QRegularExpression(targetPattern), answer, times < 0 ? -1 : times};
    if (!canned.pattern.isValid())
        qWarning("FakeService: invalid target pattern %s", qPrintable(targetPattern));
    QMutexLocker locker(&m_mutex);
    m_answers.append(canned);
}

void FakeService::clearAnswers()
{
    QMutexLocker locker(&m_mutex);
    m_answers.clear();
}

void FakeService::acceptConnections()
{
    while (auto *socket = qobject_cast<QSslSocket *>(m_server->nextPendingConnection())) {
        m_connections.insert(socket, std::make_shared<Connection>());
        connect(socket, &QIODevice::readyRead, this, [this, socket] { readRequests(socket); });
        connect(socket, &QIODevice::bytesWritten, this, [this, socket] { pumpBody(socket); });
        connect(socket, &QSslSocket::encryptedBytesWritten, this, [this, socket] { pumpBody(socket); });
        connect(socket, &QAbstractSocket::disconnected, this, [this, socket] {
            m_connections.remove(socket);
            socket->deleteLater();
        });
        // The first request may have arrived with the end of the handshake.
        if (socket->bytesAvailable() > 0)
            readRequests(socket);
    }
}

void FakeService::readRequests(QSslSocket *socket)
{
    const std::shared_ptr<Connection> connection = m_connections.value(socket);
    if (!connection)
        return;
    // Acknowledge at once, as a server on a real link would be seen to: on loopback a
    // client's last small segment otherwise waits out Linux's delayed acknowledgement.
    const int quick = 1;
    ::setsockopt(int(socket->socketDescriptor()), IPPROTO_TCP, TCP_QUICKACK, &quick, sizeof quick);
    if (connection->silent) {
        socket->readAll();
        return;
    }
    connection->buffer += socket->readAll();
    const QPointer<QSslSocket> alive(socket);
    const auto refuse = [&](int status, const char *message) {
        connection->closeAfterReply = true;
        connection->busy = true;
        send(socket, answerOf(status, message, "text/plain"));
    };

    while (alive && !connection->busy && !connection->silent) {
        if (!connection->pending) {
            // Empty lines before a request line are allowed.
            while (connection->buffer.startsWith("\r\n"))
                connection->buffer.remove(0, 2);
            const qsizetype headerEnd = connection->buffer.indexOf("\r\n\r\n");
            if (headerEnd < 0) {
                if (connection->buffer.size() > MaxHeaderBytes)
                    refuse(431, "header too large");
                return;
            }
            const QList<QByteArray> lines = connection->buffer.left(headerEnd).split('\n');
            connection->buffer.remove(0, headerEnd + 4);

            const QList<QByteArray> requestLine = lines.first().trimmed().split(' ');
            if (requestLine.size() != 3 || requestLine[0].isEmpty() || requestLine[1].isEmpty() ||
                !requestLine[2].startsWith("HTTP/1.")) {
                refuse(400, "bad request line");
                return;
            }
            RecordedRequest request;
            request.method = requestLine[0];
            request.target = requestLine[1];
            for (qsizetype i = 1; i < lines.size(); ++i) {
                QByteArray line = lines[i];
                if (line.endsWith('\r'))
                    line.chop(1);
                const qsizetype colon = line.indexOf(':');
                if (colon <= 0) {
                    refuse(400, "bad header line");
                    return;
                }
                // Leading and trailing blanks are not part of a field value.
                QByteArray value = line.mid(colon + 1).trimmed();
                if (value.isNull())
                    value = QByteArray("");
                request.headers.append({line.left(colon), value});
            }
            if (request.hasHeader("Transfer-Encoding")) {
                refuse(501, "chunked requests are not supported");
                return;
            }
            qint64 length = 0;
            if (request.hasHeader("Content-Length")) {
                bool ok = false;
                length = request.header("Content-Length").toLongLong(&ok);
                if (!ok || length < 0) {
                    refuse(400, "bad Content-Length");
                    return;
                }
                if (length > MaxBodyBytes) {
                    refuse(413, "body too large");
                    return;
                }
            }
            const QByteArray connectionHeader = request.header("Connection").toLower();
            connection->closeAfterReply = connectionHeader.contains("close") ||
                                          (requestLine[2] == "HTTP/1.0" && !connectionHeader.contains("keep-alive"));
            connection->pending = std::move(request);
            connection->pendingBodyBytes = length;
        }
        if (connection->buffer.size() < connection->pendingBodyBytes)
            return;
        RecordedRequest request = std::move(*connection->pending);
        connection->pending.reset();
        request.body = connection->buffer.left(connection->pendingBodyBytes);
        connection->buffer.remove(0, connection->pendingBodyBytes);
        connection->busy = true;
        handle(socket, std::move(request));
    }
}

void FakeService::handle(QSslSocket *socket, RecordedRequest request)
{
    {
        QMutexLocker locker(&m_mutex);
        m_requests.append(request);
    }
    const QPointer<QSslSocket> alive(socket);
    emit requestReceived(request);
    if (!alive || !m_connections.contains(socket))
        return;

    Answer canned;
    if (!takeCannedAnswer(request, &canned)) {
        send(socket, answerOf(404, R"({"code":404,"message":"Not found"})"));
        return;
    }
    if (canned.neverAnswer) {
        m_connections.value(socket)->silent = true;
        return;
    }
    if (canned.closeAfter)
        m_connections.value(socket)->closeAfterReply = true;
    const auto act = [this, socket, canned] {
        if (canned.dropConnection)
            dropConnection(socket);
        else
            send(socket, canned);
    };
    if (canned.delayMs > 0)
        QTimer::singleShot(canned.delayMs, socket, act);
    else
        act();
}

void FakeService::send(QSslSocket *socket, const Answer &reply)
{
    const std::shared_ptr<Connection> connection = m_connections.value(socket);
    if (!connection)
        return;
    if (!reply.raw.isEmpty()) {
        if (reply.dripMs > 0)
            return drip(socket, reply.raw, reply.dripMs);
        socket->write(reply.raw);
        return finishReply(socket);
    }
    const bool bodyAllowed = reply.status >= 200 && reply.status != 204 && reply.status != 304;
    const qint64 length = reply.bodyBytes >= 0 ? reply.bodyBytes : reply.body.size();
    QByteArray head = statusLine(reply.status);
    if (bodyAllowed) {
        if (!reply.contentType.isEmpty())
            head += "Content-Type: " + reply.contentType + "\r\n";
        head += "Content-Length: " + QByteArray::number(length) + "\r\n";
    }
    for (const auto &[name, value] : reply.headers)
        head += name + ": " + value + "\r\n";
    head += connection->closeAfterReply ? "Connection: close\r\n\r\n" : "Connection: keep-alive\r\n\r\n";
    socket->write(head);
    if (bodyAllowed && reply.dripMs > 0 && !reply.body.isEmpty())
        return drip(socket, reply.body, reply.dripMs);
    if (bodyAllowed && reply.bodyBytes >= 0) {
        connection->bodyRemaining = reply.bodyBytes;
        pumpBody(socket);
        return;
    }
    if (bodyAllowed)
        socket->write(reply.body);
    finishReply(socket);
}

void FakeService::pumpBody(QSslSocket *socket)
{
    const std::shared_ptr<Connection> connection = m_connections.value(socket);
    if (!connection || connection->bodyRemaining <= 0)
        return;
    static const QByteArray chunk(BodyChunkBytes, 'x');
    while (connection->bodyRemaining > 0 && socket->bytesToWrite() + socket->encryptedBytesToWrite() < LowWaterBytes) {
        const qint64 size = std::min(connection->bodyRemaining, BodyChunkBytes);
        socket->write(chunk.constData(), size);
        connection->bodyRemaining -= size;
    }
    if (connection->bodyRemaining == 0)
        finishReply(socket);
}

void FakeService::drip(QSslSocket *socket, const QByteArray &bytes, int intervalMs)
{
    // The timer goes with the socket, so a client that gives up ends the drip.
    auto *timer = new QTimer(socket);
    timer->setInterval(intervalMs);
    auto sent = std::make_shared<qsizetype>(0);
    connect(timer, &QTimer::timeout, this, [this, socket, timer, bytes, sent] {
        socket->write(bytes.mid((*sent)++, 1));
        if (*sent == bytes.size()) {
            timer->deleteLater();
            finishReply(socket);
        }
    });
    timer->start();
}

void FakeService::finishReply(QSslSocket *socket)
{
    const std::shared_ptr<Connection> connection = m_connections.value(socket);
    if (!connection)
        return;
    if (connection->closeAfterReply) {
        socket->disconnectFromHost();
        return;
    }
    connection->busy = false;
    // A request that came in while this one was answered waits in the buffer.
    if (!connection->buffer.isEmpty())
        QMetaObject::invokeMethod(
            socket, [this, socket] { readRequests(socket); }, Qt::QueuedConnection);
}

void FakeService::dropConnection(QSslSocket *socket)
{
    m_connections.remove(socket);
    socket->disconnect(this);
    socket->abort();
    socket->deleteLater();
}

bool FakeService::takeCannedAnswer(const RecordedRequest &request, Answer *answer)
{
    QMutexLocker locker(&m_mutex);
    const QString target = QString::fromUtf8(request.target);
    for (qsizetype i = m_answers.size() - 1; i >= 0; --i) {
        CannedAnswer &canned = m_answers[i];
        if (!canned.method.isEmpty() && canned.method != request.method)
            continue;
        if (!canned.pattern.match(target).hasMatch())
            continue;
        *answer = canned.answer;
        if (canned.remaining > 0 && --canned.remaining == 0)
            m_answers.removeAt(i);
        return true;
    }
    return false;
}
