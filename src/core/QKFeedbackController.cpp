#include "QKFeedbackController.h"

#include "QKFeedback.h"
#include "QKShakeDetector.h"

#include <QShortcut>

QKFeedbackController::QKFeedbackController(QKViewController *contentController, QObject *parent)
    : QKViewController(parent), m_contentController(contentController), m_shakeDetector(new QKShakeDetector(this))
{
    // Stored only, not attached; owned here so that it goes with this controller.
    if (contentController && !contentController->parentViewController())
        contentController->setParent(this);
    connect(m_shakeDetector, &QKShakeDetector::shaken, this, [this] { motionEnded(MotionShake); });
}

QKFeedbackController::~QKFeedbackController() = default;

void QKFeedbackController::setContentController(QKViewController *controller)
{
    if (controller == this)
        return;
    if (QKViewController *old = m_contentController) {
        if (old->isViewLoaded())
            old->view()->removeFromSuperview();
        old->removeFromParentViewController();
        if (old->parent() == this)
            old->setParent(nullptr);
    }
    m_contentController = controller;
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
    if (subtype == MotionShake && m_showOnShake)
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
    m_shortcut = shortcut;
    if (isViewLoaded())
        installShortcut();
}

void QKFeedbackController::viewDidLoad()
{
    QKViewController::viewDidLoad();
    installShortcut();
    m_shakeDetector->start();
}

void QKFeedbackController::installShortcut()
{
    delete m_shortcutObject.data();
    if (m_shortcut.isEmpty())
        return;
    m_shortcutObject = new QShortcut(
        m_shortcut, view(), [] { QKFeedback::showFeedback(); }, Qt::WindowShortcut);
}
