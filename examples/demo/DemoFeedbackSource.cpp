#include "DemoFeedbackSource.h"

#include <QUuid>

namespace {
void giveKey(const QKFeedbackItemPtr &item)
{
    if (item->key().isNull())
        item->setKey(QUuid::createUuid().toString(QUuid::WithoutBraces));
}
QKFeedbackItemPtr copyOf(const QKFeedbackItemPtr &item)
{
    auto copy = QKFeedbackItem::create();
    copy->setKey(item->key());
    copy->setCreatedAt(item->createdAt());
    copy->setModifiedAt(item->modifiedAt());
    copy->setText(item->text());
    copy->setAuthor(item->author());
    copy->setState(item->state());
    copy->setImage(item->image());
    copy->setParams(item->params());
    if (!item->subItems())
        copy->subItems().reset();
    else
        for (const QKFeedbackItemPtr &subItem : *item->subItems())
            copy->addSubItem(copyOf(subItem));
    return copy;
}

QKFeedbackDataSource::ItemsCompletion copying(QKFeedbackDataSource::ItemsCompletion completionHandler)
{
    return [completionHandler](std::optional<QKFeedbackItemList> items, std::optional<QKError> error) {
        if (items)
            for (QKFeedbackItemPtr &item : *items)
                item = copyOf(item);
        completionHandler(items, error);
    };
}

} // namespace

void DemoFeedbackSource::feedbackItems(ItemsCompletion completionHandler)
{
    QKLocalFeedbackSource::feedbackItems(copying(std::move(completionHandler)));
}

void DemoFeedbackSource::feedbackItemsByState(const QString &state, qint64 skip, ItemsCompletion completionHandler)
{
    QKLocalFeedbackSource::feedbackItemsByState(state, skip, copying(std::move(completionHandler)));
}

void DemoFeedbackSource::subItemsForKey(const QString &key, ItemsCompletion completionHandler)
{
    QKLocalFeedbackSource::subItemsForKey(key, copying(std::move(completionHandler)));
}

void DemoFeedbackSource::addFeedback(const QKFeedbackItemPtr &item, ErrorCompletion completionHandler)
{
    giveKey(item);
    QKLocalFeedbackSource::addFeedback(item, std::move(completionHandler));
}

void DemoFeedbackSource::addFeedbackItems(const QKFeedbackItemList &items, ErrorCompletion completionHandler)
{
    for (const QKFeedbackItemPtr &item : items)
        giveKey(item);
    QKLocalFeedbackSource::addFeedbackItems(items, std::move(completionHandler));
}

bool DemoFeedbackSource::implements(Operation operation) const
{
    return operation == Operation::AddSubItemForKey || QKLocalFeedbackSource::implements(operation);
}

void DemoFeedbackSource::addSubItemForKey(const QString &key, const QKFeedbackItemPtr &subItem,
                                          ErrorCompletion completionHandler)
{
    for (const QKFeedbackItemPtr &item : items()) {
        if (!item->key().isNull() && item->key() == key) {
            // What a service would fill in: the time and who wrote it.
            if (!subItem->createdAt().isValid())
                subItem->setCreatedAt(QDateTime::currentDateTimeUtc());
            if (subItem->author().isNull())
                subItem->setAuthor(userName());
            item->insertSubItem(copyOf(subItem), 0); // newest first, as the screens show them
            save();
            completionHandler(std::nullopt);
            return;
        }
    }
    completionHandler(notFoundError());
}
