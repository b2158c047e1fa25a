#pragma once

#include "../kit/QKView.h"

/// A stand-alone marker with the surface's look, drawn into the rectangle it is
/// handed on a clear background.
class MURMORA_EXPORT QKFeedbackMarker : public QKView
{
    Q_OBJECT
public:
    explicit QKFeedbackMarker(const QRectF &frame = QRectF(), QWidget *parent = nullptr);
    ~QKFeedbackMarker() override;

    // Stored for hosts; the library itself does not read them.
    QPointF aspect() const { return m_aspect; }
    void setAspect(const QPointF &aspect) { m_aspect = aspect; }
    QPointF aspectPoint() const { return m_aspectPoint; }
    void setAspectPoint(const QPointF &point) { m_aspectPoint = point; }
    bool moved() const { return m_moved; }
    void setMoved(bool moved) { m_moved = moved; }

    void drawRect(QPainter &painter, const QRectF &rect) override;

private:
    QPointF m_aspect;
    QPointF m_aspectPoint;
    bool m_moved = false;
};
