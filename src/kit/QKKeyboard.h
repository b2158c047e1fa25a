#pragma once

#include "QKGlobalKit.h"

#include <QString>

/// The on-screen keyboard's notices, under the platform's names, posted through
/// QKNotificationCenter::defaultCenter(). Both carry the keyboard's frame before and
/// after the change (QRectF, window points) under the two user-info keys. Main thread only.
class MURMORA_EXPORT QKKeyboard
{
public:
    static const QString WillShowNotification;
    static const QString WillHideNotification;
    static const QString FrameBeginUserInfoKey;
    static const QString FrameEndUserInfoKey;

    /// Starts posting the notices as Qt's input method shows, moves and hides the
    /// keyboard. Calling it again does nothing; without a QGuiApplication it waits for
    /// a later call. A device without an on-screen keyboard never posts.
    static void startTracking();
    static bool isTracking();
};
