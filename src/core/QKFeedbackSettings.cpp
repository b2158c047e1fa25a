#include "QKFeedbackSettings.h"

#include "../base/QKLocalizedString.h"

QKFeedbackSettings::QKFeedbackSettings()
{
    feedbackSentAlertText = QKLocalizedString("Your feedback was sent");
    feedbackSentAlertTitle = QKLocalizedString("Wendax platform");
    feedbackMenuSendCaption = QKLocalizedString("Send feedback");
    feedbackMenuSettingsCaption = QKLocalizedString("Settings");
    feedbackMenuMyFeedbackCaption = QKLocalizedString("Your feedback");
    feedbackTitle = QKLocalizedString("Murmora");
    showFeedbackSentAlert = true;
}
