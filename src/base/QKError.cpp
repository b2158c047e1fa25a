#include "QKError.h"

QKError QKError::withMessage(const QString &domain, qint64 code, const QString &message)
{
    return QKError{domain, code, QVariantMap{{QStringLiteral("error"), message}}};
}

QString QKError::message() const
{
    return userInfo.value(QStringLiteral("error")).toString();
}
