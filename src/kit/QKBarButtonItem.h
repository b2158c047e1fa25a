#pragma once

#include "QKGlobalKit.h"

#include <QObject>
#include <QString>

#include <functional>

/// A text button of a navigation bar: a title, a style (done is bold), an enabled
/// state and an action. Owned by the navigation item that shows it (Qt parent).
class MURMORA_EXPORT QKBarButtonItem : public QObject
{
    Q_OBJECT
public:
    enum Style { Plain = 0, Bordered = 1, Done = 2 };
    using Action = std::function<void(QKBarButtonItem *sender)>;

    QKBarButtonItem(const QString &title, Style style, Action action, QObject *parent = nullptr);

    QString title() const { return m_title; }
    void setTitle(const QString &title);
    Style style() const { return m_style; }
    bool isEnabled() const { return m_enabled; }
    void setEnabled(bool enabled);
    /// What a tap does: runs the action when enabled.
    void trigger();

signals:
    void changed();

private:
    QString m_title;
    Style m_style;
    Action m_action;
    bool m_enabled = true;
};
