#pragma once

#include "QKFeedbackDataSource.h"

#include "../base/QKURLSession.h"

#include <QJsonObject>
#include <QVariantMap>

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

    explicit QKPlatformFeedbackSource(QObject *parent = nullptr);
    explicit QKPlatformFeedbackSource(const QString &key, QObject *parent = nullptr);
    QKPlatformFeedbackSource(const QString &key, const QString &uid, QObject *parent = nullptr);
    /// A null `url` leaves the source with no base URL (no fall-back to the default):
    /// every request then fails as a transport failure.
    QKPlatformFeedbackSource(const QString &key, const QString &uid, const QString &url, const QVariantMap &params,
                             QObject *parent = nullptr);

    QString apiKey() const { return m_p.apiKey; }
    void setApiKey(const QString &apiKey) { m_p.apiKey = apiKey; }
    QString UID() const { return m_p.uid; }
    void setUID(const QString &uid) { m_p.uid = uid; }
    QString baseURL() const { return m_p.baseURL; }
    void setBaseURL(const QString &baseURL) { m_p.baseURL = baseURL; }
    /// Extra fields for the body of every new item; they never replace a standard field.
    QVariantMap parameters() const { return m_p.parameters; }
    void setParameters(const QVariantMap &parameters) { m_p.parameters = parameters; }
    QString userName() const override { return m_p.userName; }
    void setUserName(const QString &userName) override { m_p.userName = userName; }

    /// The session requests go through (by default the shared one).
    QSharedPointer<QKURLSession> session() const { return m_p.session; }
    void setSession(const QSharedPointer<QKURLSession> &session) { m_p.session = session; }

    /// Throws QKException named "QKPlatformFeedbackSource" when UID is null.
    void validateService() const;
    /// The system information record sent with items and comments.
    QJsonObject systemInfo() const;

    void feedbackItems(ItemsCompletion completionHandler) override;
    using QKFeedbackDataSource::feedbackItemsByState;
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
    // Everything a request needs, copied by value into work that outlives the call.
    struct Properties
    {
        QString apiKey;
        QString uid;
        QString baseURL;
        QVariantMap parameters;
        QString userName;
        QSharedPointer<QKURLSession> session;
    };
    static QKURLRequest feedbackRequest(const Properties &properties, const QKFeedbackItemPtr &item,
                                        const QJsonObject &systemInfo);

    Properties m_p;
};
