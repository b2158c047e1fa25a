#pragma once

// Webhooks: an administrator gives an application URLs, and each new feedback item, each comment
// from a device and each change of state is POSTed to them, signed with the webhook's secret.
//
// A change queues one row in `deliveries` per webhook, in the store, so a delivery outlives a
// restart and any of several processes sharing one PostgreSQL may send it; each process claims a
// row before sending it. One sender thread per object sends them one at a time and retries with
// back-off. The store is not owned and must outlive this object. Every member may be called from
// any thread.

#include <QJsonObject>
#include <QString>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

class QKServiceStore;
struct QKServiceEvent;

struct QKWebhookOptions
{
    qint64 firstRetryMs = 30000; // the first retry's delay; doubles each time, at most an hour
    int attempts = 8;            // in all, then the delivery is "failed"
    int timeoutMs = 10000;       // per POST, connect included
};

class QKWebhooks
{
public:
    QKWebhooks(QKServiceStore *store, const QKWebhookOptions &options);
    ~QKWebhooks();
    QKWebhooks(const QKWebhooks &) = delete;
    QKWebhooks &operator=(const QKWebhooks &) = delete;

    // Starts the sender thread, which also sends what a previous run left pending.
    void start();
    // Wakes the sender, aborts a POST in flight (within about a second) and joins it. An aborted
    // delivery stays pending and counts no attempt.
    void stop();

    // Queues a delivery per webhook of the event's application for a new item, a comment from a
    // device or a change of state, with the payload read now. Throws nothing: the change is
    // stored already, so a failure of the store is logged.
    void publish(const QKServiceEvent &event);

    // A new webhook, {"id","url","createdAt","secret"}: the only time the secret is given out.
    // Throws std::invalid_argument, with a message for people, when `url` is not http(s)://host….
    QJsonObject add(qint64 appId, const QString &url);
    // The application of a webhook; nullopt when there is no such webhook.
    std::optional<qint64> appOf(qint64 webhookId);
    // Deletes a webhook with its deliveries; false when there was none.
    bool remove(qint64 webhookId);
    // {"webhooks":[…],"deliveries":[…]}: the application's webhooks without their secrets, and
    // their 50 newest deliveries, newest first.
    QJsonObject list(qint64 appId);

private:
    struct Delivery;
    void run();
    std::optional<Delivery> nextDelivery();
    void send(const Delivery &delivery);

    QKServiceStore *m_store;
    QKWebhookOptions m_options;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_woken = false;
    std::atomic<bool> m_stopping = false;
    std::thread m_thread;
};
