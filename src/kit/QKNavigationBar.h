#pragma once

#include "QKView.h"

#include <QPointer>

class QKNavigationItem;
class QKBarButtonItem;

/// The bar of a navigation controller: the title centred in bold, text-only bar
/// buttons at the sides (a done item bold) in the tint colour, a hairline below.
class MURMORA_EXPORT QKNavigationBar : public QKView
{
    Q_OBJECT
public:
    explicit QKNavigationBar(QWidget *parent = nullptr);

    bool isTranslucent() const { return m_translucent; }
    void setTranslucent(bool translucent);
    /// The colour of the bar button titles (the system blue by default).
    QColor tintColor() const { return m_tint; }
    void setTintColor(const QColor &color);

    /// The item shown, and the title to fall back to when the item has none.
    void setItem(QKNavigationItem *item, const QString &fallbackTitle);
    /// The back button shown on the left when the item has no left button of its own
    /// (null: none). The bar takes ownership.
    void setBackItem(QKBarButtonItem *item);
    QKBarButtonItem *backItem() const { return m_backItem; }
    /// The button on the left: the item's own, else the back button.
    QKBarButtonItem *leftItem() const;
    QString shownTitle() const;
    /// The bar button item at `x` (bar coordinates), for taps; null when none.
    QKBarButtonItem *itemAt(const QPointF &point) const;
    /// Where a bar button item is drawn (empty when not shown).
    QRectF rectForItem(const QKBarButtonItem *item) const;

    void drawRect(QPainter &painter, const QRectF &rect) override;
    void touchesEnded(const QPointF &location) override;

private:
    QRectF leftRect() const;
    QRectF rightRect() const;
    QPointer<QKNavigationItem> m_item;
    QString m_fallbackTitle;
    QPointer<QKBarButtonItem> m_backItem;
    bool m_translucent = false;
    QColor m_tint;
};
