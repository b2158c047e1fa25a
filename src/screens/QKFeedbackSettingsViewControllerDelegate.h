#pragma once

#include "../kit/QKGlobalKit.h"
#include "../models/QKFeedbackSendFlow.h"

#include <QString>

class QKFeedbackSettingsViewController;

/// Told by the name screen when it has loaded and when the user chose an action:
/// SendWithName (Continue), SendAnonymous (Send Anonymously) or Back. Every call has an
/// empty default: a delegate that implements none gets nothing.
class MURMORA_EXPORT QKFeedbackSettingsViewControllerDelegate
{
public:
    virtual ~QKFeedbackSettingsViewControllerDelegate() = default;
    virtual void settingsViewControllerInit(QKFeedbackSettingsViewController *screen);
    /// The action chosen; what delegates implement.
    virtual void settingsViewController(QKFeedbackSettingsViewController *screen,
                                        QKFeedbackSendFlow::NameAction action);
    /// The same action in its old string form ("SendWithName", "SendAnonymous", "" for
    /// Back). The screen calls this one, so that a delegate written against the strings
    /// still hears every action; by default it forwards to the typed one.
    virtual void settingsViewController(QKFeedbackSettingsViewController *screen, const QString &action);
};
