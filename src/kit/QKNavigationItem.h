#pragma once

#include "QKBarButtonItem.h"

#include <QPointer>

/// What a controller shows in its navigation bar: a title and the bar button items
/// on either side. The item takes ownership of the bar button items set on it.
class MURMORA_EXPORT QKNavigationItem : public QObject
{
    Q_OBJECT
public:
    using QObject::QObject;

    /// A null title shows the controller's title.
    QString title() const { return m_title; }
    void setTitle(const QString &title);
    QKBarButtonItem *leftBarButtonItem() const { return m_left; }
    void setLeftBarButtonItem(QKBarButtonItem *item);
    QKBarButtonItem *rightBarButtonItem() const { return m_right; }
    void setRightBarButtonItem(QKBarButtonItem *item);

signals:
    void changed();

private:
    void adopt(QKBarButtonItem *item);
    QString m_title;
    QPointer<QKBarButtonItem> m_left;
    QPointer<QKBarButtonItem> m_right;
};
