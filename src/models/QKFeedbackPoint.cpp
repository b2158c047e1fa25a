#include "QKFeedbackPoint.h"

#include <QPainter>
#include "QKPalette.h"

class QKFeedbackPointPrivate
{
public:
    QPointF location;
    QSizeF size;
    QString annotationText;
};

QKFeedbackPoint::QKFeedbackPoint() : d(std::make_unique<QKFeedbackPointPrivate>())
{}

QKFeedbackPoint::QKFeedbackPoint(const QPointF &location) : QKFeedbackPoint()
{
    d->location = location;
    d->size = QSizeF(30, 30);
}

QKFeedbackPoint::~QKFeedbackPoint() = default;

QPointF QKFeedbackPoint::location() const
{
    return d->location;
}
void QKFeedbackPoint::setLocation(const QPointF &location)
{
    d->location = location;
}
QSizeF QKFeedbackPoint::size() const
{
    return d->size;
}
void QKFeedbackPoint::setSize(const QSizeF &size)
{
    d->size = size;
}
QString QKFeedbackPoint::annotationText() const
{
    return d->annotationText;
}
void QKFeedbackPoint::setAnnotationText(const QString &text)
{
    d->annotationText = text;
}

QRectF QKFeedbackPoint::bounds() const
{
    return QRectF(d->location.x() - d->size.width() * 0.5, d->location.y() - d->size.height() * 0.5, d->size.width(),
                  d->size.height());
}

bool QKFeedbackPoint::contains(const QPointF &point) const
{
    // QRectF::contains takes the maximum edges in; the hit box leaves them out.
    const QRectF box = bounds().adjusted(-1, -1, 1, 1);
    return point.x() >= box.left() && point.x() < box.right() && point.y() >= box.top() && point.y() < box.bottom();
}

void QKFeedbackPoint::drawAt(QPainter &painter, const QPointF &centre) const
{
    drawMarkerInRect(painter, QRectF(centre.x() - d->size.width() * 0.5, centre.y() - d->size.height() * 0.5,
                                     d->size.width(), d->size.height()));
}

void QKFeedbackPoint::drawMarkerInRect(QPainter &painter, const QRectF &rect)
{
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QKPalette::marker());
    painter.drawEllipse(rect);
    painter.setBrush(QKPalette::markerRing());
    painter.drawEllipse(QRectF(rect.x() + rect.width() * 0.25, rect.y() + rect.height() * 0.25, rect.width() * 0.5,
                               rect.height() * 0.5));
    painter.restore();
}
