#include "QKAnnotationModel.h"

#include "../base/QKLocalizedString.h"
#include "../base/QKPNGCodec.h"
#include "../base/QKWhitespace.h"

#include <QPainter>
#include <QtMath>

class QKAnnotationModelPrivate
{
public:
    QList<QKFeedbackPointPtr> points;
    QSizeF imageSize;
    QKFeedbackPointPtr current;
    QString originalText;
    bool canSend = false;
};

QKAnnotationModel::QKAnnotationModel(QObject *parent)
    : QAbstractListModel(parent), d(std::make_unique<QKAnnotationModelPrivate>())
{}

QKAnnotationModel::~QKAnnotationModel() = default;

int QKAnnotationModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(d->points.size());
}

QVariant QKAnnotationModel::data(const QModelIndex &index, int role) const
{
    const QKFeedbackPointPtr point = index.isValid() ? pointAt(index.row()) : QKFeedbackPointPtr();
    if (!point)
        return QVariant();
    switch (role) {
    case LocationRole:
        return point->location();
    case SizeRole:
        return point->size();
    case TextRole:
        return point->annotationText();
    default:
        return QVariant();
    }
}

QHash<int, QByteArray> QKAnnotationModel::roleNames() const
{
    return {{LocationRole, "location"}, {SizeRole, "size"}, {TextRole, "text"}};
}

QSizeF QKAnnotationModel::imageSize() const
{
    return d->imageSize;
}

void QKAnnotationModel::setImageSize(const QSizeF &size)
{
    if (d->imageSize == size)
        return;
    d->imageSize = size;
    emit imageSizeChanged();
}

QList<QKFeedbackPointPtr> QKAnnotationModel::points() const
{
    return d->points;
}

void QKAnnotationModel::setPoints(const QList<QKFeedbackPointPtr> &points)
{
    beginResetModel();
    d->points = points;
    endResetModel();
    emit pointsChanged();
}

QKFeedbackPointPtr QKAnnotationModel::pointAt(int row) const
{
    return row >= 0 && row < d->points.size() ? d->points.at(row) : QKFeedbackPointPtr();
}

int QKAnnotationModel::indexAt(const QPointF &itemPoint) const
{
    // Newest first: where markers overlap, the one drawn on top wins.
    for (qsizetype i = d->points.size() - 1; i >= 0; --i)
        if (d->points.at(i)->contains(itemPoint))
            return int(i);
    return -1;
}

QKFeedbackPointPtr QKAnnotationModel::feedbackAtPoint(const QPointF &itemPoint)
{
    if (const int found = indexAt(itemPoint); found >= 0)
        return d->points.at(found);
    auto created = QKFeedbackPointPtr::create(itemPoint);
    const int row = int(d->points.size());
    beginInsertRows(QModelIndex(), row, row);
    d->points.append(created);
    endInsertRows();
    emit pointsChanged();
    return created;
}

bool QKAnnotationModel::removePoint(const QKFeedbackPointPtr &point)
{
    bool removed = false;
    for (qsizetype i = d->points.size() - 1; i >= 0; --i) {
        if (d->points.at(i) != point)
            continue;
        beginRemoveRows(QModelIndex(), int(i), int(i));
        d->points.removeAt(i);
        endRemoveRows();
        removed = true;
    }
    if (removed)
        emit pointsChanged();
    return removed;
}

bool QKAnnotationModel::isEditing() const
{
    return !d->current.isNull();
}
int QKAnnotationModel::currentIndex() const
{
    return d->current ? int(d->points.indexOf(d->current)) : -1;
}
QKFeedbackPointPtr QKAnnotationModel::currentPoint() const
{
    return d->current;
}
QString QKAnnotationModel::originalText() const
{
    return d->originalText;
}
bool QKAnnotationModel::canSend() const
{
    return d->canSend;
}

int QKAnnotationModel::beginEditing(const QPointF &itemPoint)
{
    d->current = feedbackAtPoint(itemPoint);
    d->originalText = d->current->annotationText();
    emit editingChanged();
    return currentIndex();
}

void QKAnnotationModel::finishEditing(const QString &text)
{
    if (d->current) {
        d->current->setAnnotationText(text);
        const QModelIndex row = index(currentIndex());
        emit dataChanged(row, row, {TextRole});
    }
    endEditing();
}

void QKAnnotationModel::endEditing()
{
    if (d->current && QKTrimmedWhitespace(d->current->annotationText()).isEmpty())
        removePoint(d->current);
    if (d->current) {
        d->current.clear();
        emit editingChanged();
    }
    const bool canSend = !d->points.isEmpty();
    if (canSend != d->canSend) {
        d->canSend = canSend;
        emit canSendChanged();
    }
}

void QKAnnotationModel::cancelEditing()
{
    if (const QKFeedbackPointPtr point = std::exchange(d->current, {})) {
        if (!d->originalText.isEmpty()) {
            point->setAnnotationText(d->originalText);
            const QModelIndex row = index(int(d->points.indexOf(point)));
            emit dataChanged(row, row, {TextRole});
        } else {
            removePoint(point);
        }
        emit editingChanged();
    }
    endEditing();
}

QKFeedbackItemList QKAnnotationModel::feedbackItems(const QImage &screenshot) const
{
    return itemsForPoints(screenshot, d->imageSize, d->points);
}

QKFeedbackItemList QKAnnotationModel::itemsForPoints(const QImage &screenshot, const QSizeF &size,
                                                     const QList<QKFeedbackPointPtr> &points)
{
    QKFeedbackItemList items;
    if (points.isEmpty())
        return items;
    // Every item's picture is the screenshot drawn into a canvas of the item's size
    // with its own marker on top. The canvas is drawn once and shared: each item
    // keeps only the square under its marker, and the PNGs share the rest.
    const qreal ratio = screenshot.devicePixelRatio();
    QImage canvas(QSize(qCeil(size.width() * ratio), qCeil(size.height() * ratio)),
                  QImage::Format_ARGB32_Premultiplied);
    canvas.setDevicePixelRatio(ratio);
    canvas.fill(Qt::transparent);
    {
        QPainter painter(&canvas);
        painter.setRenderHint(QPainter::SmoothPixmapTransform);
        painter.drawImage(QRectF(QPointF(0, 0), size), screenshot);
    }
    const QKPNGBands base(canvas);
    for (const QKFeedbackPointPtr &point : points) {
        auto item = QKFeedbackItem::create();
        item->setState(QKLocalizedString("Open"));
        item->setCreatedAt(QDateTime::currentDateTimeUtc());
        item->setText(point->annotationText());

        const QRectF marker(point->location() - QPointF(point->size().width(), point->size().height()) * 0.5,
                            point->size());
        // A pixel more on each side for the antialiased edge.
        const QRect area =
            QRectF(marker.topLeft() * ratio, marker.size() * ratio).toAlignedRect().adjusted(-2, -2, 2, 2) &
            canvas.rect();
        QImage patch = canvas.copy(area);
        patch.setDevicePixelRatio(1.0);
        if (!area.isEmpty()) {
            // The canvas's own device transform, moved so the patch's corner is the origin.
            QPainter painter(&patch);
            painter.setTransform(QTransform(ratio, 0, 0, ratio, -area.x(), -area.y()));
            point->drawAt(painter, point->location());
        }
        item->setImage(base, patch, area.topLeft());
        items.append(item);
    }
    return items;
}
