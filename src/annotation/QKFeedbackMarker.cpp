#include "QKFeedbackMarker.h"

#include "../models/QKFeedbackPoint.h"

QKFeedbackMarker::QKFeedbackMarker(const QRectF &frame, QWidget *parent) : QKView(frame, parent)
{
    setBackgroundColor(Qt::transparent);
}

QKFeedbackMarker::~QKFeedbackMarker() = default;

void QKFeedbackMarker::drawRect(QPainter &painter, const QRectF &rect)
{
    QKFeedbackPoint::drawMarkerInRect(painter, rect);
}
