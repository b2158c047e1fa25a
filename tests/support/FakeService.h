#pragma once

// What a real service cannot play: an HTTPS server on 127.0.0.1 that answers with canned
// answers (errors on demand, garbage, stalls, delays, drips, redirects) or an untrusted
// certificate, and records every request. Anything not canned gets a plain 404 error. It
// runs on the thread that created it; clients talk to it from other threads.

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QMetaType>
#include <QMutex>
#include <QMutexLocker>
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
    // The first value of a header (names in any case); present but empty is "", absent is null.
    QByteArray header(const QByteArray &name) const;
    bool hasHeader(const QByteArray &name) const { return !header(name).isNull(); }
};
Q_DECLARE_METATYPE(RecordedRequest)

// Requests as they arrived, recorded on one thread and read on another.
class RequestLog
{
public:
    QList<RecordedRequest> requests() const
    {
        QMutexLocker locker(&m_logMutex);
        return m_requests;
    }
    void clearRequests()
    {
        QMutexLocker locker(&m_logMutex);
        m_requests.clear();
    }

protected:
    void record(const RecordedRequest &request)
    {
        QMutexLocker locker(&m_logMutex);
        m_requests.append(request);
    }

private:
    mutable QMutex m_logMutex;
    QList<RecordedRequest> m_requests;
};

class FakeService : public QObject, public RequestLog
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

    struct Answer
    {
        int status = 200;
        QByteArray body;
        QByteArray contentType = "application/json";
        int delayMs = 0;
        bool neverAnswer = false;
        QList<QPair<QByteArray, QByteArray>> headers; // sent after the generated ones
        QByteArray raw;                               // when set, written as it stands instead of a generated answer
        int dripMs = 0;                               // the body goes out one byte per interval
        bool closeAfter = false;                      // the connection is closed once the answer is written
    };
    // The pattern is searched for anywhere in the raw target; anchor it with ^ and $ to match all of it.
    // The newest matching answer is used, `times` times (-1: for ever).
    void answer(const QByteArray &method, const QString &targetPattern, const Answer &answer, int times = -1);
    void clearAnswers();

signals:
    void requestReceived(const RecordedRequest &request);

private:
    struct Connection
    {
        QByteArray buffer;
        bool busy = false;
        bool silent = false;
        bool closeAfterReply = false;
    };
    struct CannedAnswer
    {
        QByteArray method;
        QRegularExpression pattern;
        Answer answer;
        int remaining = -1;
    };

    void readRequests(QSslSocket *socket);
    void handle(QSslSocket *socket, const RecordedRequest &request);
    void send(QSslSocket *socket, const Answer &reply);
    void finishReply(QSslSocket *socket);
    bool takeCannedAnswer(const RecordedRequest &request, Answer *answer);

    Certificate m_certificate;
    QSslServer *m_server = nullptr;
    QHash<QSslSocket *, std::shared_ptr<Connection>> m_connections;

    QMutex m_mutex;
    QList<CannedAnswer> m_answers;
};
