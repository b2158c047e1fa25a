#pragma once

#include "QKGlobalKit.h"
#include "QKNotification.h"

#include <QList>
#include <QObject>

#include <functional>
#include <memory>

/// Broadcasts named notifications to the blocks observing them, the platform's way.
/// An observation lasts until removeObserver or until its observer is destroyed;
/// after either the block is never called again. Main thread only.
class MURMORA_EXPORT QKNotificationCenter : public QObject
{
    Q_OBJECT
public:
    explicit QKNotificationCenter(QObject *parent = nullptr);
    ~QKNotificationCenter() override;

    static QKNotificationCenter *defaultCenter();

    /// Calls `block` for every notification named `name` (an empty name: for every
    /// notification) until `observer` is removed or destroyed. A null observer is ignored.
    void addObserver(QObject *observer, const QString &name, std::function<void(const QKNotification &)> block);
    void removeObserver(QObject *observer);
    void removeObserver(QObject *observer, const QString &name);

    /// Calls the blocks observing `name` now, in the order they were added. Blocks
    /// added while it runs wait for the next post; blocks removed are skipped.
    void postNotification(const QString &name, const QVariantMap &userInfo = {});
    void postNotification(const QKNotification &notification);

private:
    struct Observation;
    void forget(QObject *observer, const QString *name);

    QList<std::shared_ptr<Observation>> m_observations;
};
