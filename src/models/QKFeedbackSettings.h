#pragma once

#include "../base/QKGlobal.h"

#include <QMetaType>
#include <QScopedPointer>
#include <QString>

class QKFeedbackSettingsPrivate;

/// The captions of the feedback menu and of the alert after a send, and the switch
/// for that alert. The defaults are the English texts through QKLocalizedString,
/// taken once, when the object is made; a host may change any of them before the
/// menu is shown. Both front ends read the façade's one instance.
///
/// A plain value owned by whoever made it (the façade owns the shared one). Not
/// thread-safe: read and change it on the main thread.
class MURMORA_DATA_EXPORT QKFeedbackSettings
{
    Q_GADGET
    Q_PROPERTY(bool showFeedbackSentAlert READ showFeedbackSentAlert WRITE setShowFeedbackSentAlert)
    Q_PROPERTY(QString feedbackSentAlertTitle READ feedbackSentAlertTitle WRITE setFeedbackSentAlertTitle)
    Q_PROPERTY(QString feedbackSentAlertText READ feedbackSentAlertText WRITE setFeedbackSentAlertText)
    Q_PROPERTY(QString feedbackTitle READ feedbackTitle WRITE setFeedbackTitle)
    Q_PROPERTY(QString feedbackMenuSendCaption READ feedbackMenuSendCaption WRITE setFeedbackMenuSendCaption)
    Q_PROPERTY(
        QString feedbackMenuSettingsCaption READ feedbackMenuSettingsCaption WRITE setFeedbackMenuSettingsCaption)
    Q_PROPERTY(
        QString feedbackMenuMyFeedbackCaption READ feedbackMenuMyFeedbackCaption WRITE setFeedbackMenuMyFeedbackCaption)
public:
    /// Captions with the default texts, translated at this moment.
    QKFeedbackSettings();
    /// A copy with the same captions.
    QKFeedbackSettings(const QKFeedbackSettings &other);
    /// Takes `other`'s captions.
    QKFeedbackSettings &operator=(const QKFeedbackSettings &other);
    ~QKFeedbackSettings();

    /// Whether an alert follows a send, for a success and a failure alike: when off, a
    /// failed send only returns to the send screen with its markers. True by default.
    bool showFeedbackSentAlert() const;
    /// Turns the alert after a send on or off.
    void setShowFeedbackSentAlert(bool show);
    /// The alert's title; "Wendax platform" by default.
    QString feedbackSentAlertTitle() const;
    /// Sets the alert's title.
    void setFeedbackSentAlertTitle(const QString &title);
    /// The alert's text after a successful send; "Your feedback was sent" by default.
    QString feedbackSentAlertText() const;
    /// Sets the alert's text.
    void setFeedbackSentAlertText(const QString &text);
    /// The menu's title; "Murmora" by default.
    QString feedbackTitle() const;
    /// Sets the menu's title.
    void setFeedbackTitle(const QString &title);
    /// The menu's first button; "Send feedback" by default.
    QString feedbackMenuSendCaption() const;
    /// Sets the menu's first button.
    void setFeedbackMenuSendCaption(const QString &caption);
    /// The menu's third button, to the name screen; "Settings" by default.
    QString feedbackMenuSettingsCaption() const;
    /// Sets the menu's third button.
    void setFeedbackMenuSettingsCaption(const QString &caption);
    /// The menu's second button, to the list; "Your feedback" by default.
    QString feedbackMenuMyFeedbackCaption() const;
    /// Sets the menu's second button.
    void setFeedbackMenuMyFeedbackCaption(const QString &caption);

private:
    QScopedPointer<QKFeedbackSettingsPrivate> d;
};
