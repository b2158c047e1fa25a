#include "QKException.h"

#include <QByteArray>

class QKExceptionPrivate
{
public:
    QString name;
    QString reason;
    QByteArray what;
};

QKException::QKException(const QString &name, const QString &reason)
    : d(std::make_shared<const QKExceptionPrivate>(
          QKExceptionPrivate{name, reason, (name + QStringLiteral(": ") + reason).toUtf8()}))
{}

QKException::~QKException() = default;

QString QKException::name() const
{
    return d->name;
}
QString QKException::reason() const
{
    return d->reason;
}
const char *QKException::what() const noexcept
{
    return d->what.constData();
}
