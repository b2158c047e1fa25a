#pragma once

#include "QKFeedbackDataSource.h"

/// A data source that keeps feedback on the device, in the keyed archive
/// "qkfeedback.plist" in QKDocumentsDirectory(). Every operation completes before it
/// returns, on the caller's thread; use it from one thread (the main one).
///
/// Its rules are kept on purpose: skip counts are ignored (every list is whole), a
/// deletion only confirms that the key exists and keeps the item, reading an item's
/// sub-items rewrites the file, and the file is written once more on destruction.
/// Items are found by exact key, first stored match; an item without a key is never
/// found. The image and comment operations are not implemented.
///
/// Several instances each keep their own list and the last to save wins: use one per
/// process (sharedItems()).
class MURMORA_DATA_EXPORT QKLocalFeedbackSource : public QKFeedbackDataSource
{
    Q_OBJECT
public:
    /// Loads the archive. Throws QKArchiveException when the file exists but is not a
    /// valid items archive; the file is then left as it is, so a host can move it aside.
    explicit QKLocalFeedbackSource(QObject *parent = nullptr);
    /// Saves the list one last time.
    ~QKLocalFeedbackSource() override;

    /// The process-wide source, made on first call (which reads the file twice) and
    /// never destroyed. Not thread-safe: make the first call from the main thread.
    static QSharedPointer<QKLocalFeedbackSource> sharedItems();

    /// The archive's path: QKDocumentsDirectory() + "/qkfeedback.plist".
    static QString archivePath();

    void feedbackItems(ItemsCompletion completionHandler) override;
    void addFeedback(const QKFeedbackItemPtr &item, ErrorCompletion completionHandler) override;
    void addFeedbackItems(const QKFeedbackItemList &items, ErrorCompletion completionHandler) override;
    void editWithKey(const QString &key, const QString &state, ErrorCompletion completionHandler) override;
    void deleteWithKey(const QString &key, ErrorCompletion completionHandler) override;
    QString userName() const override { return m_userName; }
    void setUserName(const QString &userName) override { m_userName = userName; }

    bool implements(Operation operation) const override;
    using QKFeedbackDataSource::feedbackItemsByState;
    void feedbackItemsByState(const QString &state, ItemsCompletion completionHandler) override;
    void feedbackItemsByState(const QString &state, qint64 skip, ItemsCompletion completionHandler) override;
    void subItemsForKey(const QString &key, ItemsCompletion completionHandler) override;

    /// Replaces the list with the file's, sorted newest first (undated items last, in
    /// file order). A missing file gives an empty list. Throws QKArchiveException for
    /// an invalid file and leaves the list as it was; saving is then refused until a
    /// load succeeds, so the file is kept for the host to look at.
    void loadData();
    /// Writes the whole list to the file, atomically. The operations do not look at
    /// the result (a failed write keeps the list in memory); false when it failed.
    bool save();

    /// The list itself (the same shared items the operations hand out).
    QKFeedbackItemList items() const { return m_items; }

    /// The not-found error: domain QKLocalizedString("Not Found FeedbackItem"),
    /// code 1, no userInfo.
    static QKError notFoundError();

private:
    QKFeedbackItemPtr itemForKey(const QString &key) const;

    QKFeedbackItemList m_items;
    QString m_userName;
    bool m_fileRejected = false;
};
