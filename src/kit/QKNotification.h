#pragma once

#include <QString>
#include <QVariantMap>

/// What an observer of a QKNotificationCenter is handed: a name and what came with it.
class QKNotification
{
public:
    QKNotification() = default;
    explicit QKNotification(const QString &name, const QVariantMap &userInfo = {}) : m_name(name), m_userInfo(userInfo)
    {}

    QString name() const { return m_name; }
    QVariantMap userInfo() const { return m_userInfo; }

private:
    QString m_name;
    QVariantMap m_userInfo;
};
