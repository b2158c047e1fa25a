#pragma once

#include "QKGlobalKit.h"

class QKWindow;

/// The running application as the screens ask about it. Main thread only.
class MURMORA_EXPORT QKApplication
{
public:
    /// The platform's interface numbering, which swaps the device's landscape sides.
    enum InterfaceOrientation {
        InterfaceOrientationPortrait = 1,
        InterfaceOrientationPortraitUpsideDown = 2,
        InterfaceOrientationLandscapeRight = 3,
        InterfaceOrientationLandscapeLeft = 4,
    };

    static QKApplication *sharedApplication();

    /// From the primary screen's orientation; portrait when it is unknown.
    InterfaceOrientation statusBarOrientation() const;
    /// QKWindow::keyWindow().
    QKWindow *keyWindow() const;

private:
    QKApplication() = default;
};
