#pragma once

#include "../kit/QKGlobalKit.h"

#include <QList>
#include <QPointF>
#include <QRectF>
#include <QSharedPointer>
#include <QSizeF>
#include <QString>

class QPainter;
class QKFeedbackPoint;
class QKFeedbackSurfaceView;

using QKFeedbackPointPtr = QSharedPointer<QKFeedbackPoint>;

/// One marker on a screenshot: its centre and hit box in item space (the screenshot
/// at its original size) and the comment typed for it. Shared between the surface's
/// list and the send screen while it is edited; compared by identity. Main thread only.
class MURMORA_EXPORT QKFeedbackPoint
{
public:
    /// At (0, 0), with a zero size.
    QKFeedbackPoint() = default;
    /// At `location`, 30 × 30.
    explicit QKFeedbackPoint(const QPointF &location);

    QPointF location() const { return m_location; }
    void setLocation(const QPointF &location) { m_location = location; }
    QSizeF size() const { return m_size; }
    void setSize(const QSizeF &size) { m_size = size; }
    /// Null while no comment was typed.
    QString annotationText() const { return m_annotationText; }
    void setAnnotationText(const QString &text) { m_annotationText = text; }

    /// `size` centred on `location`.
    QRectF bounds() const;
    /// Whether `point` (item space) lies in bounds grown by 1 on every side, the
    /// minimum edges inside and the maximum ones outside.
    bool contains(const QPointF &point) const;

    /// Draws the marker, `size` unscaled, centred on the location mapped into
    /// `surface`; with a null surface, on the item-space location.
    void drawInContext(QPainter &context, QKFeedbackSurfaceView *surface) const;
    /// The marker's look: a red disc filling `rect` with a white one of half its size
    /// in the middle.
    static void drawMarkerInRect(QPainter &painter, const QRectF &rect);

private:
    QPointF m_location;
    QSizeF m_size;
    QString m_annotationText;
};
