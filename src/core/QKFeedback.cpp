#include "QKFeedback.h"

#include "../annotation/QKFeedbackSendViewController.h"
#include "../base/QKArchiveException.h"
#include "../base/QKDispatch.h"
#include "../base/QKDocumentsDirectory.h"
#include "../base/QKKeyedArchiver.h"
#include "../base/QKKeyedUnarchiver.h"
#include "../base/QKLocalizedString.h"
#include "../base/QKUnrecognizedSelectorException.h"
#include "../base/QKWhitespace.h"
#include "../kit/QKActionSheet.h"
#include "../kit/QKActivityIndicatorView.h"
#include "../kit/QKAlertView.h"
#include "../kit/QKButton.h"
#include "../kit/QKDevice.h"
#include "../kit/QKNavigationBar.h"
#include "../kit/QKNavigationController.h"
#include "../kit/QKTextField.h"
#include "../kit/QKWindow.h"
#include "../screens/QKFeedbackSettingsViewController.h"
#include "../screens/QKFeedbackYourItemsViewController.h"

#include <QPointer>

namespace {

const QString NameKey = QStringLiteral("Name");

QKNavigationController *navigationFor(QKViewController *screen, qint64 style)
{
    auto *navigation = new QKNavigationController(screen);
    navigation->navigationBar()->setTranslucent(false);
    navigation->setModalTransitionStyle(int(style));
    navigation->navigationBar()->setTintColor(QColor::fromRgbF(10 / 255.0, 96 / 255.0, 1.0, 1.0));
    return navigation;
}

} // namespace

QKFeedback::QKFeedback()
{
    loadSettings();
}

QKFeedback *QKFeedback::sharedInstance()
{
    static QKFeedback *instance = new QKFeedback;
    return instance;
}

void QKFeedback::showFeedback()
{
    sharedInstance()->showFeedback(0);
}

void QKFeedback::setDataSource(const QKFeedbackDataSourcePtr &source)
{
    QKFeedback *shared = sharedInstance();
    if (source)
        source->setUserName(shared->m_settings.value(NameKey).toString());
    shared->m_dataSource = source;
}

QKFeedbackDataSourcePtr QKFeedback::dataSource()
{
    return sharedInstance()->m_dataSource;
}

bool QKFeedback::feedbackIsShown()
{
    return sharedInstance()->m_feedbackIsShown;
}

QKFeedbackSettings *QKFeedback::feedbackSettings()
{
    return &sharedInstance()->m_feedbackSettings;
}

QKViewController *QKFeedback::topMostController()
{
    QKWindow *window = QKWindow::keyWindow();
    return window ? window->topMostController() : nullptr;
}

QImage QKFeedback::takeScreenshot()
{
    // The root's view only: controllers presented over it are not in the picture.
    QKWindow *window = QKWindow::keyWindow();
    QKViewController *root = window ? window->rootViewController() : nullptr;
    return root ? root->view()->snapshot() : QImage();
}

QString QKFeedback::settingsPath()
{
    return QKDocumentsDirectory() + QStringLiteral("/qkfeedback.settings.plist");
}

void QKFeedback::loadSettings()
{
    QVariant loaded;
    try {
        loaded = QKKeyedUnarchiver::unarchiveObjectWithFile(settingsPath());
    } catch (const QKArchiveException &) {
        // An unreadable file counts as none: the defaults apply.
    }
    if (loaded.metaType().id() == QMetaType::QVariantMap)
        m_settings = loaded.toMap();
    else
        m_settings = QVariantMap{{NameKey, QStringLiteral("")}};
}

bool QKFeedback::saveSettings()
{
    return QKKeyedArchiver::archiveRootObject(m_settings, settingsPath());
}

void QKFeedback::showFeedback(qint64 style)
{
    if (m_feedbackIsShown)
        return;
    m_feedbackIsShown = true;
    // A stack closed earlier and still waiting for deletion must not clear the flag.
    m_shownStack = nullptr;
    // The screen must not turn under the menu.
    QKDevice::currentDevice()->endGeneratingDeviceOrientationNotifications();
    m_screenshot = takeScreenshot();
    m_transitionStyle = style;
    auto *sheet =
        new QKActionSheet(m_feedbackSettings.feedbackTitle, this, QKLocalizedString("Cancel"), QString(),
                          {m_feedbackSettings.feedbackMenuSendCaption, m_feedbackSettings.feedbackMenuMyFeedbackCaption,
                           m_feedbackSettings.feedbackMenuSettingsCaption});
    QKViewController *top = topMostController();
    sheet->showInView(top ? top->view() : nullptr);
}

void QKFeedback::sendFeedback()
{
    // The platform's façade answers no click message: this entry point raises, on purpose.
    if (!m_feedbackIsShown)
        throw QKUnrecognizedSelectorException(QStringLiteral("QKFeedback"),
                                              QStringLiteral("actionSheet:clickedButtonAtIndex:"), this);
}

