#pragma once

#include "QKFeedbackDataSource.h"

#include "../base/QKURLSession.h"

#include <QJsonObject>
#include <QVariantMap>

#include <memory>

class QKPlatformFeedbackSourcePrivate;

/// The data source that keeps feedback on the hosted service ("Wendax Platform"),
/// JSON over HTTPS. Items and comments are thread objects of the collection
/// baseURL/apiKey/threads; a device lists only the items that carry its UID.
///
/// Every operation returns at once and completes once, later, on the network thread
/// (QKURLSession), never on the caller's; addFeedbackItems completes on a thread of
/// the global queue. Failures are QKError values whose domain is the localised
/// "Wendax Platform", whose code is the transport's or the service's, and whose
/// userInfo holds only the message under "error".
///
/// Set the properties once, before the first request; the source keeps no other state.
/// A missing UID, or an item or comment without text, is a programming error of the
/// host: the operation throws QKException before anything is sent.
class MURMORA_DATA_EXPORT QKPlatformFeedbackSource : public QKFeedbackDataSource
{
    Q_OBJECT
public:
    /// The default base URL, path "/feedback/api/v1".
    static QString defaultBaseURL();

    /// A source with the default base URL and the shared session, and no key or UID yet.
    explicit QKPlatformFeedbackSource(QObject *parent = nullptr);
    ~QKPlatformFeedbackSource() override;
    /// A source for the application `key`, with no UID yet.
    explicit QKPlatformFeedbackSource(const QString &key, QObject *parent = nullptr);
    /// A source for the application `key` on the device `uid`.
    QKPlatformFeedbackSource(const QString &key, const QString &uid, QObject *parent = nullptr);
    /// A null `url` leaves the source with no base URL (no fall-back to the default):
    /// every request then fails as a transport failure.
    QKPlatformFeedbackSource(const QString &key, const QString &uid, const QString &url, const QVariantMap &params,
                             QObject *parent = nullptr);

    /// The application's key; it ships inside the app, so it is no secret.
    QString apiKey() const;
    /// Sets apiKey; before the first request.
    void setApiKey(const QString &apiKey);
    /// This device's id: items are listed by it. Null makes every operation throw.
    QString UID() const;
    /// Sets UID; before the first request.
    void setUID(const QString &uid);
    /// The service's address up to the collection, e.g. defaultBaseURL().
    QString baseURL() const;
    /// Sets baseURL; before the first request.
    void setBaseURL(const QString &baseURL);
    /// Extra fields for the body of every new item; they never replace a standard field.
    QVariantMap parameters() const;
    /// Sets parameters; before the first request.
    void setParameters(const QVariantMap &parameters);
    /// The name items and comments go out under; null sends them anonymously.
    QString userName() const override;
    /// Sets userName; before the first request.
    void setUserName(const QString &userName) override;

    /// The session requests go through (by default the shared one).
    QSharedPointer<QKURLSession> session() const;
    /// Sets session; before the first request.
    void setSession(const QSharedPointer<QKURLSession> &session);

    /// Throws QKException named "QKPlatformFeedbackSource" when UID is null.
    void validateService() const;
    /// The system information record sent with items and comments.
    QJsonObject systemInfo() const;

    /// \cond
    // The forms that complete on a context's thread stay visible beside the overrides.
    using QKFeedbackDataSource::addFeedback;
    using QKFeedbackDataSource::addFeedbackItems;
    using QKFeedbackDataSource::addSubItemForKey;
    using QKFeedbackDataSource::deleteWithKey;
    using QKFeedbackDataSource::editWithKey;
    using QKFeedbackDataSource::feedbackItems;
    using QKFeedbackDataSource::feedbackItemsByState;
    using QKFeedbackDataSource::imageForKey;
    using QKFeedbackDataSource::subItemsForKey;
    /// \endcond

    void feedbackItems(ItemsCompletion completionHandler) override;
    void feedbackItemsByState(const QString &state, ItemsCompletion completionHandler) override;
    void feedbackItemsByState(const QString &state, qint64 skip, ItemsCompletion completionHandler) override;
    void addFeedback(const QKFeedbackItemPtr &item, ErrorCompletion completionHandler) override;
    /// Sends the items one after another, each once the previous was answered, and
    /// stops at the first failure; completes on a global-queue thread.
    void addFeedbackItems(const QKFeedbackItemList &items, ErrorCompletion completionHandler) override;
    /// A filtered update of the collection: PUT with "x-filter-meta" on RootId.
    void editWithKey(const QString &key, const QString &state, ErrorCompletion completionHandler) override;
    void deleteWithKey(const QString &key, ErrorCompletion completionHandler) override;
    /// `key` is the image's address (an item's params "ImageUri").
    void imageForKey(const QString &key, ImageCompletion completionHandler) override;
    void subItemsForKey(const QString &key, ItemsCompletion completionHandler) override;
    /// On success `subItem` is filled, on the network thread, with what the service stored.
    void addSubItemForKey(const QString &key, const QKFeedbackItemPtr &subItem,
                          ErrorCompletion completionHandler) override;
    bool implements(Operation operation) const override;

private:
    std::unique_ptr<QKPlatformFeedbackSourcePrivate> d;
};
