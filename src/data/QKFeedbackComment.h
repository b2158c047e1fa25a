#pragma once

#include "../base/QKCoding.h"

#include <QDateTime>
#include <QString>

class QKKeyedUnarchiver;
class QKFeedbackComment;
using QKFeedbackCommentPtr = QSharedPointer<QKFeedbackComment>;

/// A small archivable comment record (key, creation date, text). The library's own
/// flows use QKFeedbackItem for comments; this class keeps archives and host code
/// that use it working. Archived by key as "QKFeedbackComment".
class MURMORA_DATA_EXPORT QKFeedbackComment : public QKCoding
{
public:
    QString key() const { return m_key; }
    void setKey(const QString &key) { m_key = key; }
    QDateTime createdAt() const { return m_createdAt; }
    void setCreatedAt(const QDateTime &date) { m_createdAt = date; }
    QString text() const { return m_text; }
    void setText(const QString &text) { m_text = text; }

    QStringList archiveClassChain() const override;
    void encodeWithCoder(QKKeyedArchiver &coder) const override;
    static QKFeedbackCommentPtr initWithCoder(QKKeyedUnarchiver &coder);

private:
    QString m_key;
    QDateTime m_createdAt;
    QString m_text;
};
