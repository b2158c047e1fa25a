#pragma once

#include "QKGlobalKit.h"

#include <QRectF>

/// The primary screen as the platform describes it. Main thread only.
class MURMORA_EXPORT QKScreen
{
public:
    static QKScreen *mainScreen();

    /// In points (device-independent pixels), at the origin; empty without a screen
    /// or a size from QKDeviceInfo's provider.
    QRectF bounds() const;
    /// Pixels per point; 1 without a screen.
    qreal scale() const;

private:
    QKScreen() = default;
};
