#pragma once

#include "../kit/QKButton.h"
#include "../kit/QKLabel.h"
#include "../kit/QKTextField.h"
#include "../kit/QKViewController.h"

#include <QPointer>
#include <QVariantMap>

class QKBarButtonItem;
class QKFeedbackSettingsViewControllerDelegate;

/// The small screen where the user types the name their feedback goes out under, or
/// chooses to send anonymously. It decides nothing itself: it reports the choice to
/// its delegate, which fills and reads the controls.
///
/// Made fresh for every showing. Back closes the whole presented stack when
/// exitOnBackTouched is true (the default), and pops only this screen otherwise.
class MURMORA_EXPORT QKFeedbackSettingsViewController : public QKViewController
{
    Q_OBJECT
public:
    explicit QKFeedbackSettingsViewController(QObject *parent = nullptr);
    ~QKFeedbackSettingsViewController() override;

    void viewDidLoad() override;
    void viewDidLayoutSubviews() override;

    /// Continue is enabled exactly when the text, without blanks at its ends (tabs and
    /// every Unicode space, as QKTrimmedWhitespace), is not empty.
    void textFieldDidChange(QKControl *field);
    /// Tells the delegate "SendWithName" / "SendAnonymous"; nothing else.
    void sendWithName();
    void sendAnonymous();
    /// Tells the delegate "", closes the keyboard, then pops or closes the stack.
    void backTouched(QKBarButtonItem *sender);

    /// Kept for the delegate; the screen itself does not read it.
    bool showButtons() const { return m_showButtons; }
    void setShowButtons(bool show) { m_showButtons = show; }
    bool exitOnBackTouched() const { return m_exitOnBackTouched; }
    void setExitOnBackTouched(bool exit) { m_exitOnBackTouched = exit; }

    /// The controls exist once the view is loaded; the view owns them, the setters
    /// only change which one the screen refers to.
    QKTextField *nameTextField() const { return m_nameTextField; }
    void setNameTextField(QKTextField *field) { m_nameTextField = field; }
    QKLabel *nameDescription() const { return m_nameDescription; }
    void setNameDescription(QKLabel *label) { m_nameDescription = label; }
    QKButton *continueButton() const { return m_continueButton; }
    void setContinueButton(QKButton *button) { m_continueButton = button; }
    QKButton *sendAnonymousButton() const { return m_sendAnonymousButton; }
    void setSendAnonymousButton(QKButton *button) { m_sendAnonymousButton = button; }

    /// Kept for the delegate; the screen itself does not read it.
    QVariantMap &settings() { return m_settings; }
    const QVariantMap &settings() const { return m_settings; }
    void setSettings(const QVariantMap &settings) { m_settings = settings; }

    /// Not owned; whoever sets it keeps it alive while the screen is shown.
    QKFeedbackSettingsViewControllerDelegate *delegate() const { return m_delegate; }
    void setDelegate(QKFeedbackSettingsViewControllerDelegate *delegate) { m_delegate = delegate; }

private:
    bool m_showButtons = false;
    bool m_exitOnBackTouched = true;
    QPointer<QKTextField> m_nameTextField;
    QPointer<QKLabel> m_nameDescription;
    QPointer<QKButton> m_continueButton;
    QPointer<QKButton> m_sendAnonymousButton;
    QVariantMap m_settings;
    QKFeedbackSettingsViewControllerDelegate *m_delegate = nullptr;
};
