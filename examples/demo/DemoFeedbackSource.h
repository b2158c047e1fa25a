#pragma once

#include "data/QKLocalFeedbackSource.h"

/// The demo's own data source: feedback stays on the device, as with the plain local
/// source, and comments can be added too. It shows how a host extends the contract:
/// implement the optional operation and say so in implements(). The plain local
/// source stores items without keys and hands out the stored records themselves; this
/// one gives each item a key when it is added and hands out copies, as a service
/// would, so that a screen adding a comment to its copy and the source storing it do
/// not add it twice to one record.
class DemoFeedbackSource : public QKLocalFeedbackSource
{
    Q_OBJECT
public:
    using QKLocalFeedbackSource::QKLocalFeedbackSource;

    bool implements(Operation operation) const override;
    /// New items get a key, so that they can be found for their comments.
    void addFeedback(const QKFeedbackItemPtr &item, ErrorCompletion completionHandler) override;
    void addFeedbackItems(const QKFeedbackItemList &items, ErrorCompletion completionHandler) override;
    using QKLocalFeedbackSource::feedbackItemsByState;
    void feedbackItems(ItemsCompletion completionHandler) override;
    void feedbackItemsByState(const QString &state, qint64 skip, ItemsCompletion completionHandler) override;
    void subItemsForKey(const QString &key, ItemsCompletion completionHandler) override;
    /// Appends the comment to the stored item's comments and saves.
    void addSubItemForKey(const QString &key, const QKFeedbackItemPtr &subItem,
                          ErrorCompletion completionHandler) override;
};
