#include "QKFeedbackSettingsViewController.h"

#include "../base/QKLocalizedString.h"
#include "../base/QKWhitespace.h"
#include "../core/QKFeedback.h"
#include "../kit/QKBarButtonItem.h"
#include "../kit/QKButton.h"
#include "../kit/QKLabel.h"
#include "../kit/QKNavigationController.h"
#include "../kit/QKTextField.h"
#include "QKFeedbackSettingsViewControllerDelegate.h"
#include "../models/QKPalette.h"

static QKButton *makeButton(const QString &title, bool enabled)
{
    auto *button = new QKButton(QKButton::Custom);
    button->setEnabled(enabled);
    button->setTitle(title, QKButton::Normal);
    button->setTitleColor(QKPalette::secondaryText(), QKButton::Disabled);
    button->setTitleColor(QKPalette::tint(), QKButton::Normal);
    return button;
}

// Through the string form, so that a delegate written against the strings hears it too.
static void report(QKFeedbackSettingsViewControllerDelegate *delegate, QKFeedbackSettingsViewController *screen,
                   QKFeedbackSendFlow::NameAction action)
{
    if (delegate)
        delegate->settingsViewController(screen, QKFeedbackSendFlow::nameActionString(action));
}

QKFeedbackSettingsViewController::QKFeedbackSettingsViewController(QObject *parent) : QKViewController(parent)
{}

QKFeedbackSettingsViewController::~QKFeedbackSettingsViewController() = default;

void QKFeedbackSettingsViewController::viewDidLoad()
{
    QKViewController::viewDidLoad();
    view()->setBackgroundColor(QKPalette::background());

    navigationItem()->setLeftBarButtonItem(new QKBarButtonItem(
        QKLocalizedString("Back"), QKBarButtonItem::Done, [this](QKBarButtonItem *sender) { backTouched(sender); }));

    m_nameDescription = new QKLabel;
    m_nameDescription->setNumberOfLines(0);
    m_nameDescription->setText(QKLocalizedString("Your name will appear on the feedback you are sending."));
    m_nameDescription->setTextColor(QKPalette::secondaryText());
    view()->addSubview(m_nameDescription);

    m_nameTextField = new QKTextField;
    m_nameTextField->setBorderStyle(QKTextField::BorderRoundedRect);
    m_nameTextField->setTintColor(QKPalette::text());
    m_nameTextField->setAutocorrectionType(QKTextField::AutocorrectionNo);
    m_nameTextField->setPlaceholder(QKLocalizedString("Name"));
    m_nameTextField->addTarget(
        this, [this](QKControl *sender) { textFieldDidChange(sender); }, QKControl::EditingChanged);
    view()->addSubview(m_nameTextField);

    m_continueButton = makeButton(QKLocalizedString("Continue"), false);
    m_continueButton->addTarget(
        this, [this](QKControl *) { sendWithName(); }, QKControl::TouchUpInside);
    view()->addSubview(m_continueButton);

    m_sendAnonymousButton = makeButton(QKLocalizedString("Send Anonymously"), true);
    m_sendAnonymousButton->addTarget(
        this, [this](QKControl *) { sendAnonymous(); }, QKControl::TouchUpInside);
    view()->addSubview(m_sendAnonymousButton);

    if (m_delegate)
        m_delegate->settingsViewControllerInit(this);
}

void QKFeedbackSettingsViewController::viewDidLayoutSubviews()
{
    QKViewController::viewDidLayoutSubviews();
    if (!m_nameDescription || !m_nameTextField || !m_continueButton || !m_sendAnonymousButton)
        return;
    const qreal centerX = view()->center().x();
    const QSizeF fitted = m_nameDescription->sizeThatFits(QSizeF(view()->bounds().width() - 20, 0));
    const auto place = [&](QKView *control, qreal top, qreal height) {
        control->setFrame(QRectF(10, top, fitted.width(), height));
        control->setCenter(QPointF(centerX, control->center().y()));
    };
    const auto placeBelow = [&](QKView *control, const QKView *above) {
        control->sizeToFit();
        place(control, above->frame().bottom() + 10, control->frame().height());
    };
    place(m_nameDescription, 10, fitted.height());
    placeBelow(m_nameTextField, m_nameDescription);
    placeBelow(m_continueButton, m_nameTextField);
    // Hidden buttons keep their place, so the column never jumps.
    placeBelow(m_sendAnonymousButton, m_continueButton);
}

void QKFeedbackSettingsViewController::textFieldDidChange(QKControl *)
{
    if (!m_nameTextField || !m_continueButton)
        return;
    // The same blanks the façade trims before it saves: a name of blanks never gets through.
    m_continueButton->setEnabled(!QKTrimmedWhitespace(m_nameTextField->text()).isEmpty());
}

void QKFeedbackSettingsViewController::sendWithName()
{
    report(m_delegate, this, QKFeedbackSendFlow::SendWithName);
}

void QKFeedbackSettingsViewController::sendAnonymous()
{
    report(m_delegate, this, QKFeedbackSendFlow::SendAnonymous);
}

void QKFeedbackSettingsViewController::backTouched(QKBarButtonItem *)
{
    report(m_delegate, this, QKFeedbackSendFlow::Back);
    view()->endEditing(true);
    if (!m_exitOnBackTouched) {
        if (QKNavigationController *navigation = navigationController())
            navigation->popViewControllerAnimated(true);
        return;
    }
    dismissViewControllerAnimated(true, [] { QKFeedback::sharedInstance()->setFeedbackIsShown(false); });
}
