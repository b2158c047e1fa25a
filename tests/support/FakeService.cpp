#include "FakeService.h"

#include <QFile>
#include <QHostAddress>
#include <QPointer>
#include <QSslConfiguration>
#include <QSslKey>
#include <QSslServer>
#include <QSslSocket>
#include <QTimer>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

QByteArray RecordedRequest::header(const QByteArray &name) const
{
    for (const auto &[headerName, value] : headers)
        if (headerName.compare(name, Qt::CaseInsensitive) == 0)
            return value.isNull() ? QByteArray("") : value;
    return {};
}

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
    const QString name = m_certificate == Certificate::Trusted ? "server" : "untrusted";
    const QList<QSslCertificate> chain = QSslCertificate::fromPath(certsDirectory() + QLatin1Char('/') + name + ".pem");
    QFile keyFile(certsDirectory() + QLatin1Char('/') + name + ".key");
    if (chain.isEmpty() || !keyFile.open(QIODevice::ReadOnly)) {
        qWarning("FakeService: cannot read the %s certificate or key", qPrintable(name));
        return false;
    }
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setLocalCertificateChain(chain);
    configuration.setPrivateKey(QSslKey(keyFile.readAll(), QSsl::Rsa, QSsl::Pem));
    configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
    // Offering only HTTP/1.1 keeps the client from negotiating HTTP/2, which this server does not speak.
    configuration.setAllowedNextProtocols({QByteArrayLiteral("http/1.1")});

    m_server = new QSslServer(this);
    m_server->setSslConfiguration(configuration);
    connect(m_server, &QTcpServer::pendingConnectionAvailable, this, [this] {
        while (auto *socket = qobject_cast<QSslSocket *>(m_server->nextPendingConnection())) {
            m_connections.insert(socket, std::make_shared<Connection>());
            connect(socket, &QIODevice::readyRead, this, [this, socket] { readRequests(socket); });
            connect(socket, &QAbstractSocket::disconnected, this, [this, socket] {
                m_connections.remove(socket);
                socket->deleteLater();
            });
            // The first request may have arrived with the end of the handshake.
            if (socket->bytesAvailable() > 0)
                readRequests(socket);
        }
    });
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
    return origin() + "/feedback/api/v1";
}

QString FakeService::certsDirectory()
{
    return QStringLiteral(MURMORA_TEST_CERTS);
}

QList<QSslCertificate> FakeService::caCertificates()
{
    static const QList<QSslCertificate> certificates = QSslCertificate::fromPath(certsDirectory() + "/ca.pem");
    return certificates;
}

void FakeService::answer(const QByteArray &method, const QString &targetPattern, const Answer &answer, int times)
{
    QMutexLocker locker(&m_mutex);
    m_answers.append({method, QRegularExpression(targetPattern), answer, times});
}

void FakeService::clearAnswers()
{
    QMutexLocker locker(&m_mutex);
    m_answers.clear();
}

// Requests as Qt's client writes them: a request line, header lines, a body of Content-Length.
void FakeService::readRequests(QSslSocket *socket)
{
    const std::shared_ptr<Connection> connection = m_connections.value(socket);
    if (!connection)
        return;
    // Acknowledge at once, as a server on a real link would be seen to: on loopback a
    // client's last small segment otherwise waits out Linux's delayed acknowledgement.
    const int quick = 1;
    ::setsockopt(int(socket->socketDescriptor()), IPPROTO_TCP, TCP_QUICKACK, &quick, sizeof quick);
    connection->buffer += socket->readAll();
    const QPointer<QSslSocket> alive(socket);
    while (alive && !connection->busy && !connection->silent) {
        const qsizetype headerEnd = connection->buffer.indexOf("\r\n\r\n");
        if (headerEnd < 0)
            return;
        const QList<QByteArray> lines = connection->buffer.left(headerEnd).split('\n');
        const QList<QByteArray> requestLine = lines.first().trimmed().split(' ');
        RecordedRequest request{requestLine.value(0), requestLine.value(1), {}, {}};
        for (qsizetype i = 1; i < lines.size(); ++i) {
            const qsizetype colon = lines[i].indexOf(':');
            request.headers.append({lines[i].left(colon), lines[i].mid(colon + 1).trimmed()});
        }
        const qint64 length = request.header("Content-Length").toLongLong();
        if (connection->buffer.size() < headerEnd + 4 + length)
            return;
        request.body = connection->buffer.mid(headerEnd + 4, length);
        connection->buffer.remove(0, headerEnd + 4 + length);
        connection->busy = true;
        handle(socket, request);
    }
}

