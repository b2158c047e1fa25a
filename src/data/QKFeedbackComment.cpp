#include "QKFeedbackComment.h"

#include "../base/QKKeyedArchiver.h"
#include "../base/QKKeyedUnarchiver.h"

namespace {
const QString ClassName = QStringLiteral("QKFeedbackComment");

const bool registered = [] {
    QKKeyedUnarchiver::registerClass(
        ClassName, [](QKKeyedUnarchiver &coder) -> QKCodingPtr { return QKFeedbackComment::initWithCoder(coder); });
    return true;
}();
} // namespace

QStringList QKFeedbackComment::archiveClassChain() const
{
    Q_UNUSED(registered);
    return {ClassName, QStringLiteral("NSObject")};
}

void QKFeedbackComment::encodeWithCoder(QKKeyedArchiver &coder) const
{
    coder.encodeObject(m_key, QStringLiteral("key"));
    coder.encodeObject(m_createdAt, QStringLiteral("createdAt"));
    coder.encodeObject(m_text, QStringLiteral("text"));
}

QKFeedbackCommentPtr QKFeedbackComment::initWithCoder(QKKeyedUnarchiver &coder)
{
    auto comment = QKFeedbackCommentPtr::create();
    comment->m_key = coder.decodeString(QStringLiteral("key"));
    comment->m_createdAt = coder.decodeDate(QStringLiteral("createdAt"));
    comment->m_text = coder.decodeString(QStringLiteral("text"));
    return comment;
}
