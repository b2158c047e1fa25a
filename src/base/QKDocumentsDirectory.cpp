#include "QKDocumentsDirectory.h"

#include <QMutex>
#include <QStandardPaths>

namespace {
QMutex directoryMutex;
QString directoryOverride;
} // namespace

QString QKDocumentsDirectory()
{
    {
        QMutexLocker lock(&directoryMutex);
        if (!directoryOverride.isEmpty())
            return directoryOverride;
    }
    return QStandardPaths::writableLocation(QStandardPaths::AppDataLocation);
}

void QKSetDocumentsDirectory(const QString &path)
{
    QMutexLocker lock(&directoryMutex);
    directoryOverride = path;
}
