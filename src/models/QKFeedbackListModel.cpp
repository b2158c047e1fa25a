#include "QKFeedbackListModel.h"

#include "../base/QKLocalizedString.h"
#include "../data/QKLocalFeedbackSource.h"
#include "QKFeedbackDetailsModel.h"

#include <QPointer>
#include <QRegularExpression>

#include <cmath>

class QKFeedbackListModelPrivate
{
public:
    explicit QKFeedbackListModelPrivate(QKFeedbackListModel *model) : q(model) {}

    QKFeedbackListModel *q;
    QKFeedbackDataSourcePtr source;
    QKFeedbackItemList items;
    QKFeedbackListModel::Filter filter = QKFeedbackListModel::Open;
    bool showIndicator = false;
    bool loading = false;
    bool listVisible = false;
    bool emptyMessageVisible = false;

    // Sets a flag and tells its change signal, if it changed.
    void set(bool &flag, bool value, void (QKFeedbackListModel::*changed)())
    {
        if (flag == value)
            return;
        flag = value;
        emit(q->*changed)();
    }

    void append(const std::optional<QKFeedbackItemList> &page)
    {
        if (!page || page->isEmpty())
            return;
        const int first = int(items.size());
        q->beginInsertRows(QModelIndex(), first, first + int(page->size()) - 1);
        items.append(*page);
        q->endInsertRows();
    }

    void changed(const QKFeedbackItemPtr &item, int role)
    {
        const qsizetype row = items.indexOf(item);
        if (row < 0)
            return;
        const QModelIndex index = q->index(int(row));
        emit q->dataChanged(index, index, {role});
    }
};

// The platform's integer value of a number or text: fractions cut off, a text read
// up to its first non-digit, anything else 0.
static qint64 integerValue(const QVariant &value)
{
    if (value.typeId() == QMetaType::QString) {
        static const QRegularExpression leading(QStringLiteral("^\\s*[+-]?\\d+"));
        const QRegularExpressionMatch match = leading.match(value.toString());
        return match.hasMatch() ? match.captured().trimmed().toLongLong() : 0;
    }
    bool ok = false;
    const double number = value.toDouble(&ok);
    if (!ok || !(std::fabs(number) < 9.2e18))
        return 0;
    return qint64(std::trunc(number));
}

QKFeedbackListModel::QKFeedbackListModel(QObject *parent)
    : QAbstractListModel(parent), d(std::make_unique<QKFeedbackListModelPrivate>(this))
{}

QKFeedbackListModel::~QKFeedbackListModel() = default;

int QKFeedbackListModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(d->items.size());
}

QVariant QKFeedbackListModel::data(const QModelIndex &index, int role) const
{
    const QKFeedbackItemPtr shown = index.isValid() ? item(index.row()) : QKFeedbackItemPtr();
    if (!shown)
        return QVariant();
    switch (role) {
    case KeyRole:
        return shown->key();
    case TextRole:
        return shown->text();
    case StateRole:
        return shown->state();
    case CreatedAtRole:
        return shown->createdAt();
    case AuthorRole:
        return shown->author();
    case CommentCountRole:
        return commentCount(shown);
    case ImageRole:
        return shown->image();
    default:
        return QVariant();
    }
}

QHash<int, QByteArray> QKFeedbackListModel::roleNames() const
{
    return {{KeyRole, "key"},       {TextRole, "text"},
            {StateRole, "state"},   {CreatedAtRole, "createdAt"},
            {AuthorRole, "author"}, {CommentCountRole, "commentCount"},
            {ImageRole, "image"}};
}

QKFeedbackDataSourcePtr QKFeedbackListModel::dataSource() const
{
    return d->source;
}
void QKFeedbackListModel::setDataSource(const QKFeedbackDataSourcePtr &source)
{
    d->source = source;
}
QKFeedbackListModel::Filter QKFeedbackListModel::filter() const
{
    return d->filter;
}

void QKFeedbackListModel::setFilter(Filter filter)
{
    if (d->filter == filter)
        return;
    d->filter = filter;
    emit filterChanged();
    reload();
}

QString QKFeedbackListModel::state() const
{
    switch (d->filter) {
    case Open:
        return QKLocalizedString("Open");
    case Resolved:
        return QKLocalizedString("Resolved");
    case All:
        break;
    }
    return QString();
}

QKFeedbackItemList QKFeedbackListModel::items() const
{
    return d->items;
}

