#pragma once

#include "../base/QKError.h"
#include "QKFeedbackItem.h"

#include <QObject>

#include <functional>
#include <optional>

/// Where feedback is kept: the one interface between the screens and a store.
///
/// Every completion is called exactly once per call, on any thread (a source says
/// which); callers move to the main thread themselves before touching a screen. A
/// failure is reported with an error whose domain is a short title and whose
/// userInfo "error" is the message to show; the array or image is then to be ignored.
///
/// Optional operations that a source does not implement throw
/// QKUnrecognizedSelectorException; implements() tells which a source has. A
/// subclass that implements an optional operation overrides implements() too.
///
/// State strings are "Open" and "Resolved" passed through QKLocalizedString, and are
/// compared exactly; a null state means every state.
class MURMORA_DATA_EXPORT QKFeedbackDataSource : public QObject
{
    Q_OBJECT
public:
    using ItemsCompletion = std::function<void(std::optional<QKFeedbackItemList> items, std::optional<QKError> error)>;
    using ErrorCompletion = std::function<void(std::optional<QKError> error)>;
    using ImageCompletion = std::function<void(QImage image, std::optional<QKError> error)>;

    enum class Operation {
        FeedbackItemsByState,
        FeedbackItemsByStateSkip,
        ImageForKey,
        SubItemsForKey,
        AddSubItemForKey,
        UserEmail,
    };

    explicit QKFeedbackDataSource(QObject *parent = nullptr);
    ~QKFeedbackDataSource() override;

    /// Every item the source holds for this user.
    virtual void feedbackItems(ItemsCompletion completionHandler) = 0;
    virtual void addFeedback(const QKFeedbackItemPtr &item, ErrorCompletion completionHandler) = 0;
    /// Stores several new items; the send path uses this one.
    virtual void addFeedbackItems(const QKFeedbackItemList &items, ErrorCompletion completionHandler) = 0;
    virtual void editWithKey(const QString &key, const QString &state, ErrorCompletion completionHandler) = 0;
    virtual void deleteWithKey(const QString &key, ErrorCompletion completionHandler) = 0;
    /// The name under which feedback and comments go out.
    virtual QString userName() const = 0;
    virtual void setUserName(const QString &userName) = 0;

    /// Whether the source implements the optional `operation`.
    virtual bool implements(Operation operation) const;

    // Optional operations.
    virtual void feedbackItemsByState(const QString &state, ItemsCompletion completionHandler);
    /// Items after the first `skip` matching ones; a source may ignore `skip`.
    virtual void feedbackItemsByState(const QString &state, qint64 skip, ItemsCompletion completionHandler);
    /// The screenshot at `key`, whatever the caller holds as its address.
    virtual void imageForKey(const QString &key, ImageCompletion completionHandler);
    virtual void subItemsForKey(const QString &key, ItemsCompletion completionHandler);
    virtual void addSubItemForKey(const QString &key, const QKFeedbackItemPtr &subItem,
                                  ErrorCompletion completionHandler);
    virtual QString userEmail() const;
    virtual void setUserEmail(const QString &userEmail);

protected:
    /// Throws QKUnrecognizedSelectorException for `selector` sent to this source.
    [[noreturn]] void unrecognizedSelector(const char *selector) const;
};

using QKFeedbackDataSourcePtr = QSharedPointer<QKFeedbackDataSource>;
