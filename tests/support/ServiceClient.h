#pragma once

// A blocking HTTPS client for the service's tests: raw requests, so that a test says
// exactly what goes on the wire, and answers read whole or up to the connection's end.
// Also PNG chunks made by hand, and the process's memory figures for tests of bombs.

#include "support/FakeService.h"

#include <QDataStream>
#include <QDeadlineTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSslConfiguration>
#include <QSslSocket>

#include <libdeflate.h>

#include <memory>

struct Reply
{
    int status = 0;
    QByteArray head;
    QByteArray body;
    QJsonValue json() const
    {
        return QJsonDocument::fromJson(body).isArray() ? QJsonValue(QJsonDocument::fromJson(body).array())
                                                       : QJsonValue(QJsonDocument::fromJson(body).object());
    }
    int code() const { return QJsonDocument::fromJson(body).object().value(QStringLiteral("code")).toInt(); }
};

inline std::unique_ptr<QSslSocket> connectTo(quint16 port)
{
    auto socket = std::make_unique<QSslSocket>();
    QSslConfiguration tls = socket->sslConfiguration();
    tls.setCaCertificates(FakeService::caCertificates());
    socket->setSslConfiguration(tls);
    socket->connectToHostEncrypted(QStringLiteral("127.0.0.1"), port);
    if (!socket->waitForEncrypted(5000))
        return nullptr;
    return socket;
}

// Reads one answer; a connection the service closes ends it too.
inline Reply readReply(QSslSocket &socket, int timeoutMs = 5000)
{
    QByteArray data;
    QDeadlineTimer deadline(timeoutMs);
    Reply reply;
    while (!deadline.hasExpired()) {
        const qsizetype end = data.indexOf("\r\n\r\n");
        if (end >= 0) {
            reply.head = data.left(end);
            reply.status = data.mid(9, 3).toInt();
            const qsizetype at = reply.head.toLower().indexOf("content-length: ");
            const qsizetype length = at < 0 ? 0 : reply.head.mid(at + 16).split('\r').first().toLongLong();
            if (data.size() >= end + 4 + length) {
                reply.body = data.mid(end + 4, length);
                return reply;
            }
        }
        if (socket.state() != QAbstractSocket::ConnectedState && socket.bytesAvailable() == 0)
            break;
        if (socket.bytesAvailable() || socket.waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime()))))
            data += socket.readAll();
    }
    return reply;
}

inline QByteArray requestText(const QByteArray &method, const QByteArray &target, const QList<QByteArray> &headers,
                              const QByteArray &body)
{
    QByteArray raw = method + ' ' + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
    for (const QByteArray &h : headers)
        raw += h + "\r\n";
    if (!body.isNull())
        raw += "Content-Length: " + QByteArray::number(body.size()) + "\r\n";
    return raw + "\r\n" + body;
}

inline QByteArray chunk(const char *type, const QByteArray &data)
{
    QByteArray out;
    QDataStream(&out, QIODevice::WriteOnly) << quint32(data.size());
    const QByteArray typed = QByteArray(type) + data;
    const quint32 crc = quint32(libdeflate_crc32(0, typed.constData(), size_t(typed.size())));
    QByteArray tail;
    QDataStream(&tail, QIODevice::WriteOnly) << crc;
    return out + typed + tail;
}

// A PNG signature and header of the given size, without pixels: all the service checks.
inline QByteArray pngHeader(quint32 width, quint32 height)
{
    QByteArray ihdr;
    QDataStream s(&ihdr, QIODevice::WriteOnly);
    s << width << height << quint8(8) << quint8(2) << quint8(0) << quint8(0) << quint8(0);
    return QByteArray("\x89PNG\r\n\x1a\n", 8) + chunk("IHDR", ihdr) + chunk("IEND", {});
}

// A figure of /proc/self/status in KiB: "VmRSS:" now, "VmHWM:" the peak since resetPeakMemory().
inline qint64 statusKiB(const char *field)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n'))
        if (line.startsWith(field))
            return line.mid(qstrlen(field)).trimmed().split(' ').value(0).toLongLong();
    return -1;
}

inline bool resetPeakMemory()
{
    QFile clear(QStringLiteral("/proc/self/clear_refs"));
    return clear.open(QIODevice::WriteOnly) && clear.write("5") == 1;
}