QKFeedbackItemPtr QKFeedbackListModel::item(int row) const
{
    return row >= 0 && row < d->items.size() ? d->items.at(row) : QKFeedbackItemPtr();
}

bool QKFeedbackListModel::showIndicator() const
{
    return d->showIndicator;
}
bool QKFeedbackListModel::isLoading() const
{
    return d->loading;
}
bool QKFeedbackListModel::isListVisible() const
{
    return d->listVisible;
}
bool QKFeedbackListModel::isEmptyMessageVisible() const
{
    return d->emptyMessageVisible;
}

void QKFeedbackListModel::reload()
{
    d->set(d->showIndicator, true, &QKFeedbackListModel::showIndicatorChanged);
    beginResetModel();
    d->items.clear();
    endResetModel();
    loadFirstPage();
}

void QKFeedbackListModel::loadFirstPage()
{
    d->set(d->listVisible, false, &QKFeedbackListModel::listVisibleChanged);
    d->set(d->emptyMessageVisible, false, &QKFeedbackListModel::emptyMessageVisibleChanged);
    d->set(d->loading, true, &QKFeedbackListModel::loadingChanged);
    if (!d->source)
        return;
    // No page size here: skip what is held, whatever the source's pages are.
    d->source->feedbackItemsByState(
        state(), d->items.size(), this, [this](std::optional<QKFeedbackItemList> page, std::optional<QKError> error) {
            d->append(page);
            d->set(d->loading, false, &QKFeedbackListModel::loadingChanged);
            if (error) {
                emit firstPageFailed(error->domain(), error->message());
                return;
            }
            d->set(d->listVisible, !d->items.isEmpty(), &QKFeedbackListModel::listVisibleChanged);
            d->set(d->emptyMessageVisible, d->items.isEmpty(), &QKFeedbackListModel::emptyMessageVisibleChanged);
            emit firstPageLoaded();
        });
}

void QKFeedbackListModel::loadNextPage()
{
    if (!d->source)
        return;
    const qsizetype before = d->items.size();
    d->source->feedbackItemsByState(
        state(), before, this, [this, before](std::optional<QKFeedbackItemList> page, std::optional<QKError>) {
            d->append(page);
            // Another page may exist exactly when this one brought something; the
            // local source answers every request with all it has, so never.
            const bool more = d->items.size() != before && !qobject_cast<QKLocalFeedbackSource *>(d->source.data());
            d->set(d->showIndicator, more, &QKFeedbackListModel::showIndicatorChanged);
            d->set(d->emptyMessageVisible, d->items.isEmpty(), &QKFeedbackListModel::emptyMessageVisibleChanged);
            emit nextPageLoaded();
        });
}

void QKFeedbackListModel::rowShown(int row)
{
    if (d->showIndicator && row == d->items.size() - 1)
        loadNextPage();
}

void QKFeedbackListModel::openItem(int row, QKFeedbackDetailsModel *details)
{
    const QKFeedbackItemPtr opened = item(row);
    if (!opened)
        return;
    if (details) {
        details->setItem(opened);
        details->setDataSource(d->source);
    }
    if (!d->source)
        return;
    QPointer<QKFeedbackDetailsModel> shown(details);
    if (opened->image().isNull()) {
        d->source->imageForKey(opened->params().value(QStringLiteral("ImageUri")).toString(), this,
                               [this, opened, shown](QImage image, std::optional<QKError>) {
                                   opened->setImage(image);
                                   d->changed(opened, ImageRole);
                                   if (shown)
                                       shown->reload();
                               });
    }
    d->source->subItemsForKey(
        opened->key(), this, [this, opened, shown](std::optional<QKFeedbackItemList> comments, std::optional<QKError>) {
            if (comments && (!opened->subItems() || opened->subItems()->isEmpty())) {
                for (const QKFeedbackItemPtr &comment : *comments)
                    opened->addSubItem(comment);
                d->changed(opened, CommentCountRole);
            }
            if (shown)
                shown->reload();
        });
}

qint64 QKFeedbackListModel::commentCount(const QKFeedbackItemPtr &item)
{
    if (!item)
        return 0;
    if (item->subItems() && !item->subItems()->isEmpty())
        return item->subItems()->size();
    return qMax<qint64>(0, integerValue(item->params().value(QStringLiteral("CommentsCount"))) - 1);
}
