#pragma once

#include "../kit/QKView.h"
#include "QKFeedbackPoint.h"

/// The transparent overlay over the scaled screenshot that holds the markers: it finds
/// or creates the marker under a tap, maps between item space (the screenshot at
/// originalImageSize) and its own bounds, and draws every marker, later ones on top.
/// Main thread only.
class MURMORA_EXPORT QKFeedbackSurfaceView : public QKView
{
    Q_OBJECT
public:
    explicit QKFeedbackSurfaceView(const QRectF &frame = QRectF(), QWidget *parent = nullptr);
    ~QKFeedbackSurfaceView() override;

    /// In the order they were made.
    const QList<QKFeedbackPointPtr> &feedbackPoints() const { return m_feedbackPoints; }
    void setFeedbackPoints(const QList<QKFeedbackPointPtr> &points);
    /// Set before any mapping or hit test; the mappings divide by it unguarded.
    QSizeF originalImageSize() const { return m_originalImageSize; }
    void setOriginalImageSize(const QSizeF &size) { m_originalImageSize = size; }

    /// The newest marker whose hit box holds `point` (surface space), else a new one
    /// made there and appended. Never null.
    QKFeedbackPointPtr feedbackAtPoint(const QPointF &point);
    /// Acts as feedbackAtPoint of the marker's location taken as a surface point:
    /// `point` itself is never appended.
    void addFeedback(const QKFeedbackPointPtr &point);
    /// Removes every entry that is `point`; redraws only when there was one.
    void removeFeedback(const QKFeedbackPointPtr &point);

    QPointF itemPointToSurfacePoint(const QPointF &point) const;
    QPointF surfacePointToItemPoint(const QPointF &point) const;
    /// The marker's location in surface space; (0, 0) for null.
    QPointF locationOfItem(const QKFeedbackPointPtr &point) const;

    void drawRect(QPainter &painter, const QRectF &rect) override;

signals:
    /// Emitted each time the list changed and a redraw was asked for.
    void redrawRequested();

private:
    void requestRedraw();

    QList<QKFeedbackPointPtr> m_feedbackPoints;
    QSizeF m_originalImageSize;
};
