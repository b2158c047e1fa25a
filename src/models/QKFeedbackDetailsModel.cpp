#include "QKFeedbackDetailsModel.h"

#include "../base/QKLocalizedString.h"

#include <QPointer>

class QKFeedbackDetailsModelPrivate
{
public:
    explicit QKFeedbackDetailsModelPrivate(QKFeedbackDetailsModel *model) : q(model) {}

    QKFeedbackDetailsModel *q;
    QWeakPointer<QKFeedbackItem> item;
    QWeakPointer<QKFeedbackDataSource> source;
    QPointer<QKFeedbackSendFlow> flow;
    QString pendingComment;
    bool busy = true;
    int sending = 0;
    bool released = false;

    void setBusy(bool value)
    {
        if (busy == value)
            return;
        busy = value;
        emit q->busyChanged(value);
    }

    QKFeedbackItemList comments() const
    {
        const QKFeedbackItemPtr shown = item.toStrongRef();
        return shown && shown->subItems() ? *shown->subItems() : QKFeedbackItemList();
    }
};

QKFeedbackDetailsModel::QKFeedbackDetailsModel(QObject *parent)
    : QAbstractListModel(parent), d(std::make_unique<QKFeedbackDetailsModelPrivate>(this))
{}

QKFeedbackDetailsModel::~QKFeedbackDetailsModel() = default;

int QKFeedbackDetailsModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(d->comments().size());
}

QVariant QKFeedbackDetailsModel::data(const QModelIndex &index, int role) const
{
    const QKFeedbackItemPtr shown = index.isValid() ? comment(index.row()) : QKFeedbackItemPtr();
    if (!shown)
        return QVariant();
    switch (role) {
    case KeyRole:
        return shown->key();
    case TextRole:
        return shown->text();
    case AuthorRole:
        return shown->author();
    case CreatedAtRole:
        return shown->createdAt();
    default:
        return QVariant();
    }
}

QHash<int, QByteArray> QKFeedbackDetailsModel::roleNames() const
{
    return {{KeyRole, "key"}, {TextRole, "text"}, {AuthorRole, "author"}, {CreatedAtRole, "createdAt"}};
}

QKFeedbackItemPtr QKFeedbackDetailsModel::item() const
{
    return d->item.toStrongRef();
}

void QKFeedbackDetailsModel::setItem(const QKFeedbackItemPtr &item)
{
    if (d->item == item)
        return;
    beginResetModel();
    d->item = item;
    endResetModel();
}

QKFeedbackDataSourcePtr QKFeedbackDetailsModel::dataSource() const
{
    return d->source.toStrongRef();
}
void QKFeedbackDetailsModel::setDataSource(const QKFeedbackDataSourcePtr &source)
{
    d->source = source;
}
QKFeedbackSendFlow *QKFeedbackDetailsModel::sendFlow() const
{
    return d->flow;
}
void QKFeedbackDetailsModel::setSendFlow(QKFeedbackSendFlow *flow)
{
    d->flow = flow;
}

QKFeedbackItemPtr QKFeedbackDetailsModel::comment(int row) const
{
    const QKFeedbackItemList comments = d->comments();
    return row >= 0 && row < comments.size() ? comments.at(row) : QKFeedbackItemPtr();
}

bool QKFeedbackDetailsModel::isBusy() const
{
    return d->busy;
}
QString QKFeedbackDetailsModel::pendingComment() const
{
    return d->pendingComment;
}

void QKFeedbackDetailsModel::reload()
{
    const QKFeedbackItemPtr shown = item();
    // Without its screenshot the item is not worth showing yet: stay busy.
    if (!shown || shown->image().isNull())
        return;
    d->setBusy(false);
    beginResetModel();
    endResetModel();
    emit reloaded();
}

void QKFeedbackDetailsModel::sendComment(const QString &text)
{
    const QKFeedbackDataSourcePtr source = dataSource();
    if (!source || source->userName().isEmpty()) {
        d->pendingComment = text;
        emit pendingCommentChanged();
        emit nameNeeded();
        return;
    }
    auto comment = QKFeedbackItem::create();
    comment->setText(text);
    d->setBusy(true);
    const QKFeedbackItemPtr shown = item();
    ++d->sending;
    try {
        source->addSubItemForKey(shown ? shown->key() : QString(), comment, this,
                                 [this, comment](std::optional<QKError> error) {
                                     --d->sending;
                                     // Reported even for a screen already gone; the source refused nothing else.
                                     if (error)
                                         emit commentFailed(QKLocalizedString("Network error"),
                                                            QKLocalizedString("Could not send data to server"));
                                     if (d->released) {
                                         if (d->sending == 0)
                                             deleteLater();
                                         return;
                                     }
                                     if (error)
                                         return; // still busy: kept as the screen always was
                                     const QKFeedbackItemPtr target = item();
                                     if (target && target->subItems()) {
                                         beginInsertRows(QModelIndex(), 0, 0);
                                         target->insertSubItem(comment, 0);
                                         endInsertRows();
                                     }
                                     d->setBusy(false);
                                     emit commentSent();
                                 });
    } catch (...) {
        --d->sending;
        throw;
    }
}

QString QKFeedbackDetailsModel::chooseName(QKFeedbackSendFlow::NameAction action, const QString &typedName)
{
    const QString name = QKFeedbackSendFlow::applyName(dataSource(), action, typedName);
    if (d->flow)
        d->flow->rememberName(name);
    if (action != QKFeedbackSendFlow::Back)
        sendComment(d->pendingComment);
    return name;
}

void QKFeedbackDetailsModel::deleteWhenIdle()
{
    d->released = true;
    if (d->sending == 0)
        deleteLater();
}
