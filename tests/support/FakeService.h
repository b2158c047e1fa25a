#pragma once

// What a real service cannot play: an HTTPS server on 127.0.0.1 that answers with canned
// answers (errors on demand, garbage, stalls, drops, oversized bodies, redirects) or an
// untrusted certificate, and records every request. Anything not canned gets a plain
// 404 error. It runs on the thread that created it; clients talk to it from other threads.

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QMetaType>
#include <QMutex>
#include <QObject>
#include <QPair>
#include <QRegularExpression>
#include <QSslCertificate>
#include <QString>

#include <memory>

class QSslServer;
class QSslSocket;

struct RecordedRequest
{
    QByteArray method;
    QByteArray target;
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;
    // Repeated headers are joined with ", ", as HTTP defines.
    QByteArray header(const QByteArray &name) const;
    bool hasHeader(const QByteArray &name) const;
};
Q_DECLARE_METATYPE(RecordedRequest)

class FakeService : public QObject
{
    Q_OBJECT
public:
    enum class Certificate { Trusted, Untrusted };
    explicit FakeService(Certificate certificate = Certificate::Trusted, QObject *parent = nullptr);
    ~FakeService() override;
    bool listen();
    quint16 port() const;
    QString origin() const;
    QString baseUrl() const;
    static QString certsDirectory();
    static QList<QSslCertificate> caCertificates();

    QList<RecordedRequest> requests() const;
    void clearRequests();

    struct Answer
    {
        int status = 200;
        QByteArray body;
        QByteArray contentType = "application/json";
        int delayMs = 0;
        bool dropConnection = false;
        bool neverAnswer = false;
        qint64 bodyBytes = -1;
        QList<QPair<QByteArray, QByteArray>> headers; // sent after the generated ones
        QByteArray raw;                               // when set, written as it stands instead of a generated answer
        int dripMs = 0;                               // the body (or all of `raw`) goes out one byte per interval
        bool closeAfter = false;                      // the connection is closed once the answer is written
    };
    // The pattern is searched for anywhere in the raw target; anchor it with ^ and $ to match all of it.
    void answer(const QByteArray &method, const QString &targetPattern, const Answer &answer, int times = -1);
    void clearAnswers();

signals:
    void requestReceived(const RecordedRequest &request);

private:
    struct Connection;
    struct CannedAnswer
    {
        QByteArray method;
        QRegularExpression pattern;
        Answer answer;
        int remaining = -1;
    };

    void acceptConnections();
    void readRequests(QSslSocket *socket);
    void handle(QSslSocket *socket, RecordedRequest request);
    void send(QSslSocket *socket, const Answer &reply);
    void pumpBody(QSslSocket *socket);
    void drip(QSslSocket *socket, const QByteArray &bytes, int intervalMs);
    void finishReply(QSslSocket *socket);
    void dropConnection(QSslSocket *socket);
    bool takeCannedAnswer(const RecordedRequest &request, Answer *answer);

    Certificate m_certificate;
    QSslServer *m_server = nullptr;
    QHash<QSslSocket *, std::shared_ptr<Connection>> m_connections;

    mutable QMutex m_mutex;
    QList<RecordedRequest> m_requests;
    QList<CannedAnswer> m_answers;
};