void FakeService::handle(QSslSocket *socket, const RecordedRequest &request)
{
    record(request);
    const QPointer<QSslSocket> alive(socket);
    emit requestReceived(request);
    if (!alive || !m_connections.contains(socket))
        return;

    Answer canned;
    if (!takeCannedAnswer(request, &canned)) {
        canned.status = 404;
        canned.body = R"({"code":404,"message":"Not found"})";
    }
    if (canned.neverAnswer) {
        m_connections.value(socket)->silent = true;
        return;
    }
    if (canned.closeAfter)
        m_connections.value(socket)->closeAfterReply = true;
    if (canned.delayMs > 0)
        QTimer::singleShot(canned.delayMs, socket, [this, socket, canned] { send(socket, canned); });
    else
        send(socket, canned);
}

void FakeService::send(QSslSocket *socket, const Answer &reply)
{
    const std::shared_ptr<Connection> connection = m_connections.value(socket);
    if (!connection)
        return;
    QByteArray head = reply.raw;
    QByteArray body;
    if (head.isEmpty()) {
        // Qt reads the status code only.
        head = "HTTP/1.1 " + QByteArray::number(reply.status) + (reply.status < 400 ? " OK\r\n" : " Error\r\n");
        if (reply.status >= 200 && reply.status != 204 && reply.status != 304) {
            head += "Content-Type: " + reply.contentType +
                    "\r\nContent-Length: " + QByteArray::number(reply.body.size()) + "\r\n";
            body = reply.body;
        }
        for (const auto &[name, value] : reply.headers)
            head += name + ": " + value + "\r\n";
        head += connection->closeAfterReply ? "Connection: close\r\n\r\n" : "Connection: keep-alive\r\n\r\n";
    }
    if (reply.dripMs <= 0) {
        socket->write(head + body);
        return finishReply(socket);
    }
    // The body one byte per interval; the timer goes with the socket, so a client that gives up ends the drip.
    socket->write(head);
    auto *timer = new QTimer(socket);
    auto sent = std::make_shared<qsizetype>(0);
    connect(timer, &QTimer::timeout, this, [this, socket, timer, body, sent] {
        socket->write(body.mid((*sent)++, 1));
        if (*sent == body.size()) {
            timer->deleteLater();
            finishReply(socket);
        }
    });
    timer->start(reply.dripMs);
}

void FakeService::finishReply(QSslSocket *socket)
{
    const std::shared_ptr<Connection> connection = m_connections.value(socket);
    if (!connection)
        return;
    if (connection->closeAfterReply)
        return socket->disconnectFromHost();
    connection->busy = false;
    // A request that came in while this one was answered waits in the buffer.
    if (!connection->buffer.isEmpty())
        QMetaObject::invokeMethod(
            socket, [this, socket] { readRequests(socket); }, Qt::QueuedConnection);
}

bool FakeService::takeCannedAnswer(const RecordedRequest &request, Answer *answer)
{
    QMutexLocker locker(&m_mutex);
    const QString target = QString::fromUtf8(request.target);
    for (qsizetype i = m_answers.size() - 1; i >= 0; --i) {
        CannedAnswer &canned = m_answers[i];
        if ((!canned.method.isEmpty() && canned.method != request.method) || !canned.pattern.match(target).hasMatch())
            continue;
        *answer = canned.answer;
        if (canned.remaining > 0 && --canned.remaining == 0)
            m_answers.removeAt(i);
        return true;
    }
    return false;
}
