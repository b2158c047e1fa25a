#include "QKError.h"

class QKErrorData : public QSharedData
{
public:
    QString domain;
    qint64 code = 0;
    QVariantMap userInfo;
};

QKError::QKError() : d(new QKErrorData)
{}

QKError::QKError(const QString &domain, qint64 code, const QVariantMap &userInfo) : d(new QKErrorData)
{
    d->domain = domain;
    d->code = code;
    d->userInfo = userInfo;
}

QKError::QKError(const QKError &other) = default;
QKError &QKError::operator=(const QKError &other) = default;
QKError::~QKError() = default;

QKError QKError::withMessage(const QString &domain, qint64 code, const QString &message)
{
    return QKError(domain, code, QVariantMap{{QStringLiteral("error"), message}});
}

QString QKError::domain() const
{
    return d->domain;
}
void QKError::setDomain(const QString &domain)
{
    d->domain = domain;
}
qint64 QKError::code() const
{
    return d->code;
}
void QKError::setCode(qint64 code)
{
    d->code = code;
}
QVariantMap QKError::userInfo() const
{
    return d->userInfo;
}
void QKError::setUserInfo(const QVariantMap &userInfo)
{
    d->userInfo = userInfo;
}

QString QKError::message() const
{
    return d->userInfo.value(QStringLiteral("error")).toString();
}

bool QKError::operator==(const QKError &other) const
{
    return d == other.d ||
           (d->domain == other.d->domain && d->code == other.d->code && d->userInfo == other.d->userInfo);
}
