#include "QKFeedback.h"

#include "../annotation/QKFeedbackSendViewController.h"
#include "../base/QKLocalizedString.h"
#include "../base/QKUnrecognizedSelectorException.h"
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

#include <algorithm>
#include <limits>
#include "../models/QKPalette.h"

namespace {

QKNavigationController *navigationFor(QKViewController *screen, qint64 style)
{
    auto *navigation = new QKNavigationController(screen);
    navigation->navigationBar()->setTranslucent(false);
    navigation->setModalTransitionStyle(int(style));
    navigation->navigationBar()->setTintColor(QKPalette::navigationTint());
    return navigation;
}

// Only the sign and the platform's four styles mean anything: the rest keeps its sign.
QKFeedback::TransitionStyle styleFrom(qint64 style)
{
    return QKFeedback::TransitionStyle(
        std::clamp<qint64>(style, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

} // namespace

class QKFeedbackPrivate
{
public:
    QKFeedbackSendFlow flow;
    bool feedbackIsShown = false;
    QImage screenshot;
    QKFeedback::TransitionStyle transitionStyle = QKFeedback::CoverVertical;
    // The stack opened from the menu; compared only, never dereferenced.
    const QObject *shownStack = nullptr;
    // The send screen of the send under way, for the name screen to be pushed onto.
    QPointer<QKViewController> sender;
    // Where the busy indicator of the last send went, and the stack it closes.
    QPointer<QKViewController> sendingTop;
    QPointer<QKActivityIndicatorView> spinner;
};

QKFeedback::QKFeedback() : d(std::make_unique<QKFeedbackPrivate>())
{
    QKFeedbackSendFlow *flow = &d->flow;
    flow->loadSettings();
    connect(flow, &QKFeedbackSendFlow::nameNeeded, this, [this] {
        auto *name = new QKFeedbackSettingsViewController;
        name->setDelegate(this);
        name->setExitOnBackTouched(false);
        // After the name screen there is no sender: nothing more is pushed.
        if (QKNavigationController *navigation = d->sender ? d->sender->navigationController() : nullptr)
            navigation->pushViewController(name, true);
        else
            delete name;
    });
    connect(flow, &QKFeedbackSendFlow::busyChanged, this, [this](bool busy) {
        if (!busy) {
            if (QKActivityIndicatorView *spinner = d->spinner) {
                spinner->stopAnimating();
                spinner->removeFromSuperview();
                spinner->deleteLater();
            }
            if (QKViewController *top = d->sendingTop) {
                if (QKNavigationController *navigation = top->navigationController())
                    navigation->navigationBar()->setUserInteractionEnabled(true);
                top->view()->setUserInteractionEnabled(true);
            }
            return;
        }
        QKViewController *top = topMostController();
        d->sendingTop = top;
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
        d->spinner = indicator;
    });
    connect(flow, &QKFeedbackSendFlow::alertRequested, this, [](const QString &title, const QString &message) {
        (new QKAlertView(title, message, QKLocalizedString("OK")))->show();
    });
    connect(flow, &QKFeedbackSendFlow::sendFailed, this, [this] {
        // Back on the send screen, its markers intact.
        QKViewController *top = d->sendingTop;
        if (!top)
            return;
        const auto children = top->childViewControllers();
        if (!children.isEmpty() && qobject_cast<QKFeedbackSettingsViewController *>(children.last()))
            if (auto *navigation = qobject_cast<QKNavigationController *>(top))
                navigation->popViewControllerAnimated(true);
    });
    connect(flow, &QKFeedbackSendFlow::sent, this, [this] {
        if (QKViewController *top = d->sendingTop)
            top->dismissViewControllerAnimated(true, [] { sharedInstance()->d->feedbackIsShown = false; });
    });
}

QKFeedback::~QKFeedback() = default;

QKFeedback *QKFeedback::sharedInstance()
{
    static QKFeedback *instance = new QKFeedback;
    return instance;
}

void QKFeedback::showFeedback()
{
    sharedInstance()->showFeedback(CoverVertical);
}

void QKFeedback::setDataSource(const QKFeedbackDataSourcePtr &source)
{
    sharedInstance()->d->flow.setDataSource(source);
}

QKFeedbackDataSourcePtr QKFeedback::dataSource()
{
    return sharedInstance()->d->flow.dataSource();
}

bool QKFeedback::feedbackIsShown()
{
    return sharedInstance()->d->feedbackIsShown;
}

QKFeedbackSettings *QKFeedback::feedbackSettings()
{
    return sharedInstance()->d->flow.feedbackSettings();
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
    return QKFeedbackSendFlow::settingsPath();
}

void QKFeedback::loadSettings()
{
    d->flow.loadSettings();
}

bool QKFeedback::saveSettings()
{
    return d->flow.saveSettings();
}

QKFeedbackSendFlow *QKFeedback::sendFlow() const
{
    return &d->flow;
}
QImage QKFeedback::screenshot() const
{
    return d->screenshot;
}
void QKFeedback::setScreenshot(const QImage &screenshot)
{
    d->screenshot = screenshot;
}
qint64 QKFeedback::transitionStyle() const
{
    return d->transitionStyle;
}
void QKFeedback::setTransitionStyle(TransitionStyle style)
{
    d->transitionStyle = style;
}

void QKFeedback::setTransitionStyle(qint64 style)
{
    setTransitionStyle(styleFrom(style));
}

QVariantMap &QKFeedback::settings()
{
    return d->flow.settings();
}
void QKFeedback::setSettings(const QVariantMap &settings)
{
    d->flow.setSettings(settings);
}
QKFeedbackItemList QKFeedback::feedbackItems() const
{
    return d->flow.feedbackItems();
}
void QKFeedback::setFeedbackItems(const QKFeedbackItemList &items)
{
    d->flow.setFeedbackItems(items);
}
bool QKFeedback::isFeedbackShown() const
{
    return d->feedbackIsShown;
}
void QKFeedback::setFeedbackIsShown(bool shown)
{
    d->feedbackIsShown = shown;
}
bool QKFeedback::showSettingsButtons() const
{
    return d->flow.showsNameButtons();
}

void QKFeedback::showFeedback(qint64 style)
{
    showFeedback(styleFrom(style));
}

void QKFeedback::showFeedback(TransitionStyle style)
{
    if (d->feedbackIsShown)
        return;
    d->feedbackIsShown = true;
    // A stack closed earlier and still waiting for deletion must not clear the flag.
    d->shownStack = nullptr;
    // The screen must not turn under the menu.
    QKDevice::currentDevice()->endGeneratingDeviceOrientationNotifications();
    d->screenshot = takeScreenshot();
    d->transitionStyle = style;
    const QKFeedbackSettings *captions = d->flow.feedbackSettings();
    auto *sheet = new QKActionSheet(captions->feedbackTitle(), this, QKLocalizedString("Cancel"), QString(),
                                    {captions->feedbackMenuSendCaption(), captions->feedbackMenuMyFeedbackCaption(),
                                     captions->feedbackMenuSettingsCaption()});
    QKViewController *top = topMostController();
    sheet->showInView(top ? top->view() : nullptr);
}

void QKFeedback::sendFeedback()
{
    // The platform's façade answers no click message: this entry point raises, on purpose.
    if (!d->feedbackIsShown)
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
        list->setDataSource(d->flow.dataSource());
        screen = list;
        break;
    }
    case 2: {
        // From the menu the name screen only names: no send buttons.
        d->flow.setShowsNameButtons(false);
        auto *name = new QKFeedbackSettingsViewController;
        name->setDelegate(this);
        screen = name;
        break;
    }
    default:
        break;
    }
    if (!screen) {
        d->feedbackIsShown = false;
        return;
    }
    QKViewController *top = topMostController();
    if (!top) {
        delete screen;
        d->feedbackIsShown = false;
        return;
    }
    QKNavigationController *navigation = navigationFor(screen, d->transitionStyle);
    // A host may delete the stack, or the window under it, instead of closing it: then
    // no dismissal clears the flag, and the menu would never open again.
    d->shownStack = navigation;
    connect(navigation, &QObject::destroyed, this, [this](QObject *gone) {
        if (gone == d->shownStack) {
            d->shownStack = nullptr;
            d->feedbackIsShown = false;
        }
    });
    top->presentViewController(navigation, d->transitionStyle >= 0);
}

void QKFeedback::sendViewControllerAction(QKFeedbackSendViewController *sendScreen)
{
    d->flow.setFeedbackItems(sendScreen->feedbackItems());
    send(sendScreen);
}

void QKFeedback::send(QKViewController *sender)
{
    // With nowhere to show the busy indicator nothing is sent, as it always was.
    if (!d->flow.needsName() && !topMostController())
        return;
    d->sender = sender;
    d->flow.send();
    d->sender = nullptr;
}

void QKFeedback::settingsViewControllerInit(QKFeedbackSettingsViewController *screen)
{
    screen->nameTextField()->setText(d->flow.savedName());
    screen->sendAnonymousButton()->setViewHidden(!d->flow.showsNameButtons());
    screen->continueButton()->setViewHidden(!d->flow.showsNameButtons());
}

void QKFeedback::settingsViewController(QKFeedbackSettingsViewController *screen, QKFeedbackSendFlow::NameAction action)
{
    screen->view()->endEditing(true);
    // A resend has no sender: a name still missing pushes nothing.
    const QString name = d->flow.chooseName(action, screen->nameTextField()->text());
    if (action == QKFeedbackSendFlow::SendAnonymous && d->flow.dataSource())
        screen->nameTextField()->setText(name);
}
