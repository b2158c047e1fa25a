#pragma once

#include "../base/QKCoding.h"

#include <QDateTime>
#include <QString>

#include <memory>

class QKKeyedUnarchiver;
class QKFeedbackComment;
class QKFeedbackCommentPrivate;
using QKFeedbackCommentPtr = QSharedPointer<QKFeedbackComment>;

/// A small archivable comment record (key, creation date, text). The library's own
/// flows use QKFeedbackItem for comments; this class keeps archives and host code
/// that use it working. Archived by key as "QKFeedbackComment".
class MURMORA_DATA_EXPORT QKFeedbackComment : public QKCoding
{
public:
    /// An empty comment: every field nil.
    QKFeedbackComment();
    /// A copy of every field.
    QKFeedbackComment(const QKFeedbackComment &other);
    /// Takes every field of `other`.
    QKFeedbackComment &operator=(const QKFeedbackComment &other);
    ~QKFeedbackComment() override;

    /// The comment's key; null until stored.
    QString key() const;
    /// Sets the key.
    void setKey(const QString &key);
    /// When the comment was made, in UTC; invalid when unknown.
    QDateTime createdAt() const;
    /// Sets the creation date.
    void setCreatedAt(const QDateTime &date);
    /// The comment's text; null when there is none.
    QString text() const;
    /// Sets the text.
    void setText(const QString &text);

    /// {"QKFeedbackComment", "NSObject"}.
    QStringList archiveClassChain() const override;
    /// Writes key, createdAt and text.
    void encodeWithCoder(QKKeyedArchiver &coder) const override;
    /// Reads a comment from the fields the unarchiver is positioned on.
    static QKFeedbackCommentPtr initWithCoder(QKKeyedUnarchiver &coder);

private:
    std::unique_ptr<QKFeedbackCommentPrivate> d;
};
