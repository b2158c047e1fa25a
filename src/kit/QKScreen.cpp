#include "QKScreen.h"

#include "base/QKDeviceInfo.h"

#include <QGuiApplication>
#include <QScreen>

QKScreen *QKScreen::mainScreen()
{
    static QKScreen screen;
    return &screen;
}

QRectF QKScreen::bounds() const
{
    // Through the provider, so that a host that replaces it sees the same size everywhere.
    return QRectF(QPointF(0, 0), QKDeviceInfo::screenSize());
}

qreal QKScreen::scale() const
{
    if (!qobject_cast<QGuiApplication *>(QCoreApplication::instance()))
        return 1;
    const QScreen *screen = QGuiApplication::primaryScreen();
    return screen ? screen->devicePixelRatio() : 1;
}
