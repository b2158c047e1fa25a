#include "QKFeedbackController.h"

#include "QKFeedback.h"
#include "QKShakeDetector.h"

#include <QPointer>
#include <QShortcut>

class QKFeedbackControllerPrivate
{
public:
    bool showOnShake = true;
    QPointer<QKViewController> contentController;
    QKShakeDetector *shakeDetector = nullptr;
    QKeySequence shortcut;
    QPointer<QShortcut> shortcutObject;
};

QKFeedbackController::QKFeedbackController(QKViewController *contentController, QObject *parent)
    : QKViewController(parent), d(std::make_unique<QKFeedbackControllerPrivate>())
{
    d->contentController = contentController;
    d->shakeDetector = new QKShakeDetector(this);
    // Stored only, not attached; owned here so that it goes with this controller.
    if (contentController && !contentController->parentViewController())
        contentController->setParent(this);
    connect(d->shakeDetector, &QKShakeDetector::shaken, this, [this] { motionEnded(MotionShake); });
}

QKFeedbackController::~QKFeedbackController() = default;

bool QKFeedbackController::showOnShake() const
{
    return d->showOnShake;
}
void QKFeedbackController::setShowOnShake(bool showOnShake)
{
    d->showOnShake = showOnShake;
}
QKViewController *QKFeedbackController::contentController() const
{
    return d->contentController;
}
bool QKFeedbackController::becomeFirstResponder()
{
    return true;
}
QKeySequence QKFeedbackController::shortcut() const
{
    return d->shortcut;
}
QKShakeDetector *QKFeedbackController::shakeDetector() const
{
    return d->shakeDetector;
}

void QKFeedbackController::setContentController(QKViewController *controller)
{
    if (controller == this)
        return;
    if (QKViewController *old = d->contentController) {
        if (old->isViewLoaded())
            old->view()->removeFromSuperview();
        old->removeFromParentViewController();
        if (old->parent() == this)
            old->setParent(nullptr);
    }
    d->contentController = controller;
    if (!controller)
        return;
    addChildViewController(controller);
    QKView *content = controller->view();
    view()->addSubview(content);
    content->setFrame(view()->bounds());
    content->setAutoresizingMask(QKView::FlexibleWidth | QKView::FlexibleHeight);
}

QKFeedbackDataSourcePtr QKFeedbackController::dataSource() const
{
    return QKFeedback::dataSource();
}

void QKFeedbackController::setDataSource(const QKFeedbackDataSourcePtr &source)
{
    QKFeedback::setDataSource(source);
    if (source)
        source->setUserName(QKFeedback::sharedInstance()->settings().value(QStringLiteral("Name")).toString());
}

void QKFeedbackController::motionEnded(int subtype)
{
    if (subtype == MotionShake && d->showOnShake)
        QKFeedback::showFeedback();
}

void QKFeedbackController::showFeedback()
{
    QKFeedback::showFeedback();
}

void QKFeedbackController::sendFeedback()
{
    QKFeedback::sharedInstance()->sendFeedback();
}

void QKFeedbackController::setShortcut(const QKeySequence &shortcut)
{
    d->shortcut = shortcut;
    if (isViewLoaded())
        installShortcut();
}

void QKFeedbackController::viewDidLoad()
{
    QKViewController::viewDidLoad();
    installShortcut();
    d->shakeDetector->start();
}

void QKFeedbackController::installShortcut()
{
    delete d->shortcutObject.data();
    if (d->shortcut.isEmpty())
        return;
    d->shortcutObject = new QShortcut(
        d->shortcut, view(), [] { QKFeedback::showFeedback(); }, Qt::WindowShortcut);
}
