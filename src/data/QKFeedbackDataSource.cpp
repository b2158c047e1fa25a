#include "QKFeedbackDataSource.h"

#include "../base/QKUnrecognizedSelectorException.h"

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
