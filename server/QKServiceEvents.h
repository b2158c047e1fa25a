#pragma once

// What happened to a thread, told to whoever listens: the dashboard's open pages (server-sent
// events) and the webhooks. Published on the thread that stored the change, after it is
// stored; an event names the thread, listeners read what else they need.

#include <QString>

#include <functional>
#include <list>
#include <shared_mutex>

struct QKServiceEvent
{
    enum class Kind { Created, Comment, State, Deleted };
    Kind kind = Kind::Created;
    qint64 appId = 0;
    QString threadId;       // the feedback item
    QString commentId;      // Comment only
    bool fromDevice = true; // false for what a member did in the dashboard

    // "created", "comment", "state" or "deleted".
    const char *kindName() const;
};

class QKServiceEvents
{
public:
    using Listener = std::function<void(const QKServiceEvent &)>;
    using Subscription = std::list<Listener>::iterator;

    // Listeners run on the publisher's thread, one after the other, several publishers at
    // once; (un)subscribing waits for the publishers in progress.
    Subscription subscribe(Listener listener);
    void unsubscribe(Subscription subscription);
    void publish(const QKServiceEvent &event);

private:
    std::shared_mutex m_mutex;
    std::list<Listener> m_listeners;
};
