#pragma once

#include "QKFeedbackDataSource.h"

class QKLocalFeedbackSourcePrivate;

/// A data source that keeps feedback on the device, in the keyed archive
/// "qkfeedback.plist" in QKDocumentsDirectory(). Every operation completes before it
/// returns, on the caller's thread; use it from one thread (the main one).
///
/// Its rules are kept on purpose: skip counts are ignored (every list is whole), a
/// deletion only confirms that the key exists and keeps the item, reading an item's
/// sub-items rewrites the file, and the file is written once more on destruction.
/// Items are found by exact key, first stored match; an item without a key is never
/// found. The image and comment operations are not implemented. A null item handed to
/// an add is not stored.
///
/// Several instances each keep their own list and the last to save wins: use one per
/// process (sharedItems()).
///
/// A damaged archive never stops the host. Where the platform's source would raise on
/// a file it cannot read (and so end the application at every launch), a load that
/// refuses the file moves it aside in the same directory as
/// "qkfeedback.plist.damaged-<UTC yyyyMMdd'T'HHmmss'Z'>" (with "-2", "-3"… when that
/// name is taken; such a file is never overwritten or deleted), starts from an empty
/// list, warns in the logging category "murmora.archive" and keeps what happened for
/// damagedArchive(). Saving works again at once. A save that fails (the disk, or a list
/// too large for the reader to take back) warns in the same category and leaves the
/// old file as it was.
class MURMORA_DATA_EXPORT QKLocalFeedbackSource : public QKFeedbackDataSource
{
    Q_OBJECT
public:
    /// Loads the archive (see loadData()); never throws for what the file holds.
    explicit QKLocalFeedbackSource(QObject *parent = nullptr);
    /// Saves the list one last time.
    ~QKLocalFeedbackSource() override;

    /// The process-wide source, made on first call (which reads the file twice) and
    /// never destroyed. Not thread-safe: make the first call from the main thread.
    static QSharedPointer<QKLocalFeedbackSource> sharedItems();

    /// The archive's path: QKDocumentsDirectory() + "/qkfeedback.plist".
    static QString archivePath();

    /// \cond
    // The forms that complete on a context's thread stay visible beside the overrides.
    using QKFeedbackDataSource::addFeedback;
    using QKFeedbackDataSource::addFeedbackItems;
    using QKFeedbackDataSource::deleteWithKey;
    using QKFeedbackDataSource::editWithKey;
    using QKFeedbackDataSource::feedbackItems;
    using QKFeedbackDataSource::feedbackItemsByState;
    using QKFeedbackDataSource::subItemsForKey;
    /// \endcond

    void feedbackItems(ItemsCompletion completionHandler) override;
    void addFeedback(const QKFeedbackItemPtr &item, ErrorCompletion completionHandler) override;
    void addFeedbackItems(const QKFeedbackItemList &items, ErrorCompletion completionHandler) override;
    void editWithKey(const QString &key, const QString &state, ErrorCompletion completionHandler) override;
    void deleteWithKey(const QString &key, ErrorCompletion completionHandler) override;
    /// The name items go out under; null until set (the façade sets the saved one).
    QString userName() const override;
    /// Sets the name; not archived by the source itself.
    void setUserName(const QString &userName) override;

    bool implements(Operation operation) const override;
    void feedbackItemsByState(const QString &state, ItemsCompletion completionHandler) override;
    void feedbackItemsByState(const QString &state, qint64 skip, ItemsCompletion completionHandler) override;
    void subItemsForKey(const QString &key, ItemsCompletion completionHandler) override;

    /// Replaces the list with the file's, sorted newest first (undated items last, in
    /// file order). A missing file gives an empty list; a damaged one is moved aside
    /// and gives an empty list too (see the class comment and damagedArchive()).
    void loadData();
    /// Writes the whole list to the file, atomically. The operations do not look at
    /// the result (a failed write keeps the list in memory and the old file, and warns);
    /// false when it failed.
    bool save();

    /// What the last load found wrong with the archive, and where the file went.
    struct DamagedArchive
    {
        QString reason;  ///< why the reader refused the file
        QString movedTo; ///< its path now; empty when it could not be moved (saving is then refused)
    };
    /// Set by a load that found the archive damaged; cleared by a load that reads a file.
    std::optional<DamagedArchive> damagedArchive() const;

    /// The list itself (the same shared items the operations hand out).
    QKFeedbackItemList items() const;

    /// The not-found error: domain QKLocalizedString("Not Found FeedbackItem"),
    /// code 1, no userInfo.
    static QKError notFoundError();

private:
    QKFeedbackItemPtr itemForKey(const QString &key) const;

    void setAside(const QString &reason);

    std::unique_ptr<QKLocalFeedbackSourcePrivate> d;
};
