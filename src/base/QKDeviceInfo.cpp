#include "QKDeviceInfo.h"

#include <QCoreApplication>
#include <QFile>
#include <QGuiApplication>
#include <QMutex>
#include <QScreen>
#include <QStringList>
#include <QSysInfo>

namespace {

QMutex &providersMutex()
{
    static QMutex mutex;
    return mutex;
}

QKDeviceInfo::Providers &providers()
{
    static QKDeviceInfo::Providers current = QKDeviceInfo::defaultProviders();
    return current;
}

template <class T>
T call(std::function<T()> QKDeviceInfo::Providers::*member)
{
    std::function<T()> provider;
    {
        QMutexLocker lock(&providersMutex());
        provider = providers().*member;
    }
    return provider ? provider() : T();
}

QString defaultModel()
{
    // Linux desktops and many boards name the machine here.
    for (const char *path : {"/sys/class/dmi/id/product_name", "/proc/device-tree/model"}) {
        QFile file(QString::fromLatin1(path));
        if (file.open(QIODevice::ReadOnly)) {
            const QString name = QString::fromUtf8(file.readAll()).remove(QChar(0)).trimmed();
            if (!name.isEmpty())
                return name;
        }
    }
    const QString type = QSysInfo::productType();
    return type.isEmpty() ? QString() : type;
}

QString defaultApplicationIdentifier()
{
    const QString desktop = QGuiApplication::desktopFileName();
    if (!desktop.isEmpty())
        return desktop;
    QStringList parts = QCoreApplication::organizationDomain().split(QLatin1Char('.'), Qt::SkipEmptyParts);
    std::reverse(parts.begin(), parts.end());
    const QString name = QCoreApplication::applicationName();
    if (!name.isEmpty())
        parts.append(name);
    return parts.join(QLatin1Char('.'));
}

} // namespace

QKDeviceInfo::Providers QKDeviceInfo::defaultProviders()
{
    Providers defaults;
    defaults.model = defaultModel;
    defaults.systemVersion = [] {
        const QString version = QSysInfo::productVersion();
        return version.isEmpty() || version == QLatin1String("unknown") ? QString() : version;
    };
    defaults.applicationIdentifier = defaultApplicationIdentifier;
    defaults.applicationVersion = [] {
        const QString version = QCoreApplication::applicationVersion();
        return version.isEmpty() ? QString() : version;
    };
    defaults.screenSize = []() -> QSizeF {
        if (!qobject_cast<QGuiApplication *>(QCoreApplication::instance()))
            return QSizeF();
        const QScreen *screen = QGuiApplication::primaryScreen();
        return screen ? QSizeF(screen->geometry().size()) : QSizeF();
    };
    return defaults;
}

void QKDeviceInfo::setProviders(const Providers &replacements)
{
    QMutexLocker lock(&providersMutex());
    Providers &current = providers();
    if (replacements.model)
        current.model = replacements.model;
    if (replacements.systemVersion)
        current.systemVersion = replacements.systemVersion;
    if (replacements.applicationIdentifier)
        current.applicationIdentifier = replacements.applicationIdentifier;
    if (replacements.applicationVersion)
        current.applicationVersion = replacements.applicationVersion;
    if (replacements.screenSize)
        current.screenSize = replacements.screenSize;
}

QString QKDeviceInfo::model()
{
    return call(&Providers::model);
}

QString QKDeviceInfo::systemVersion()
{
    return call(&Providers::systemVersion);
}

QString QKDeviceInfo::applicationIdentifier()
{
    return call(&Providers::applicationIdentifier);
}

QString QKDeviceInfo::applicationVersion()
{
    return call(&Providers::applicationVersion);
}

QSizeF QKDeviceInfo::screenSize()
{
    return call(&Providers::screenSize);
}
