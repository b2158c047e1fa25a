#include "QKNotificationCenter.h"

#include <QPointer>

#include <algorithm>

struct QKNotificationCenter::Observation
{
    QObject *key = nullptr;
    QPointer<QObject> observer;
    QString name;
    std::function<void(const QKNotification &)> block;
    bool removed = false;
};

QKNotificationCenter::QKNotificationCenter(QObject *parent) : QObject(parent)
{}

QKNotificationCenter::~QKNotificationCenter() = default;

QKNotificationCenter *QKNotificationCenter::defaultCenter()
{
    static QKNotificationCenter center;
    return &center;
}

void QKNotificationCenter::addObserver(QObject *observer, const QString &name,
                                       std::function<void(const QKNotification &)> block)
{
    if (!observer || !block)
        return;
    const bool watched = std::any_of(m_observations.cbegin(), m_observations.cend(),
                                     [observer](const auto &observation) { return observation->key == observer; });
    if (!watched)
        connect(observer, &QObject::destroyed, this, [this, observer] { forget(observer, nullptr); });
    auto observation = std::make_shared<Observation>();
    observation->key = observer;
    observation->observer = observer;
    observation->name = name;
    observation->block = std::move(block);
    m_observations.append(observation);
}

void QKNotificationCenter::removeObserver(QObject *observer)
{
    forget(observer, nullptr);
}

void QKNotificationCenter::removeObserver(QObject *observer, const QString &name)
{
    forget(observer, &name);
}

void QKNotificationCenter::forget(QObject *observer, const QString *name)
{
    bool remaining = false;
    for (auto it = m_observations.begin(); it != m_observations.end();) {
        if ((*it)->key == observer && (!name || (*it)->name == *name)) {
            // A post in progress holds its own list; the flag keeps it from calling this one.
            (*it)->removed = true;
            it = m_observations.erase(it);
        } else {
            remaining = remaining || (*it)->key == observer;
            ++it;
        }
    }
    if (!remaining && observer)
        disconnect(observer, &QObject::destroyed, this, nullptr);
}

void QKNotificationCenter::postNotification(const QString &name, const QVariantMap &userInfo)
{
    postNotification(QKNotification(name, userInfo));
}

void QKNotificationCenter::postNotification(const QKNotification &notification)
{
    const auto observations = m_observations;
    for (const auto &observation : observations) {
        if (observation->removed || !observation->observer)
            continue;
        if (observation->name.isEmpty() || observation->name == notification.name())
            observation->block(notification);
    }
}
