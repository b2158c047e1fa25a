#include "QKApplication.h"

#include "QKDevice.h"
#include "QKWindow.h"

QKApplication *QKApplication::sharedApplication()
{
    static QKApplication application;
    return &application;
}

QKApplication::InterfaceOrientation QKApplication::statusBarOrientation() const
{
    // The device turned left shows the interface turned right: the same numbers, 1 to 4.
    switch (QKDevice::currentDevice()->orientation()) {
    case QKDevice::OrientationPortraitUpsideDown:
        return InterfaceOrientationPortraitUpsideDown;
    case QKDevice::OrientationLandscapeLeft:
        return InterfaceOrientationLandscapeRight;
    case QKDevice::OrientationLandscapeRight:
        return InterfaceOrientationLandscapeLeft;
    default:
        return InterfaceOrientationPortrait;
    }
}

QKWindow *QKApplication::keyWindow() const
{
    return QKWindow::keyWindow();
}
