#include "QKSegmentedControl.h"

#include "QKFont.h"
#include "QKTextMetrics.h"

#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>

#include <cmath>

QKSegmentedControl::QKSegmentedControl(const QStringList &titles, QWidget *parent)
    : QKControl(QRectF(), parent), m_titles(titles), m_font(QKFont::system(13))
{
    if (!titles.isEmpty())
        setFrame(QRectF(QPointF(0, 0), sizeThatFits(QSizeF())));
}

QKSegmentedControl::~QKSegmentedControl() = default;

void QKSegmentedControl::insertSegment(const QString &title, int index, bool)
{
    index = qBound(0, index, numberOfSegments());
    m_titles.insert(index, title);
    if (m_selected >= index)
        ++m_selected;
    update();
}

void QKSegmentedControl::removeAllSegments()
{
    m_titles.clear();
    m_selected = -1;
    update();
}

void QKSegmentedControl::setTitle(const QString &title, int index)
{
    if (index < 0 || index >= numberOfSegments())
        return;
    m_titles[index] = title;
    update();
}

void QKSegmentedControl::setSelectedSegmentIndex(int index)
{
    m_selected = (index >= 0 && index < numberOfSegments()) ? index : -1;
    update();
}

void QKSegmentedControl::setTintColor(const QColor &color)
{
    m_tintColor = color;
    update();
}

int QKSegmentedControl::segmentAt(const QPointF &point) const
{
    const QRectF bounds = this->bounds();
    if (m_titles.isEmpty() || !bounds.contains(point))
        return -1;
    return qBound(0, int(point.x() / (bounds.width() / numberOfSegments())), numberOfSegments() - 1);
}

QSizeF QKSegmentedControl::sizeThatFits(const QSizeF &) const
{
    qreal widest = 0;
    for (const QString &title : m_titles)
        widest = qMax(widest, QKTextMetrics::sizeWithFont(title, m_font).width() + 2 * 14);
    return QSizeF(std::ceil(widest) * numberOfSegments(), 29);
}

void QKSegmentedControl::drawRect(QPainter &painter, const QRectF &rect)
{
    const int count = numberOfSegments();
    if (count == 0 || rect.isEmpty())
        return;
    QColor tint = m_tintColor;
    if (!isEnabled())
        tint.setAlphaF(tint.alphaF() * 0.4);
    const qreal line = 1;
    const QRectF outline = rect.adjusted(line / 2, line / 2, -line / 2, -line / 2);
    const qreal radius = 4;
    const qreal width = rect.width() / count;

    QPainterPath shape;
    shape.addRoundedRect(outline, radius, radius);
    painter.save();
    painter.setClipPath(shape, Qt::IntersectClip);
    for (int i = 0; i < count; ++i) {
        const QRectF segment(rect.left() + i * width, rect.top(), width, rect.height());
        QColor fill;
        if (i == m_selected)
            fill = tint;
        else if (i == m_pressed && isHighlighted())
            fill = QColor(tint.red(), tint.green(), tint.blue(), int(tint.alpha() * 0.15));
        if (fill.isValid())
            painter.fillRect(segment, fill);
    }
    painter.restore();

    painter.save();
    painter.setPen(QPen(tint, line));
    painter.setBrush(Qt::NoBrush);
    painter.drawRoundedRect(outline, radius, radius);
    for (int i = 1; i < count; ++i) {
        const qreal x = rect.left() + i * width;
        painter.drawLine(QPointF(x, outline.top()), QPointF(x, outline.bottom()));
    }
    painter.restore();

    for (int i = 0; i < count; ++i) {
        const QRectF segment(rect.left() + i * width, rect.top(), width, rect.height());
        const QColor text = i == m_selected ? QColor(Qt::white) : tint;
        QKTextMetrics::drawText(painter, segment.adjusted(4, 0, -4, 0), m_titles[i], m_font, text, Qt::AlignHCenter, 1);
    }
}

void QKSegmentedControl::mousePressEvent(QMouseEvent *event)
{
    m_pressed = isEnabled() ? segmentAt(event->position()) : -1;
    QKControl::mousePressEvent(event);
}

void QKSegmentedControl::mouseMoveEvent(QMouseEvent *event)
{
    QKControl::mouseMoveEvent(event);
    // Highlight only while over the segment the press began on.
    if (m_pressed >= 0)
        setHighlighted(segmentAt(event->position()) == m_pressed);
}

void QKSegmentedControl::mouseReleaseEvent(QMouseEvent *event)
{
    const int pressed = m_pressed;
    m_pressed = -1;
    const bool selects = isEnabled() && event->button() == Qt::LeftButton && pressed >= 0 &&
                         segmentAt(event->position()) == pressed && pressed != m_selected;
    QKControl::mouseReleaseEvent(event);
    if (selects) {
        m_selected = pressed;
        update();
        sendActions(ValueChanged);
    }
}
