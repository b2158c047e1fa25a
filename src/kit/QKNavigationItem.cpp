#include "QKNavigationItem.h"

void QKNavigationItem::setTitle(const QString &title)
{
    m_title = title;
    emit changed();
}

void QKNavigationItem::adopt(QKBarButtonItem *item)
{
    if (!item)
        return;
    item->setParent(this);
    connect(item, &QKBarButtonItem::changed, this, &QKNavigationItem::changed, Qt::UniqueConnection);
}

void QKNavigationItem::setLeftBarButtonItem(QKBarButtonItem *item)
{
    if (m_left && m_left != item && m_left != m_right)
        m_left->deleteLater();
    m_left = item;
    adopt(item);
    emit changed();
}

void QKNavigationItem::setRightBarButtonItem(QKBarButtonItem *item)
{
    if (m_right && m_right != item && m_right != m_left)
        m_right->deleteLater();
    m_right = item;
    adopt(item);
    emit changed();
}
