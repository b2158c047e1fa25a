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

class QKFeedbackCommentPrivate
{
public:
    QString key;
    QDateTime createdAt;
    QString text;
};

QKFeedbackComment::QKFeedbackComment() : d(std::make_unique<QKFeedbackCommentPrivate>())
{}
QKFeedbackComment::QKFeedbackComment(const QKFeedbackComment &other)
    : QKCoding(other), d(std::make_unique<QKFeedbackCommentPrivate>(*other.d))
{}
QKFeedbackComment &QKFeedbackComment::operator=(const QKFeedbackComment &other)
{
    *d = *other.d;
    return *this;
}
QKFeedbackComment::~QKFeedbackComment() = default;

QString QKFeedbackComment::key() const
{
    return d->key;
}
void QKFeedbackComment::setKey(const QString &key)
{
    d->key = key;
}
QDateTime QKFeedbackComment::createdAt() const
{
    return d->createdAt;
}
void QKFeedbackComment::setCreatedAt(const QDateTime &date)
{
    d->createdAt = date;
}
QString QKFeedbackComment::text() const
{
    return d->text;
}
void QKFeedbackComment::setText(const QString &text)
{
    d->text = text;
}

QStringList QKFeedbackComment::archiveClassChain() const
{
    Q_UNUSED(registered);
    return {ClassName, QStringLiteral("NSObject")};
}

void QKFeedbackComment::encodeWithCoder(QKKeyedArchiver &coder) const
{
    coder.encodeObject(d->key, QStringLiteral("key"));
    coder.encodeObject(d->createdAt, QStringLiteral("createdAt"));
    coder.encodeObject(d->text, QStringLiteral("text"));
}

QKFeedbackCommentPtr QKFeedbackComment::initWithCoder(QKKeyedUnarchiver &coder)
{
    auto comment = QKFeedbackCommentPtr::create();
    comment->d->key = coder.decodeString(QStringLiteral("key"));
    comment->d->createdAt = coder.decodeDate(QStringLiteral("createdAt"));
    comment->d->text = coder.decodeString(QStringLiteral("text"));
    return comment;
}
