#include "QKNavigationController.h"

#include "QKAnimation.h"
#include "QKNavigationBar.h"

#include "../base/QKLocalizedString.h"

#include <QTimer>

namespace {
constexpr double PushSeconds = 0.3;
}

QKNavigationController::QKNavigationController(QKViewController *rootViewController, QObject *parent)
    : QKViewController(parent)
{
    if (rootViewController)
        adopt(rootViewController);
}

void QKNavigationController::adopt(QKViewController *controller)
{
    addChildViewController(controller);
    m_stack.append(controller);
    // The pointer is only compared once the object is gone, never used.
    connect(controller, &QObject::destroyed, this, [this, controller] { forget(controller); });
}

// A host may delete a screen itself: it leaves the stack, and the one below shows.
void QKNavigationController::forget(QKViewController *gone)
{
    const qsizetype at = m_stack.indexOf(gone);
    if (at < 0)
        return;
    const bool wasTop = at == m_stack.size() - 1;
    m_stack.removeAt(at);
    if (wasTop && isViewLoaded())
        showTop();
}

QKNavigationBar *QKNavigationController::navigationBar()
{
    view();
    return m_bar;
}

void QKNavigationController::loadView()
{
    auto *root = new QKView(QRectF(0, 0, 320, 480));
    root->setBackgroundColor(Qt::white);
    m_bar = new QKNavigationBar;
    m_bar->setFrame(QRectF(0, 0, root->frame().width(), BarHeight));
    m_bar->setAutoresizingMask(QKView::FlexibleWidth);
    root->addSubview(m_bar);
    setView(root);
    showTop();
}

QRectF QKNavigationController::contentFrame() const
{
    const QRectF bounds = m_bar->superview()->bounds();
    if (m_bar->isTranslucent())
        return bounds;
    return QRectF(0, BarHeight, bounds.width(), qMax(0.0, bounds.height() - BarHeight));
}

void QKNavigationController::showTop()
{
    QKViewController *top = topViewController();
    if (!m_bar)
        return;
    if (!top) {
        m_bar->setItem(nullptr, QString());
        return;
    }
    // Loaded first: screens set their title while their view loads.
    QKView *content = top->view();
    m_bar->setItem(top->navigationItem(), top->title());
    // A pushed screen without a left button of its own gets a way back.
    if (m_stack.size() > 1) {
        const QString previous = m_stack.at(m_stack.size() - 2)->title();
        const QString title = previous.isEmpty() ? QKLocalizedString("Back") : previous;
        m_bar->setBackItem(new QKBarButtonItem(QStringLiteral("\u2039 ") + title, QKBarButtonItem::Plain,
                                               [this](QKBarButtonItem *) { popViewControllerAnimated(true); }));
    } else {
        m_bar->setBackItem(nullptr);
    }
    content->setAutoresizingMask(QKView::FlexibleWidth | QKView::FlexibleHeight);
    if (content->superview() != view())
        view()->addSubview(content);
    top->prepareViewForDisplay(contentFrame());
    content->setViewHidden(false);
    view()->bringSubviewToFront(m_bar);
    // The bar follows the title of whichever controller is on top.
    disconnect(m_titleConnection);
    m_titleConnection = connect(top, &QKViewController::titleChanged, m_bar,
                                [this, top] { m_bar->setItem(top->navigationItem(), top->title()); });
}

void QKNavigationController::viewDidLayoutSubviews()
{
    if (QKViewController *top = topViewController(); top && top->isViewLoaded())
        top->view()->setFrame(contentFrame());
}

void QKNavigationController::pushViewController(QKViewController *controller, bool animated)
{
    if (!controller || m_stack.contains(controller))
        return;
    QKViewController *previous = topViewController();
    adopt(controller);
    if (!isViewLoaded())
        return;
    showTop();
    QKView *incoming = controller->view();
    QKView *outgoing = previous && previous->isViewLoaded() ? previous->view() : nullptr;
    const QRectF frame = contentFrame();
    if (!animated) {
        if (outgoing)
            outgoing->setViewHidden(true);
        return;
    }
    incoming->setFrame(frame.translated(frame.width(), 0));
    QKAnimation::animate(
        PushSeconds, 0.0, QKAnimation::CurveEaseOut,
        [incoming, outgoing, frame] {
            incoming->setFrame(frame);
            if (outgoing)
                outgoing->setFrame(frame.translated(-frame.width() / 3, 0));
        },
        [self = QPointer<QKNavigationController>(this), covered = QPointer<QKView>(outgoing), frame](bool) {
            // Popped back before the push ended: the screen is on top again and stays shown.
            QKViewController *top = self ? self->topViewController() : nullptr;
            if (covered && !(top && top->isViewLoaded() && top->view() == covered)) {
                covered->setViewHidden(true);
                covered->setFrame(frame);
            }
        });
}

QKViewController *QKNavigationController::popViewControllerAnimated(bool animated)
{
    if (m_stack.size() < 2)
        return nullptr;
    QKViewController *popped = m_stack.takeLast();
    disconnect(popped, &QObject::destroyed, this, nullptr);
    QPointer<QKViewController> doomed(popped);
    auto finish = [doomed] {
        if (doomed) {
            doomed->removeFromParentViewController();
            doomed->deleteLater();
        }
    };
    if (!isViewLoaded()) {
        finish();
        return popped;
    }
    showTop();
    QKView *leaving = popped->isViewLoaded() ? popped->view() : nullptr;
    QKView *returning = topViewController()->view();
    const QRectF frame = contentFrame();
    if (!animated || !leaving) {
        if (leaving)
            leaving->setViewHidden(true);
        QTimer::singleShot(0, finish);
        return popped;
    }
    view()->bringSubviewToFront(leaving);
    view()->bringSubviewToFront(m_bar);
    returning->setFrame(frame.translated(-frame.width() / 3, 0));
    QKAnimation::animate(
        PushSeconds, 0.0, QKAnimation::CurveEaseOut,
        [leaving, returning, frame] {
            leaving->setFrame(frame.translated(frame.width(), 0));
            returning->setFrame(frame);
        },
        [finish](bool) { finish(); });
    return popped;
}
