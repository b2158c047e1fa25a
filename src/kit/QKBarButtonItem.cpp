#include "QKBarButtonItem.h"

QKBarButtonItem::QKBarButtonItem(const QString &title, Style style, Action action, QObject *parent)
    : QObject(parent), m_title(title), m_style(style), m_action(std::move(action))
{}

void QKBarButtonItem::setTitle(const QString &title)
{
    m_title = title;
    emit changed();
}

void QKBarButtonItem::setEnabled(bool enabled)
{
    if (m_enabled == enabled)
        return;
    m_enabled = enabled;
    emit changed();
}

void QKBarButtonItem::trigger()
{
    if (m_enabled && m_action)
        m_action(this);
}
