#include "QKLocalizedString.h"

#include <QCoreApplication>

QString QKLocalizedString(const char *key)
{
    return QCoreApplication::translate("Murmora", key);
}

QString QKLocalizedString(const QString &key)
{
    return QKLocalizedString(key.toUtf8().constData());
}
