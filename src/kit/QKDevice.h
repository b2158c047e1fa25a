#pragma once

#include "QKGlobalKit.h"

#include <QObject>
#include <QPointer>

class QScreen;

/// The device the application runs on: its model and system (from QKDeviceInfo) and
/// its orientation (from the primary screen), in the platform's numbering. Main thread only.
class MURMORA_EXPORT QKDevice : public QObject
{
    Q_OBJECT
public:
    enum Orientation {
        OrientationUnknown = 0,
        OrientationPortrait = 1,
        OrientationPortraitUpsideDown = 2,
        OrientationLandscapeLeft = 3,
        OrientationLandscapeRight = 4,
        OrientationFaceUp = 5,
        OrientationFaceDown = 6,
    };

    /// Posted through QKNotificationCenter::defaultCenter() while notices are generated.
    static const QString OrientationDidChangeNotification;

    static QKDevice *currentDevice();

    QString model() const;
    QString systemVersion() const;
    /// Unknown without a screen; screens never report face up or down.
    Orientation orientation() const;

    /// Calls nest: notices are posted from the first begin until the matching end.
    /// An end without a begin is ignored.
    void beginGeneratingDeviceOrientationNotifications();
    void endGeneratingDeviceOrientationNotifications();
    bool isGeneratingDeviceOrientationNotifications() const { return m_generating > 0; }

private:
    QKDevice();
    void watch(QScreen *screen);

    int m_generating = 0;
    bool m_watching = false;
    QPointer<QScreen> m_screen;
};
