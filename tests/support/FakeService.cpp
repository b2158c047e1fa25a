#include "FakeService.h"

#include <QDateTime>
#include <QFile>
#include <QHostAddress>
#include <QJsonDocument>
#include <QMutexLocker>
#include <QPointer>
#include <QRandomGenerator>
#include <QSslConfiguration>
#include <QSslKey>
#include <QSslServer>
#include <QSslSocket>
#include <QTimer>
#include <QUrl>
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
constexpr qsizetype PageSize = 20;
const QByteArray ApiPrefix("/feedback/api/v1/");

QByteArray reasonPhrase(int status)
{
    switch (status) {
    case 200:
        return "OK";
    case 201:
        return "Created";
    case 204:
        return "No Content";
    case 304:
        return "Not Modified";
    case 400:
        return "Bad Request";
    case 401:
        return "Unauthorized";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    case 405:
        return "Method Not Allowed";
    case 413:
        return "Content Too Large";
    case 429:
        return "Too Many Requests";
    case 431:
        return "Request Header Fields Too Large";
    case 500:
        return "Internal Server Error";
    case 501:
        return "Not Implemented";
    case 502:
        return "Bad Gateway";
    case 503:
        return "Service Unavailable";
    default:
        return "Status";
    }
}

QByteArray compactJson(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

QByteArray compactJson(const QJsonArray &array)
{
    return QJsonDocument(array).toJson(QJsonDocument::Compact);
}

QByteArray errorBody(int code, const QString &message)
{
    return compactJson(QJsonObject{{QStringLiteral("code"), code}, {QStringLiteral("message"), message}});
}

std::optional<QJsonObject> parseObject(const QByteArray &json)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    return document.object();
}

bool isValidFilter(const QJsonObject &filter)
{
    const QJsonValue all = filter.value(QStringLiteral("$and"));
    if (all.isUndefined())
        return true;
    if (!all.isArray())
        return false;
    for (const QJsonValue &part : all.toArray()) {
        if (!part.isObject() || !isValidFilter(part.toObject()))
            return false;
    }
    return true;
}

bool matchesFilter(const QJsonObject &thread, const QJsonObject &filter)
{
    for (auto it = filter.begin(); it != filter.end(); ++it) {
        if (it.key() == QLatin1String("$and")) {
            for (const QJsonValue &part : it.value().toArray()) {
                if (!matchesFilter(thread, part.toObject()))
                    return false;
            }
            continue;
        }
        const QJsonValue field = thread.value(it.key());
        if (it.value().isNull()) {
            if (!field.isNull() && !field.isUndefined())
                return false;
        } else if (field != it.value()) {
            return false;
        }
    }
    return true;
}

int typeRank(const QJsonValue &value)
{
    switch (value.type()) {
    case QJsonValue::Undefined:
    case QJsonValue::Null:
        return 0;
    case QJsonValue::Bool:
        return 1;
    case QJsonValue::Double:
        return 2;
    case QJsonValue::String:
        return 3;
    case QJsonValue::Array:
        return 4;
    case QJsonValue::Object:
        return 5;
    }
    return 6;
}

int compareValues(const QJsonValue &a, const QJsonValue &b)
{
    const int rankA = typeRank(a);
    const int rankB = typeRank(b);
    if (rankA != rankB)
        return rankA < rankB ? -1 : 1;
    switch (a.type()) {
    case QJsonValue::Bool:
        return int(a.toBool()) - int(b.toBool());
    case QJsonValue::Double:
        return a.toDouble() < b.toDouble() ? -1 : (a.toDouble() > b.toDouble() ? 1 : 0);
    case QJsonValue::String:
        return a.toString().compare(b.toString());
    default:
        return 0;
    }
}

QString idOf(const QJsonObject &thread)
{
    return thread.value(QStringLiteral("Id")).toString();
}

QByteArray imageIdFromPath(QString path)
{
    if (path.contains(QLatin1String("://")))
        path = QUrl(path).path();
    const QLatin1String files("/files/");
    const qsizetype at = path.lastIndexOf(files);
    if (at >= 0)
        path = path.mid(at + files.size());
    if (path.endsWith(QLatin1String(".png")))
        path.chop(4);
    return path.toUtf8();
}

