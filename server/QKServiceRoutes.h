#pragma once

// The hosted feedback protocol, served: turns one HTTP request into one answer, with no
// HTTP library in sight, so tests and fuzzers call it directly. Thread-safe; the store
// does the locking.

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>

#include <functional>
#include <memory>

class QKServiceEvents;
struct QKServiceEvent;
class QKServiceStore;

struct QKServiceRequest
{
    QByteArray method;
    QByteArray target; // path and query, as received
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;
    QByteArray peer; // the client's address
    // The first header of that name, compared without case; null when absent.
    QByteArray header(QByteArrayView name) const;
};

// The open end of a streamed answer (server-sent events). Thread-safe.
class QKResponseStream
{
public:
    virtual ~QKResponseStream() = default;
    // Queues bytes to send after those queued before; false once the connection is gone
    // (or its reader is too far behind).
    virtual bool write(const QByteArray &bytes) = 0;
};

struct QKServiceResponse
{
    int status = 200;
    QByteArray contentType = "application/json";
    QByteArray body;
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray route; // the route template for the log: no keys, ids or device identifiers
    QByteArray note;  // what went wrong inside, for the log only
    // Set for an answer that stays open: called once its headers are sent, and the body is
    // what is written to the stream until either side closes.
    std::function<void(const std::shared_ptr<QKResponseStream> &)> stream;
};

// Every refusal the service answers, each with its own code (docs/SERVICE.md).
enum class QKServiceRefusal {
    UnreadableBody,
    InvalidFields,
    NotPNG,
    ImageTooLarge,
    InvalidFilter,
    InvalidSort,
    InvalidSkip,
    InvalidState,
    InvalidIdempotencyKey,
    NotAllowed,
    UnknownApplication,
    NoSuchThread,
    NotFound,
    MethodNotAllowed,
    BodyTooLarge,
    HeadersTooLarge,
    Busy,
    StoreFailed,
};

class QKServiceRoutes
{
public:
    static constexpr int PageSize = 20;
    static constexpr int MaxComments = 1000;
    static constexpr int MaxImageSide = 16384;
    static constexpr qint64 MaxSkip = 1000000000;

    // `publicUrl` is what clients reach the service at (scheme, host, port, no trailing
    // slash); screenshot addresses start with it. The store and `events` (told of each stored
    // change; may be null) outlive the routes.
    QKServiceRoutes(QKServiceStore *store, const QString &publicUrl, QKServiceEvents *events = nullptr);

    QKServiceResponse handle(const QKServiceRequest &request) const;

    static QKServiceResponse refusal(QKServiceRefusal refusal, const QString &detail = {});
    static int code(QKServiceRefusal refusal);

private:
    QKServiceResponse postThread(qint64 appId, const QKServiceRequest &request) const;
    QKServiceResponse listThreads(qint64 appId, const QKServiceRequest &request) const;
    QKServiceResponse updateThreads(qint64 appId, const QKServiceRequest &request) const;
    QKServiceResponse postComment(qint64 appId, const QString &threadId, const QKServiceRequest &request) const;
    QKServiceResponse deleteThread(qint64 appId, const QString &threadId) const;
    QKServiceResponse image(const QString &imageId) const;

    void publish(const QKServiceEvent &event) const;

    QKServiceStore *m_store;
    QString m_imageBase;
    QKServiceEvents *m_events;
};
