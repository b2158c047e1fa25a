#include "QKViewController.h"

#include "QKAnimation.h"
#include "QKNavigationController.h"
#include "QKWindow.h"

#include <QGuiApplication>
#include <QScreen>
#include <QTimer>
#include <QVariantAnimation>

namespace {

constexpr double TransitionSeconds = 0.35;

QSizeF screenSize()
{
    const QScreen *screen = QGuiApplication::primaryScreen();
    return screen ? QSizeF(screen->geometry().size()) : QSizeF(320, 480);
}

// Cross dissolves and flips go through the view's opacity.
void fade(QKView *view, qreal from, qreal to, std::function<void()> done)
{
    view->setAlpha(from);
    auto *animation = new QVariantAnimation(view);
    animation->setStartValue(from);
    animation->setEndValue(to);
    animation->setDuration(QKAnimation::animationsEnabled() ? int(TransitionSeconds * 1000) : 0);
    QObject::connect(animation, &QVariantAnimation::valueChanged, view,
                     [view](const QVariant &value) { view->setAlpha(value.toReal()); });
    QObject::connect(animation, &QAbstractAnimation::finished, view, [view, to, done] {
        view->setAlpha(to);
        if (done)
            QTimer::singleShot(0, done);
    });
    animation->start(QAbstractAnimation::DeleteWhenStopped);
}

void later(std::function<void()> block)
{
    if (block)
        QTimer::singleShot(0, std::move(block));
}

} // namespace

QKViewController::QKViewController(QObject *parent) : QObject(parent)
{}

QKViewController::~QKViewController()
{
    if (m_view) {
        m_view->m_viewController = nullptr;
        delete m_view.data();
    }
}

QKView *QKViewController::view()
{
    if (!m_view && !m_loading) {
        m_loading = true;
        loadView();
        if (!m_view)
            setView(new QKView(QRectF(QPointF(0, 0), screenSize())));
        m_loading = false;
        viewDidLoad();
    }
    return m_view;
}

void QKViewController::setView(QKView *view)
{
    if (m_view == view)
        return;
    if (m_view)
        m_view->m_viewController = nullptr;
    m_view = view;
    if (view)
        view->m_viewController = this;
}

void QKViewController::loadView()
{}

void QKViewController::viewDidLoad()
{}

void QKViewController::viewDidLayoutSubviews()
{}

void QKViewController::touchesEnded(const QPointF &location)
{
    if (m_view)
        if (QKView *superview = m_view->superview())
            superview->touchesEnded(m_view->convertPointToView(location, superview));
}

void QKViewController::setTitle(const QString &title)
{
    m_title = title;
    emit titleChanged();
}

QKNavigationItem *QKViewController::navigationItem()
{
    if (!m_navigationItem)
        m_navigationItem = new QKNavigationItem(this);
    return m_navigationItem;
}

QKNavigationController *QKViewController::navigationController() const
{
    for (QKViewController *parent = m_parent; parent; parent = parent->m_parent)
        if (auto *navigation = qobject_cast<QKNavigationController *>(parent))
            return navigation;
    return nullptr;
}

void QKViewController::addChildViewController(QKViewController *child)
{
    if (!child || child->m_parent == this)
        return;
    child->removeFromParentViewController();
    child->m_parent = this;
    child->setParent(this);
    m_children.append(child);
}

void QKViewController::removeFromParentViewController()
{
    if (!m_parent)
        return;
    m_parent->m_children.removeAll(this);
    m_parent = nullptr;
    setParent(nullptr);
    if (m_view)
        m_view->removeFromSuperview();
}

void QKViewController::prepareViewForDisplay(const QRectF &frame)
{
    QKView *root = view();
    root->setFrame(frame);
    // The first display always lays out, as the platform does, even at an unchanged size.
    root->setNeedsLayout();
    root->layoutIfNeeded();
}

void QKViewController::presentViewController(QKViewController *controller, bool animated,
                                             std::function<void()> completion)
{
    // Shown in the presenter's own window; the key window when it is not in one.
    QKWindow *window = nullptr;
    for (QWidget *widget = isViewLoaded() ? m_view.data() : nullptr; widget && !window; widget = widget->parentWidget())
        window = qobject_cast<QKWindow *>(widget);
    if (!window)
        window = QKWindow::keyWindow();
    if (!controller || m_presented || !window) {
        qWarning("QKViewController: cannot present %s", controller ? controller->metaObject()->className() : "nothing");
        return;
    }
    m_presented = controller;
    controller->m_presenting = this;
    controller->setParent(this);
    const QRectF bounds = window->bounds();
    QKView *shown = controller->view();
    shown->setAutoresizingMask(QKView::FlexibleWidth | QKView::FlexibleHeight);
    const int style = controller->m_transitionStyle;
    const bool slide = animated && style != CrossDissolve && style != FlipHorizontal;
    controller->prepareViewForDisplay(slide ? bounds.translated(0, bounds.height()) : bounds);
    window->presentView(shown);
    if (!animated) {
        later(std::move(completion));
        return;
    }
    if (!slide) {
        fade(shown, 0.0, 1.0, std::move(completion));
        return;
    }
    QKAnimation::animate(
        TransitionSeconds, 0.0, QKAnimation::CurveEaseOut, [shown, bounds] { shown->setFrame(bounds); },
        [completion](bool) {
            if (completion)
                completion();
        });
}

void QKViewController::dismissViewControllerAnimated(bool animated, std::function<void()> completion)
{
    // On the presenting side: close what it presents; on the presented side (or inside a
    // presented container): close that presented controller.
    QKViewController *holder = this;
    while (holder && !holder->m_presented && !holder->m_presenting)
        holder = holder->m_parent;
    QKViewController *target = !holder ? nullptr : (holder->m_presented ? holder->m_presented.data() : holder);
    if (!target) {
        later(std::move(completion));
        return;
    }
    QKViewController *presenter = target->m_presenting;
    // Everything presented above the target goes at once, without animation.
    QList<QKViewController *> above;
    for (QKViewController *c = target->m_presented; c; c = c->m_presented)
        above.prepend(c);
    for (QKViewController *c : above)
        if (c->m_view)
            c->m_view->setViewHidden(true);
    presenter->m_presented = nullptr;
    QPointer<QKViewController> doomed(target);
    auto finish = [doomed, completion] {
        if (doomed) {
            if (doomed->m_view)
                doomed->m_view->setViewHidden(true);
            doomed->deleteLater();
        }
        if (completion)
            completion();
    };
    QKView *shown = target->m_view;
    if (!animated || !shown) {
        if (shown)
            shown->setViewHidden(true);
        later(finish);
        return;
    }
    const int style = target->m_transitionStyle;
    if (style == CrossDissolve || style == FlipHorizontal) {
        fade(shown, 1.0, 0.0, finish);
        return;
    }
    const QRectF away = shown->frame().translated(0, shown->frame().height());
    QKAnimation::animate(
        TransitionSeconds, 0.0, QKAnimation::CurveEaseIn, [shown, away] { shown->setFrame(away); },
        [finish](bool) { finish(); });
}
