#include "QKFeedbackPoint.h"

#include "QKFeedbackSurfaceView.h"

#include <QPainter>

QKFeedbackPoint::QKFeedbackPoint(const QPointF &location) : m_location(location), m_size(30, 30)
{}

QRectF QKFeedbackPoint::bounds() const
{
    return QRectF(m_location.x() - m_size.width() * 0.5, m_location.y() - m_size.height() * 0.5, m_size.width(),
                  m_size.height());
}

bool QKFeedbackPoint::contains(const QPointF &point) const
{
    // QRectF::contains takes the maximum edges in; the hit box leaves them out.
    const QRectF box = bounds().adjusted(-1, -1, 1, 1);
    return point.x() >= box.left() && point.x() < box.right() && point.y() >= box.top() && point.y() < box.bottom();
}

void QKFeedbackPoint::drawInContext(QPainter &context, QKFeedbackSurfaceView *surface) const
{
    const QPointF c = surface ? surface->itemPointToSurfacePoint(m_location) : m_location;
    drawMarkerInRect(
        context, QRectF(c.x() - m_size.width() * 0.5, c.y() - m_size.height() * 0.5, m_size.width(), m_size.height()));
}

void QKFeedbackPoint::drawMarkerInRect(QPainter &painter, const QRectF &rect)
{
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor::fromRgbF(1, 0, 0, 1));
    painter.drawEllipse(rect);
    painter.setBrush(QColor::fromRgbF(1, 1, 1, 1));
    painter.drawEllipse(QRectF(rect.x() + rect.width() * 0.25, rect.y() + rect.height() * 0.25, rect.width() * 0.5,
                               rect.height() * 0.5));
    painter.restore();
}
