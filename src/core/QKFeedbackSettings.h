#pragma once

#include "../kit/QKGlobalKit.h"

#include <QString>

/// The captions of the feedback menu and of the alert after a send, and the switch
/// for that alert. The defaults are the English texts through QKLocalizedString,
/// taken once, when the object is made. A host may change any of them before the
/// menu is shown.
class MURMORA_EXPORT QKFeedbackSettings
{
public:
    QKFeedbackSettings();

    bool showFeedbackSentAlert = true;
    QString feedbackSentAlertTitle;
    QString feedbackSentAlertText;
    QString feedbackTitle;
    QString feedbackMenuSendCaption;
    QString feedbackMenuSettingsCaption;
    QString feedbackMenuMyFeedbackCaption;
};
