#include "QKDevice.h"

#include "QKNotificationCenter.h"
#include "base/QKDeviceInfo.h"

#include <QGuiApplication>
#include <QScreen>

const QString QKDevice::OrientationDidChangeNotification = QStringLiteral("UIDeviceOrientationDidChangeNotification");

QKDevice::QKDevice() = default;

QKDevice *QKDevice::currentDevice()
{
    static QKDevice device;
    // Asked for before the application was made, it starts watching on a later call.
    if (!device.m_watching) {
        if (auto *app = qobject_cast<QGuiApplication *>(QCoreApplication::instance())) {
            device.m_watching = true;
            connect(app, &QGuiApplication::primaryScreenChanged, &device, &QKDevice::watch);
            device.watch(QGuiApplication::primaryScreen());
        }
    }
    return &device;
}

void QKDevice::watch(QScreen *screen)
{
    if (m_screen)
        disconnect(m_screen, nullptr, this, nullptr);
    m_screen = screen;
    if (!screen)
        return;
    connect(screen, &QScreen::orientationChanged, this, [this] {
        if (m_generating > 0)
            QKNotificationCenter::defaultCenter()->postNotification(OrientationDidChangeNotification);
    });
}

QString QKDevice::model() const
{
    return QKDeviceInfo::model();
}

QString QKDevice::systemVersion() const
{
    return QKDeviceInfo::systemVersion();
}

QKDevice::Orientation QKDevice::orientation() const
{
    if (!m_screen)
        return OrientationUnknown;
    Qt::ScreenOrientation orientation = m_screen->orientation();
    if (orientation == Qt::PrimaryOrientation)
        orientation = m_screen->primaryOrientation();
    // The pairing Qt itself uses on the platform: its landscape is the device turned left.
    switch (orientation) {
    case Qt::PortraitOrientation:
        return OrientationPortrait;
    case Qt::InvertedPortraitOrientation:
        return OrientationPortraitUpsideDown;
    case Qt::LandscapeOrientation:
        return OrientationLandscapeLeft;
    case Qt::InvertedLandscapeOrientation:
        return OrientationLandscapeRight;
    default:
        return OrientationUnknown;
    }
}

void QKDevice::beginGeneratingDeviceOrientationNotifications()
{
    ++m_generating;
}

void QKDevice::endGeneratingDeviceOrientationNotifications()
{
    if (m_generating > 0)
        --m_generating;
}
