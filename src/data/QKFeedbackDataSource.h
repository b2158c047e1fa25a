#pragma once

#include "../base/QKError.h"
#include "QKFeedbackItem.h"

#include <QObject>

#include <functional>
#include <memory>
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
    /// Completes a listing: the items (nil only on failure) or the error.
    using ItemsCompletion = std::function<void(std::optional<QKFeedbackItemList> items, std::optional<QKError> error)>;
    /// Completes a change: std::nullopt on success.
    using ErrorCompletion = std::function<void(std::optional<QKError> error)>;
    /// Completes an image fetch: the image (null on failure) or the error.
    using ImageCompletion = std::function<void(QImage image, std::optional<QKError> error)>;

    /// The optional operations, for implements().
    enum class Operation {
        FeedbackItemsByState,
        FeedbackItemsByStateSkip,
        ImageForKey,
        SubItemsForKey,
        AddSubItemForKey,
        UserEmail,
    };
    Q_ENUM(Operation)

    /// A source owned by `parent` when given; hosts usually hold it in a QKFeedbackDataSourcePtr instead.
    explicit QKFeedbackDataSource(QObject *parent = nullptr);
    ~QKFeedbackDataSource() override;

    /// Every item the source holds for this user.
    virtual void feedbackItems(ItemsCompletion completionHandler) = 0;
    /// Stores one new item.
    virtual void addFeedback(const QKFeedbackItemPtr &item, ErrorCompletion completionHandler) = 0;
    /// Stores several new items; the send path uses this one.
    virtual void addFeedbackItems(const QKFeedbackItemList &items, ErrorCompletion completionHandler) = 0;
    /// Sets the state ("Open" or "Resolved", localised) of the item at `key`.
    virtual void editWithKey(const QString &key, const QString &state, ErrorCompletion completionHandler) = 0;
    /// Deletes the item at `key`.
    virtual void deleteWithKey(const QString &key, ErrorCompletion completionHandler) = 0;
    /// The name under which feedback and comments go out; null sends them anonymously.
    virtual QString userName() const = 0;
    /// Sets the name; the façade sets the saved one when the source is handed to it.
    virtual void setUserName(const QString &userName) = 0;

    /// Whether the source implements the optional `operation`.
    virtual bool implements(Operation operation) const;

    // Optional operations.
    /// The items in `state`; a null state lists every state.
    virtual void feedbackItemsByState(const QString &state, ItemsCompletion completionHandler);
    /// Items after the first `skip` matching ones; a source may ignore `skip`.
    virtual void feedbackItemsByState(const QString &state, qint64 skip, ItemsCompletion completionHandler);
    /// The screenshot at `key`, whatever the caller holds as its address.
    virtual void imageForKey(const QString &key, ImageCompletion completionHandler);
    /// The comments on the item at `key`.
    virtual void subItemsForKey(const QString &key, ItemsCompletion completionHandler);
    /// Adds `subItem` as a comment on the item at `key`.
    virtual void addSubItemForKey(const QString &key, const QKFeedbackItemPtr &subItem,
                                  ErrorCompletion completionHandler);
    /// The user's e-mail address, where a source keeps one.
    virtual QString userEmail() const;
    /// Sets the e-mail address.
    virtual void setUserEmail(const QString &userEmail);

    // Each operation again, completing on `context`'s thread (through its event loop)
    // and not at all once `context` is destroyed: the idiom of
    // QTimer::singleShot(ms, context, functor). Call them while `context` lives; they
    // throw as the plain forms do.
    /// feedbackItems(), completing on `context`'s thread.
    void feedbackItems(const QObject *context, ItemsCompletion completionHandler);
    /// addFeedback(), completing on `context`'s thread.
    void addFeedback(const QKFeedbackItemPtr &item, const QObject *context, ErrorCompletion completionHandler);
    /// addFeedbackItems(), completing on `context`'s thread.
    void addFeedbackItems(const QKFeedbackItemList &items, const QObject *context, ErrorCompletion completionHandler);
    /// editWithKey(), completing on `context`'s thread.
    void editWithKey(const QString &key, const QString &state, const QObject *context,
                     ErrorCompletion completionHandler);
    /// deleteWithKey(), completing on `context`'s thread.
    void deleteWithKey(const QString &key, const QObject *context, ErrorCompletion completionHandler);
    /// feedbackItemsByState() with a skip, completing on `context`'s thread.
    void feedbackItemsByState(const QString &state, qint64 skip, const QObject *context,
                              ItemsCompletion completionHandler);
    /// imageForKey(), completing on `context`'s thread.
    void imageForKey(const QString &key, const QObject *context, ImageCompletion completionHandler);
    /// subItemsForKey(), completing on `context`'s thread.
    void subItemsForKey(const QString &key, const QObject *context, ItemsCompletion completionHandler);
    /// addSubItemForKey(), completing on `context`'s thread.
    void addSubItemForKey(const QString &key, const QKFeedbackItemPtr &subItem, const QObject *context,
                          ErrorCompletion completionHandler);

protected:
    /// Throws QKUnrecognizedSelectorException for `selector` sent to this source.
    [[noreturn]] void unrecognizedSelector(const char *selector) const;

private:
    // Room for state without changing the class's size.
    std::unique_ptr<class QKFeedbackDataSourcePrivate> d;
};

/// How sources are held: the façade, the screens and the host share one.
using QKFeedbackDataSourcePtr = QSharedPointer<QKFeedbackDataSource>;
