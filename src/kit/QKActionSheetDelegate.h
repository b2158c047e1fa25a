#pragma once

#include "QKGlobalKit.h"

class QKActionSheet;

/// Told what became of a QKActionSheet. The sheet holds its delegate weakly: a
/// delegate that is also a QObject is dropped when destroyed; any other must outlive
/// the sheet.
class MURMORA_EXPORT QKActionSheetDelegate
{
public:
    virtual ~QKActionSheetDelegate() = default;

    /// A button was tapped (or the dimmed area, for the cancel button); the sheet is
    /// about to slide away. Not called for dismissWithClickedButtonIndex.
    virtual void actionSheetClickedButtonAtIndex(QKActionSheet *sheet, int buttonIndex)
    {
        Q_UNUSED(sheet);
        Q_UNUSED(buttonIndex);
    }
    /// The sheet is gone from the screen; it deletes itself after this returns.
    virtual void actionSheetDidDismissWithButtonIndex(QKActionSheet *sheet, int buttonIndex) = 0;
};