void QKFeedback::actionSheetDidDismissWithButtonIndex(QKActionSheet *, int buttonIndex)
{
    QKDevice::currentDevice()->beginGeneratingDeviceOrientationNotifications();
    QKViewController *screen = nullptr;
    switch (buttonIndex) {
    case 0: {
        auto *send = new QKFeedbackSendViewController;
        send->setDelegate(this);
        screen = send;
        break;
    }
    case 1: {
        auto *list = new QKFeedbackYourItemsViewController;
        list->setDataSource(m_dataSource);
        screen = list;
        break;
    }
    case 2: {
        m_showSettingsButtons = false;
        auto *name = new QKFeedbackSettingsViewController;
        name->setDelegate(this);
        screen = name;
        break;
    }
    default:
        break;
    }
    if (!screen) {
        m_feedbackIsShown = false;
        return;
    }
    QKViewController *top = topMostController();
    if (!top) {
        delete screen;
        m_feedbackIsShown = false;
        return;
    }
    QKNavigationController *navigation = navigationFor(screen, m_transitionStyle);
    // A host may delete the stack, or the window under it, instead of closing it: then
    // no dismissal clears the flag, and the menu would never open again.
    m_shownStack = navigation;
    connect(navigation, &QObject::destroyed, this, [this](QObject *gone) {
        if (gone == m_shownStack) {
            m_shownStack = nullptr;
            m_feedbackIsShown = false;
        }
    });
    top->presentViewController(navigation, m_transitionStyle >= 0);
}

void QKFeedback::sendViewControllerAction(QKFeedbackSendViewController *sendScreen)
{
    m_feedbackItems = sendScreen->feedbackItems();
    send(sendScreen);
}

void QKFeedback::send(QKViewController *sender)
{
    const QString userName = m_dataSource ? m_dataSource->userName() : QString();
    if (userName.isEmpty()) {
        m_showSettingsButtons = true;
        auto *name = new QKFeedbackSettingsViewController;
        name->setDelegate(this);
        name->setExitOnBackTouched(false);
        if (QKNavigationController *navigation = sender ? sender->navigationController() : nullptr)
            navigation->pushViewController(name, true);
        else
            delete name;
        return;
    }

    QKViewController *top = topMostController();
    if (!top)
        return;
    // In this flow `top` is the navigation controller itself, which has no navigation
    // controller of its own; both switches are kept.
    if (QKNavigationController *navigation = top->navigationController())
        navigation->navigationBar()->setUserInteractionEnabled(false);
    top->view()->setUserInteractionEnabled(false);

    auto *indicator = new QKActivityIndicatorView(QKActivityIndicatorView::Gray);
    const QRectF bounds = top->view()->bounds();
    const QSizeF size = indicator->frame().size();
    indicator->setFrame(QRectF(bounds.width() / 2 - size.width() / 2, bounds.height() / 2 - size.height() / 2,
                               size.width(), size.height()));
    top->view()->addSubview(indicator);
    indicator->startAnimating();

    QPointer<QKActivityIndicatorView> spinner(indicator);
    QPointer<QKViewController> shown(top);
    m_dataSource->addFeedbackItems(m_feedbackItems, [this, spinner, shown](std::optional<QKError> error) {
        QKDispatch::async(QKDispatch::mainQueue(), [this, spinner, shown, error] {
            QKAssertMainThread();
            if (spinner) {
                spinner->stopAnimating();
                spinner->removeFromSuperview();
                spinner->deleteLater();
            }
            const QString message = error ? error->message() : m_feedbackSettings.feedbackSentAlertText;
            auto *alert = new QKAlertView(m_feedbackSettings.feedbackSentAlertTitle, message, QKLocalizedString("OK"));
            // The switch silences failures as well as successes.
            if (m_feedbackSettings.showFeedbackSentAlert)
                alert->show();
            else
                alert->deleteLater();
            if (!shown)
                return;
            if (QKNavigationController *navigation = shown->navigationController())
                navigation->navigationBar()->setUserInteractionEnabled(true);
            shown->view()->setUserInteractionEnabled(true);
            if (error) {
                const auto children = shown->childViewControllers();
                if (!children.isEmpty() && qobject_cast<QKFeedbackSettingsViewController *>(children.last()))
                    if (auto *navigation = qobject_cast<QKNavigationController *>(shown.data()))
                        navigation->popViewControllerAnimated(true);
                return;
            }
            shown->dismissViewControllerAnimated(true, [] { sharedInstance()->m_feedbackIsShown = false; });
        });
    });
}

void QKFeedback::settingsViewControllerInit(QKFeedbackSettingsViewController *screen)
{
    screen->nameTextField()->setText(m_settings.value(NameKey).toString());
    screen->sendAnonymousButton()->setHidden(!m_showSettingsButtons);
    screen->continueButton()->setHidden(!m_showSettingsButtons);
}

void QKFeedback::settingsViewController(QKFeedbackSettingsViewController *screen, const QString &action)
{
    screen->view()->endEditing(true);
    if (m_dataSource) {
        if (action == QLatin1String("SendAnonymous")) {
            m_dataSource->setUserName(QKLocalizedString("Anonymous"));
            screen->nameTextField()->setText(m_dataSource->userName());
        } else {
            m_dataSource->setUserName(QKTrimmedWhitespace(screen->nameTextField()->text()));
        }
        if (!m_dataSource->userName().isNull())
            m_settings.insert(NameKey, m_dataSource->userName());
    }
    saveSettings();
    if (!action.isEmpty())
        send(nullptr);
}
