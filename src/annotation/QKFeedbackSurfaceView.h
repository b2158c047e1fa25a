#pragma once

#include "../kit/QKView.h"
#include "../models/QKAnnotationModel.h"
#include "../models/QKFeedbackPoint.h"

#include <QPointer>

/// The transparent overlay over the scaled screenshot that shows the markers of an
/// annotation model: it maps between item space (the screenshot at originalImageSize)
/// and its own bounds, hands taps to the model in item space, and draws every marker,
/// later ones on top, redrawing whenever the model's list changes.
///
/// Made with a model of its own (its child); setModel shares another one, such as the
/// send screen's. Main thread only.
class MURMORA_EXPORT QKFeedbackSurfaceView : public QKView
{
    Q_OBJECT
public:
    explicit QKFeedbackSurfaceView(const QRectF &frame = QRectF(), QWidget *parent = nullptr);
    ~QKFeedbackSurfaceView() override;

    /// The model shown; never null while the surface lives.
    QKAnnotationModel *model() const;
    /// Shows `model` (not owned) instead; null goes back to the surface's own.
    void setModel(QKAnnotationModel *model);

    /// The model's markers, in the order they were made.
    QList<QKFeedbackPointPtr> feedbackPoints() const;
    void setFeedbackPoints(const QList<QKFeedbackPointPtr> &points);
    /// The model's image size. Set before any mapping or hit test; the mappings divide
    /// by it unguarded.
    QSizeF originalImageSize() const;
    void setOriginalImageSize(const QSizeF &size);

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

    QKAnnotationModel *m_ownModel = nullptr;
    QPointer<QKAnnotationModel> m_model;
};
