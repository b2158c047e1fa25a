#pragma once

#include "../base/QKGlobal.h"

#include <QPointF>
#include <QRectF>
#include <QSharedPointer>
#include <QSizeF>
#include <QString>

#include <memory>

class QPainter;
class QKFeedbackPoint;
class QKFeedbackPointPrivate;

/// How markers are held: the annotation model's list and the screen editing one share it.
using QKFeedbackPointPtr = QSharedPointer<QKFeedbackPoint>;

/// One marker on a screenshot: its centre and hit box in item space (the screenshot
/// at its original size) and the comment typed for it.
///
/// Shared through QKFeedbackPointPtr and compared by identity, never copied. Not
/// thread-safe: touch it on the thread of the model that holds it.
class MURMORA_DATA_EXPORT QKFeedbackPoint
{
public:
    /// At (0, 0), with a zero size and no comment.
    QKFeedbackPoint();
    /// At `location`, 30 × 30, with no comment.
    explicit QKFeedbackPoint(const QPointF &location);
    ~QKFeedbackPoint();
    Q_DISABLE_COPY_MOVE(QKFeedbackPoint)

    /// The marker's centre, in item space.
    QPointF location() const;
    /// Moves the marker.
    void setLocation(const QPointF &location);
    /// The hit box's size, in item space.
    QSizeF size() const;
    /// Sets the hit box's size; the drawn marker takes it unscaled.
    void setSize(const QSizeF &size);
    /// The comment; a null string while none was typed.
    QString annotationText() const;
    /// Sets the comment as typed, blanks and all.
    void setAnnotationText(const QString &text);

    /// `size` centred on `location`.
    QRectF bounds() const;
    /// Whether `point` (item space) lies in bounds grown by 1 on every side, the
    /// minimum edges inside and the maximum ones outside.
    bool contains(const QPointF &point) const;

    /// Draws the marker, `size` unscaled, centred on `centre` in `painter`'s space: a
    /// surface passes the location mapped into its bounds, an item's picture the
    /// location itself.
    void drawAt(QPainter &painter, const QPointF &centre) const;
    /// The marker's look: a red disc filling `rect` with a white one of half its size
    /// in the middle, antialiased, nothing stroked.
    static void drawMarkerInRect(QPainter &painter, const QRectF &rect);

private:
    std::unique_ptr<QKFeedbackPointPrivate> d;
};
