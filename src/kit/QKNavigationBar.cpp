#include "QKNavigationBar.h"

#include "QKBarButtonItem.h"
#include "QKFont.h"
#include "QKNavigationItem.h"

#include <QFontMetricsF>
#include <QPainter>

namespace {

constexpr double SideMargin = 8.0;

QFont barFont(qreal size, bool bold)
{
    return bold ? QKFont::boldSystem(size) : QKFont::system(size);
}

double itemWidth(const QKBarButtonItem *item)
{
    if (!item)
        return 0;
    const QFontMetricsF metrics(barFont(17, item->style() == QKBarButtonItem::Done));
    return metrics.horizontalAdvance(item->title()) + 2 * SideMargin;
}

} // namespace

QKNavigationBar::QKNavigationBar(QWidget *parent) : QKView(QRectF(0, 0, 320, 44), parent), m_tint(0, 122, 255)
{
    setBackgroundColor(QColor(248, 248, 248));
}

void QKNavigationBar::setTranslucent(bool translucent)
{
    m_translucent = translucent;
    setBackgroundColor(translucent ? QColor(248, 248, 248, 235) : QColor(248, 248, 248));
    if (QKView *parent = superview())
        parent->setNeedsLayout();
}

void QKNavigationBar::setTintColor(const QColor &color)
{
    m_tint = color;
    update();
}

void QKNavigationBar::setItem(QKNavigationItem *item, const QString &fallbackTitle)
{
    if (m_item)
        disconnect(m_item, nullptr, this, nullptr);
    m_item = item;
    m_fallbackTitle = fallbackTitle;
    if (item)
        connect(item, &QKNavigationItem::changed, this, [this] { update(); });
    update();
}

QString QKNavigationBar::shownTitle() const
{
    return m_item && !m_item->title().isNull() ? m_item->title() : m_fallbackTitle;
}

void QKNavigationBar::setBackItem(QKBarButtonItem *item)
{
    if (m_backItem && m_backItem != item)
        m_backItem->deleteLater();
    m_backItem = item;
    if (item)
        item->setParent(this);
    update();
}

QKBarButtonItem *QKNavigationBar::leftItem() const
{
    QKBarButtonItem *own = m_item ? m_item->leftBarButtonItem() : nullptr;
    return own ? own : m_backItem.data();
}

QRectF QKNavigationBar::leftRect() const
{
    const QKBarButtonItem *item = leftItem();
    return item ? QRectF(0, 0, itemWidth(item), frame().height()) : QRectF();
}

QRectF QKNavigationBar::rightRect() const
{
    const QKBarButtonItem *item = m_item ? m_item->rightBarButtonItem() : nullptr;
    const double width = itemWidth(item);
    return item ? QRectF(frame().width() - width, 0, width, frame().height()) : QRectF();
}

QRectF QKNavigationBar::rectForItem(const QKBarButtonItem *item) const
{
    if (!item)
        return QRectF();
    if (item == leftItem())
        return leftRect();
    if (m_item && item == m_item->rightBarButtonItem())
        return rightRect();
    return QRectF();
}

QKBarButtonItem *QKNavigationBar::itemAt(const QPointF &point) const
{
    if (leftRect().contains(point))
        return leftItem();
    if (m_item && rightRect().contains(point))
        return m_item->rightBarButtonItem();
    return nullptr;
}

void QKNavigationBar::touchesEnded(const QPointF &location)
{
    if (QKBarButtonItem *item = itemAt(location))
        item->trigger();
}

void QKNavigationBar::drawRect(QPainter &painter, const QRectF &rect)
{
    painter.setPen(QPen(QColor(178, 178, 178), 0.5));
    painter.drawLine(QPointF(0, rect.height() - 0.25), QPointF(rect.width(), rect.height() - 0.25));

    const QRectF left = leftRect(), right = rightRect();
    const double side = qMax(left.width(), right.width());
    painter.setPen(Qt::black);
    painter.setFont(barFont(17, true));
    const QRectF titleRect(side, 0, qMax(0.0, rect.width() - 2 * side), rect.height());
    painter.drawText(titleRect, Qt::AlignCenter,
                     QFontMetricsF(painter.font()).elidedText(shownTitle(), Qt::ElideRight, titleRect.width()));

    for (const auto &[item, area] :
         {std::pair{leftItem(), left}, std::pair{m_item ? m_item->rightBarButtonItem() : nullptr, right}}) {
        if (!item)
            continue;
        QColor color = m_tint;
        if (!item->isEnabled())
            color = QColor(190, 190, 190);
        painter.setPen(color);
        painter.setFont(barFont(17, item->style() == QKBarButtonItem::Done));
        painter.drawText(area, Qt::AlignCenter, item->title());
    }
}
