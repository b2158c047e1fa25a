#include "QKFeedbackSettings.h"

#include "../base/QKLocalizedString.h"

class QKFeedbackSettingsPrivate
{
public:
    bool showFeedbackSentAlert = true;
    QString feedbackSentAlertTitle = QKLocalizedString("Wendax platform");
    QString feedbackSentAlertText = QKLocalizedString("Your feedback was sent");
    QString feedbackTitle = QKLocalizedString("Murmora");
    QString feedbackMenuSendCaption = QKLocalizedString("Send feedback");
    QString feedbackMenuSettingsCaption = QKLocalizedString("Settings");
    QString feedbackMenuMyFeedbackCaption = QKLocalizedString("Your feedback");
};

QKFeedbackSettings::QKFeedbackSettings() : d(new QKFeedbackSettingsPrivate)
{}
QKFeedbackSettings::QKFeedbackSettings(const QKFeedbackSettings &other) : d(new QKFeedbackSettingsPrivate(*other.d))
{}
QKFeedbackSettings &QKFeedbackSettings::operator=(const QKFeedbackSettings &other)
{
    *d = *other.d;
    return *this;
}
QKFeedbackSettings::~QKFeedbackSettings() = default;

bool QKFeedbackSettings::showFeedbackSentAlert() const
{
    return d->showFeedbackSentAlert;
}
void QKFeedbackSettings::setShowFeedbackSentAlert(bool show)
{
    d->showFeedbackSentAlert = show;
}
QString QKFeedbackSettings::feedbackSentAlertTitle() const
{
    return d->feedbackSentAlertTitle;
}
void QKFeedbackSettings::setFeedbackSentAlertTitle(const QString &title)
{
    d->feedbackSentAlertTitle = title;
}
QString QKFeedbackSettings::feedbackSentAlertText() const
{
    return d->feedbackSentAlertText;
}
void QKFeedbackSettings::setFeedbackSentAlertText(const QString &text)
{
    d->feedbackSentAlertText = text;
}
QString QKFeedbackSettings::feedbackTitle() const
{
    return d->feedbackTitle;
}
void QKFeedbackSettings::setFeedbackTitle(const QString &title)
{
    d->feedbackTitle = title;
}
QString QKFeedbackSettings::feedbackMenuSendCaption() const
{
    return d->feedbackMenuSendCaption;
}
void QKFeedbackSettings::setFeedbackMenuSendCaption(const QString &caption)
{
    d->feedbackMenuSendCaption = caption;
}
QString QKFeedbackSettings::feedbackMenuSettingsCaption() const
{
    return d->feedbackMenuSettingsCaption;
}
void QKFeedbackSettings::setFeedbackMenuSettingsCaption(const QString &caption)
{
    d->feedbackMenuSettingsCaption = caption;
}
QString QKFeedbackSettings::feedbackMenuMyFeedbackCaption() const
{
    return d->feedbackMenuMyFeedbackCaption;
}
void QKFeedbackSettings::setFeedbackMenuMyFeedbackCaption(const QString &caption)
{
    d->feedbackMenuMyFeedbackCaption = caption;
}
