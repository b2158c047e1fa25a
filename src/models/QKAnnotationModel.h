#pragma once

#include "../base/QKGlobal.h"
#include "../data/QKFeedbackItem.h"
#include "QKFeedbackPoint.h"

#include <QAbstractListModel>
#include <QImage>

#include <memory>

class QKAnnotationModelPrivate;

/// The markers on one screenshot and the comment being written for one of them: what
/// the send screen decides, without drawing it. Rows are the markers in the order they
/// were made; a later one is drawn above an earlier one and wins the hit test.
///
/// Everything is in item space, the screenshot at imageSize; a front end maps its taps
/// into it. A marker is kept only with a comment that is more than blanks: a tap on
/// empty picture makes one at once, and ending the edit without such a comment takes
/// it away again. A tap elsewhere while editing puts the comment back as it was.
///
/// A QObject owned by its parent (the send screen, or a QML page). Lives on one thread,
/// the main one in both front ends; it is not thread-safe.
class MURMORA_DATA_EXPORT QKAnnotationModel : public QAbstractListModel
{
    Q_OBJECT
    /// The screenshot's size in points: item space.
    Q_PROPERTY(QSizeF imageSize READ imageSize WRITE setImageSize NOTIFY imageSizeChanged)
    /// Whether a comment is being written.
    Q_PROPERTY(bool editing READ isEditing NOTIFY editingChanged)
    /// The row of the marker being edited; -1 when none is.
    Q_PROPERTY(int currentIndex READ currentIndex NOTIFY editingChanged)
    /// The edited marker's comment as it was when the edit began.
    Q_PROPERTY(QString originalText READ originalText NOTIFY editingChanged)
    /// Whether there is anything to send; settled each time an edit ends.
    Q_PROPERTY(bool canSend READ canSend NOTIFY canSendChanged)
public:
    /// The markers' fields, for views that bind to rows.
    enum Role {
        LocationRole = Qt::UserRole + 1, ///< QPointF, the centre in item space
        SizeRole,                        ///< QSizeF, the hit box
        TextRole,                        ///< QString, the comment (null while none)
    };
    Q_ENUM(Role)

    /// An empty model; `parent` owns it.
    explicit QKAnnotationModel(QObject *parent = nullptr);
    ~QKAnnotationModel() override;

    /// The number of markers; no children.
    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    /// A marker's field by Role; an invalid QVariant for anything else.
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    /// "location", "size" and "text".
    QHash<int, QByteArray> roleNames() const override;

    /// The screenshot's size in points; the item-space bounds of every marker.
    QSizeF imageSize() const;
    /// Set before the first hit test and before the items are built.
    void setImageSize(const QSizeF &size);

    /// The markers, in the order they were made.
    QList<QKFeedbackPointPtr> points() const;
    /// Replaces the markers (and resets the rows); an edit under way is left alone.
    void setPoints(const QList<QKFeedbackPointPtr> &points);
    /// The marker at `row`; null out of range.
    QKFeedbackPointPtr pointAt(int row) const;

    /// The row of the newest marker whose hit box holds `itemPoint`; -1 for none.
    Q_INVOKABLE int indexAt(const QPointF &itemPoint) const;
    /// The newest marker whose hit box holds `itemPoint`, else a new one made there
    /// (30 × 30, no comment) and appended. Never null.
    QKFeedbackPointPtr feedbackAtPoint(const QPointF &itemPoint);
    /// Removes every entry that is `point`; false (and no signal) when there was none.
    bool removePoint(const QKFeedbackPointPtr &point);

    /// Whether a comment is being written.
    bool isEditing() const;
    /// The row of the marker being edited, or -1.
    int currentIndex() const;
    /// The marker being edited; null when none is.
    QKFeedbackPointPtr currentPoint() const;
    /// The edited marker's comment as it was when the edit began.
    QString originalText() const;
    /// Whether the last ended edit left at least one marker; false at first.
    bool canSend() const;

    /// Starts writing the comment of the marker under `itemPoint`, made there when there
    /// is none. Answers its row.
    Q_INVOKABLE int beginEditing(const QPointF &itemPoint);
    /// The comment was confirmed: stores `text` as typed, then ends the edit.
    Q_INVOKABLE void finishEditing(const QString &text);
    /// Ends the edit with the comment as it stands: a marker whose comment is only
    /// blanks (or none) goes. Also settles canSend; harmless when nothing is edited.
    Q_INVOKABLE void endEditing();
    /// A tap elsewhere: puts the comment back as it was when the edit began, or takes
    /// the marker away when it had none, then ends the edit.
    Q_INVOKABLE void cancelEditing();

    /// One item per marker, in order, for sending: `screenshot` drawn at imageSize with
    /// only that marker on it, the marker's comment, state "Open" (localised), created
    /// now. No markers give an empty list.
    QKFeedbackItemList feedbackItems(const QImage &screenshot) const;
    /// The same for any markers on `screenshot` drawn at `size` (points). The items
    /// share the screenshot's compressed bands and keep only the square under their
    /// own marker, so many markers cost little more than one.
    static QKFeedbackItemList itemsForPoints(const QImage &screenshot, const QSizeF &size,
                                             const QList<QKFeedbackPointPtr> &points);

signals:
    /// imageSize changed.
    void imageSizeChanged();
    /// An edit began or ended.
    void editingChanged();
    /// canSend changed.
    void canSendChanged();
    /// A marker was added or removed, or the list replaced: what a surface redraws on
    /// (a changed comment is not drawn, so it does not count).
    void pointsChanged();

private:
    std::unique_ptr<QKAnnotationModelPrivate> d;
};