QByteArray base64Alphabet(const QByteArray &text)
{
    QByteArray kept(text.size(), Qt::Uninitialized);
    char *out = kept.data();
    for (const char c : text) {
        *out = c;
        out += (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/' ||
               c == '=';
    }
    kept.truncate(out - kept.constData());
    return kept;
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

struct FakeService::Reply
{
    int status = 200;
    QByteArray contentType = "application/json";
    QByteArray body;
    qint64 bodyBytes = -1;
    QList<QPair<QByteArray, QByteArray>> headers = {};
    QByteArray raw = {};
    int dripMs = 0;
};

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

FakeService::FakeService(Certificate certificate, QObject *parent)
    : QObject(parent), m_certificate(certificate), m_idCounter(QRandomGenerator::global()->generate())
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

void FakeService::answerServiceError(const QByteArray &method, const QString &targetPattern, int code,
                                     const QString &message, int status)
{
    Answer canned;
    canned.status = status;
    canned.body = errorBody(code, message);
    answer(method, targetPattern, canned);
}

void FakeService::clearAnswers()
{
    QMutexLocker locker(&m_mutex);
    m_answers.clear();
}

QJsonArray FakeService::threads(const QString &apiKey) const
{
    QMutexLocker locker(&m_mutex);
    QJsonArray array;
    for (const QJsonObject &thread : m_threads.value(apiKey))
        array.append(thread);
    return array;
}

QJsonObject FakeService::addThread(const QString &apiKey, QJsonObject thread)
{
    QMutexLocker locker(&m_mutex);
    if (!thread.contains(QStringLiteral("Id")))
        thread.insert(QStringLiteral("Id"), nextId());
    if (!thread.contains(QStringLiteral("CreatedAt")))
        thread.insert(QStringLiteral("CreatedAt"), nextTimestamp());
    if (!thread.contains(QStringLiteral("ModifiedAt")))
        thread.insert(QStringLiteral("ModifiedAt"), thread.value(QStringLiteral("CreatedAt")));
    if (!thread.contains(QStringLiteral("RootId")))
        thread.insert(QStringLiteral("RootId"), QJsonValue::Null);
    if (!thread.contains(QStringLiteral("CommentsCount")))
        thread.insert(QStringLiteral("CommentsCount"), 1);
    storeImage(thread);
    m_threads[apiKey].append(thread);
    return thread;
}

QByteArray FakeService::storedImage(const QString &uriPath) const
{
    QMutexLocker locker(&m_mutex);
    const auto image = m_images.constFind(QString::fromUtf8(imageIdFromPath(uriPath)));
    return image == m_images.constEnd() ? QByteArray() : QByteArray::fromBase64(*image);
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
        send(socket, Reply{status, "text/plain", QByteArray(message), -1});
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
            const QByteArray head = connection->buffer.left(headerEnd + 2);
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
            request.head = head;
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
        send(socket, serve(request));
        return;
    }
    if (canned.neverAnswer) {
        m_connections.value(socket)->silent = true;
        return;
    }
    const Reply reply{canned.status,  canned.contentType, canned.body,  canned.bodyBytes,
                      canned.headers, canned.raw,         canned.dripMs};
    if (canned.closeAfter)
        m_connections.value(socket)->closeAfterReply = true;
    const bool drop = canned.dropConnection;
    const auto act = [this, socket, reply, drop] {
        if (drop)
            dropConnection(socket);
        else
            send(socket, reply);
    };
    if (canned.delayMs > 0)
        QTimer::singleShot(canned.delayMs, socket, act);
    else
        act();
}

void FakeService::send(QSslSocket *socket, const Reply &reply)
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
    QByteArray head = "HTTP/1.1 " + QByteArray::number(reply.status) + ' ' + reasonPhrase(reply.status) + "\r\n";
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

FakeService::Reply FakeService::serve(const RecordedRequest &request)
{
    const Reply notFound{404, "application/json", errorBody(404, QStringLiteral("Not found")), -1};
    QByteArray path = request.target;
    const qsizetype query = path.indexOf('?');
    if (query >= 0)
        path.truncate(query);

    QMutexLocker locker(&m_mutex);
    if (path.startsWith("/files/")) {
        const QByteArray name = path.mid(7);
        if (request.method != "GET" || !name.endsWith(".png") || name.contains('/'))
            return notFound;
        const QString id = QString::fromUtf8(QByteArray::fromPercentEncoding(name.chopped(4)));
        const auto image = m_images.constFind(id);
        if (image == m_images.constEnd())
            return Reply{404, "text/plain", "no such file", -1};
        return Reply{200, "image/png", QByteArray::fromBase64(*image), -1};
    }
    if (!path.startsWith(ApiPrefix))
        return notFound;
    const QList<QByteArray> segments = path.mid(ApiPrefix.size()).split('/');
    if (segments.size() < 2 || segments.size() > 3 || segments[0].isEmpty() || segments[1] != "threads")
        return notFound;
    const QString apiKey = QString::fromUtf8(QByteArray::fromPercentEncoding(segments[0]));
    const QString id =
        segments.size() == 3 ? QString::fromUtf8(QByteArray::fromPercentEncoding(segments[2])) : QString();
    if (segments.size() == 3 && id.isEmpty())
        return notFound;
    return serveThreads(request, apiKey, id);
}

FakeService::Reply FakeService::serveThreads(const RecordedRequest &request, const QString &apiKey,
                                             const QString &threadId)
{
    const auto json = [](int status, const QByteArray &body) { return Reply{status, "application/json", body, -1}; };
    const auto error = [&](int code, const char *message) {
        return json(code, errorBody(code, QString::fromUtf8(message)));
    };
    QList<QJsonObject> &threads = m_threads[apiKey];
    const auto findThread = [&](const QString &id) {
        return std::find_if(threads.begin(), threads.end(),
                            [&](const QJsonObject &thread) { return idOf(thread) == id; });
    };
    const auto parseFilter = [&](std::optional<QJsonObject> *filter) {
        if (!request.hasHeader("x-filter-meta"))
            return true;
        *filter = parseObject(request.header("x-filter-meta"));
        return filter->has_value() && isValidFilter(**filter);
    };
    const QByteArray &method = request.method;

    if (method == "POST") {
        const std::optional<QJsonObject> body = parseObject(request.body);
        if (!body)
            return error(400, "Invalid body");
        if (threadId.isEmpty())
            return json(200, compactJson(storeThread(apiKey, *body, QString())));
        const auto parent = findThread(threadId);
        if (parent == threads.end())
            return error(404, "Thread not found");
        const QString commentsCount = QStringLiteral("CommentsCount");
        parent->insert(commentsCount, parent->value(commentsCount).toInteger() + 1);
        return json(200, compactJson(storeThread(apiKey, *body, threadId)));
    }

    if (method == "DELETE" && !threadId.isEmpty()) {
        const auto thread = findThread(threadId);
        if (thread == threads.end())
            return error(404, "Thread not found");
        threads.removeIf([&](const QJsonObject &candidate) {
            const bool removed =
                idOf(candidate) == threadId || candidate.value(QStringLiteral("RootId")).toString() == threadId;
            if (removed)
                m_images.remove(idOf(candidate));
            return removed;
        });
        return json(200, "{}");
    }

    if (!threadId.isEmpty())
        return error(405, "Method not allowed");

    if (method == "GET") {
        std::optional<QJsonObject> filter;
        if (!parseFilter(&filter))
            return error(400, "Invalid filter");
        QList<QJsonObject> found;
        for (const QJsonObject &thread : threads) {
            if (!filter || matchesFilter(thread, *filter))
                found.append(thread);
        }
        if (request.hasHeader("x-sort-meta")) {
            const std::optional<QJsonObject> sort = parseObject(request.header("x-sort-meta"));
            if (!sort)
                return error(400, "Invalid sort");
            QList<QPair<QString, int>> keys;
            for (auto it = sort->begin(); it != sort->end(); ++it) {
                const double direction = it.value().toDouble();
                if (direction != 1 && direction != -1)
                    return error(400, "Invalid sort");
                keys.append({it.key(), int(direction)});
            }
            std::stable_sort(found.begin(), found.end(), [&](const QJsonObject &a, const QJsonObject &b) {
                for (const auto &[field, direction] : keys) {
                    const int order = compareValues(a.value(field), b.value(field));
                    if (order != 0)
                        return order * direction < 0;
                }
                return false;
            });
        }
        qsizetype skip = 0;
        if (request.hasHeader("x-skip-meta")) {
            bool ok = false;
            skip = request.header("x-skip-meta").toLongLong(&ok);
            if (!ok)
                return error(400, "Invalid skip");
            skip = std::max<qsizetype>(skip, 0);
        }
        QJsonArray page;
        for (qsizetype i = skip; i < found.size() && i < skip + PageSize; ++i)
            page.append(found[i]);
        return json(200, compactJson(page));
    }

    if (method == "PUT") {
        const std::optional<QJsonObject> body = parseObject(request.body);
        if (!body)
            return error(400, "Invalid body");
        std::optional<QJsonObject> filter;
        if (!parseFilter(&filter))
            return error(400, "Invalid filter");
        int updated = 0;
        if (filter) {
            const QString now = nextTimestamp();
            for (QJsonObject &thread : threads) {
                if (!matchesFilter(thread, *filter))
                    continue;
                for (auto it = body->begin(); it != body->end(); ++it)
                    thread.insert(it.key(), it.value());
                thread.insert(QStringLiteral("ModifiedAt"), now);
                ++updated;
            }
        }
        return json(200, compactJson(QJsonObject{{QStringLiteral("updated"), updated}}));
    }

    return error(405, "Method not allowed");
}

QJsonObject FakeService::storeThread(const QString &apiKey, QJsonObject thread, const QString &rootId)
{
    const QString id = nextId();
    const QString now = nextTimestamp();
    thread.insert(QStringLiteral("Id"), id);
    thread.insert(QStringLiteral("RootId"), rootId.isEmpty() ? QJsonValue(QJsonValue::Null) : QJsonValue(rootId));
    if (rootId.isEmpty())
        thread.insert(QStringLiteral("State"), QStringLiteral("Open"));
    thread.insert(QStringLiteral("CreatedAt"), now);
    thread.insert(QStringLiteral("ModifiedAt"), now);
    thread.insert(QStringLiteral("CommentsCount"), 1);

    storeImage(thread);
    m_threads[apiKey].append(thread);
    return thread;
}

void FakeService::storeImage(QJsonObject &thread)
{
    const QJsonObject image = thread.value(QStringLiteral("Image")).toObject();
    const QJsonValue base64 = image.value(QStringLiteral("base64"));
    if (!base64.isString())
        return;
    const QString id = idOf(thread);
    // Kept as sent (letters only) and decoded when asked for, as a file store would.
    m_images.insert(id, base64Alphabet(base64.toString().toLatin1()));
    QJsonObject stored;
    for (const QString &field : {QStringLiteral("Filename"), QStringLiteral("ContentType")}) {
        if (image.contains(field))
            stored.insert(field, image.value(field));
    }
    stored.insert(QStringLiteral("Uri"), origin() + QStringLiteral("/files/") + id + QStringLiteral(".png"));
    thread.insert(QStringLiteral("Image"), stored);
}

QString FakeService::nextTimestamp()
{
    m_lastTimestampMs = std::max(QDateTime::currentMSecsSinceEpoch(), m_lastTimestampMs + 1);
    return QDateTime::fromMSecsSinceEpoch(m_lastTimestampMs, Qt::UTC)
               .toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss.zzz")) +
           QStringLiteral("+0000");
}

QString FakeService::nextId()
{
    // Like a database object id: seconds, then a per-service counter, so ids never repeat within one service.
    const quint32 seconds = quint32(QDateTime::currentSecsSinceEpoch());
    const quint64 counter = ++m_idCounter;
    return QStringLiteral("%1%2").arg(seconds, 8, 16, QLatin1Char('0')).arg(counter, 16, 16, QLatin1Char('0'));
}
