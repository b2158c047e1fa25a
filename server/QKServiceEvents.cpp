#include "QKServiceEvents.h"

const char *QKServiceEvent::kindName() const
{
    switch (kind) {
    case Kind::Created:
        return "created";
    case Kind::Comment:
        return "comment";
    case Kind::State:
        return "state";
    case Kind::Deleted:
        return "deleted";
    }
    return "created";
}

QKServiceEvents::Subscription QKServiceEvents::subscribe(Listener listener)
{
    std::lock_guard lock(m_mutex);
    return m_listeners.insert(m_listeners.end(), std::move(listener));
}

void QKServiceEvents::unsubscribe(Subscription subscription)
{
    std::lock_guard lock(m_mutex);
    m_listeners.erase(subscription);
}

void QKServiceEvents::publish(const QKServiceEvent &event)
{
    std::shared_lock lock(m_mutex);
    for (const Listener &listener : m_listeners)
        listener(event);
}
