#pragma once

#include "../kit/QKGlobalKit.h"

#include <QString>

class QKFeedbackSettingsViewController;

/// Told by the name screen when it has loaded and when the user chose an action:
/// "SendWithName" (Continue), "SendAnonymous" (Send Anonymously) or "" (Back).
/// Both have empty defaults: a delegate that implements neither gets nothing.
class MURMORA_EXPORT QKFeedbackSettingsViewControllerDelegate
{
public:
    virtual ~QKFeedbackSettingsViewControllerDelegate() = default;
    virtual void settingsViewControllerInit(QKFeedbackSettingsViewController *screen);
    virtual void settingsViewController(QKFeedbackSettingsViewController *screen, const QString &action);
};
