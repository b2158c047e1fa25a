#include "QKFeedbackDataSource.h"

#include "../base/QKDispatch.h"
#include "../base/QKUnrecognizedSelectorException.h"

class QKFeedbackDataSourcePrivate
{
};

namespace {
// `handler`, called instead on `context`'s thread, and never once it is gone.
template <class... Args>
std::function<void(Args...)> onThreadOf(const QObject *context, std::function<void(Args...)> handler)
{
    auto deliver = QKDispatch::deliverTo(context);
    return [deliver, handler = std::move(handler)](Args... args) {
        deliver([handler, ... args = std::move(args)] { handler(args...); });
    };
}
} // namespace

QKFeedbackDataSource::QKFeedbackDataSource(QObject *parent) : QObject(parent)
{}

QKFeedbackDataSource::~QKFeedbackDataSource() = default;

bool QKFeedbackDataSource::implements(Operation) const
{
    return false;
}

void QKFeedbackDataSource::unrecognizedSelector(const char *selector) const
{
    throw QKUnrecognizedSelectorException(QString::fromLatin1(metaObject()->className()), QString::fromLatin1(selector),
                                          this);
}

void QKFeedbackDataSource::feedbackItemsByState(const QString &, ItemsCompletion)
{
    unrecognizedSelector("feedbackItemsByState:completionHandler:");
}

void QKFeedbackDataSource::feedbackItemsByState(const QString &, qint64, ItemsCompletion)
{
    unrecognizedSelector("feedbackItemsByState:skip:completionHandler:");
}

void QKFeedbackDataSource::imageForKey(const QString &, ImageCompletion)
{
    unrecognizedSelector("imageForKey:completionHandler:");
}

void QKFeedbackDataSource::subItemsForKey(const QString &, ItemsCompletion)
{
    unrecognizedSelector("subItemsForKey:completionHandler:");
}

void QKFeedbackDataSource::addSubItemForKey(const QString &, const QKFeedbackItemPtr &, ErrorCompletion)
{
    unrecognizedSelector("addSubItemForKey:subItem:completionHandler:");
}

QString QKFeedbackDataSource::userEmail() const
{
    unrecognizedSelector("userEmail");
}

void QKFeedbackDataSource::setUserEmail(const QString &)
{
    unrecognizedSelector("setUserEmail:");
}

void QKFeedbackDataSource::feedbackItems(const QObject *context, ItemsCompletion completionHandler)
{
    feedbackItems(onThreadOf(context, std::move(completionHandler)));
}

void QKFeedbackDataSource::addFeedback(const QKFeedbackItemPtr &item, const QObject *context,
                                       ErrorCompletion completionHandler)
{
    addFeedback(item, onThreadOf(context, std::move(completionHandler)));
}

void QKFeedbackDataSource::addFeedbackItems(const QKFeedbackItemList &items, const QObject *context,
                                            ErrorCompletion completionHandler)
{
    addFeedbackItems(items, onThreadOf(context, std::move(completionHandler)));
}

void QKFeedbackDataSource::editWithKey(const QString &key, const QString &state, const QObject *context,
                                       ErrorCompletion completionHandler)
{
    editWithKey(key, state, onThreadOf(context, std::move(completionHandler)));
}

void QKFeedbackDataSource::deleteWithKey(const QString &key, const QObject *context, ErrorCompletion completionHandler)
{
    deleteWithKey(key, onThreadOf(context, std::move(completionHandler)));
}

void QKFeedbackDataSource::feedbackItemsByState(const QString &state, qint64 skip, const QObject *context,
                                                ItemsCompletion completionHandler)
{
    feedbackItemsByState(state, skip, onThreadOf(context, std::move(completionHandler)));
}

void QKFeedbackDataSource::imageForKey(const QString &key, const QObject *context, ImageCompletion completionHandler)
{
    imageForKey(key, onThreadOf(context, std::move(completionHandler)));
}

void QKFeedbackDataSource::subItemsForKey(const QString &key, const QObject *context, ItemsCompletion completionHandler)
{
    subItemsForKey(key, onThreadOf(context, std::move(completionHandler)));
}

void QKFeedbackDataSource::addSubItemForKey(const QString &key, const QKFeedbackItemPtr &subItem,
                                            const QObject *context, ErrorCompletion completionHandler)
{
    addSubItemForKey(key, subItem, onThreadOf(context, std::move(completionHandler)));
}
