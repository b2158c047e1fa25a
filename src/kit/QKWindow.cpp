#include "QKWindow.h"

#include "QKViewController.h"

#include <QApplication>
#include <QPainter>
#include <QPointer>

namespace {

QPointer<QKWindow> &lastKey()
{
    static QPointer<QKWindow> window;
    return window;
}

// Stands for a host's own widgets: its snapshot is the host window as drawn, without
// anything we put over it.
class HostView : public QKView
{
public:
    explicit HostView(QKWindow *window) : QKView(window->bounds()), m_window(window) {}

    QImage snapshot() override
    {
        QWidget *host = m_window ? m_window->host() : nullptr;
        if (!host || host->size().isEmpty())
            return QImage();
        const qreal ratio = host->devicePixelRatioF();
        QImage image(host->size() * ratio, QImage::Format_ARGB32_Premultiplied);
        image.setDevicePixelRatio(ratio);
        image.fill(Qt::transparent);
        const bool shown = m_window->isVisible();
        m_window->QWidget::setVisible(false);
        QPainter painter(&image);
        host->render(&painter, QPoint(), QRegion(), QWidget::DrawWindowBackground | QWidget::DrawChildren);
        painter.end();
        m_window->QWidget::setVisible(shown);
        return image;
    }

private:
    QPointer<QKWindow> m_window;
};

} // namespace

QKWindow::QKWindow(const QSizeF &size) : QKView(QRectF(QPointF(0, 0), size.isEmpty() ? QSizeF(393, 852) : size))
{
    setBackgroundColor(Qt::white);
    resize(frame().size().toSize());
}

QKWindow::QKWindow(QWidget *host, bool) : QKView(QRectF(QPointF(0, 0), QSizeF(host->size())), host), m_host(host)
{
    host->installEventFilter(this);
    updatePassThrough();
}

QKWindow::~QKWindow() = default;

QKWindow *QKWindow::attach(QWidget *host)
{
    if (!host)
        return nullptr;
    if (auto *window = qobject_cast<QKWindow *>(host))
        return window;
    if (auto *existing = host->findChild<QKWindow *>(QString(), Qt::FindDirectChildrenOnly))
        return existing;
    return new QKWindow(host, true);
}

QKWindow *QKWindow::keyWindow()
{
    if (lastKey())
        return lastKey();
    QWidget *active = QApplication::activeWindow();
    if (!active) {
        for (QWidget *widget : QApplication::topLevelWidgets())
            if (widget->isVisible() && !qobject_cast<QKView *>(widget)) {
                active = widget;
                break;
            }
        if (!active)
            for (QWidget *widget : QApplication::topLevelWidgets())
                if (auto *window = qobject_cast<QKWindow *>(widget); window && window->isVisible())
                    return window;
    }
    return active ? attach(active) : nullptr;
}

void QKWindow::makeKeyAndVisible()
{
    lastKey() = this;
    if (isWindow())
        show();
    else
        setViewHidden(false);
}

QKViewController *QKWindow::rootViewController()
{
    if (!m_root && m_host) {
        // The host's own widgets play the root's part; its view only stands for them.
        auto *root = new QKViewController(this);
        root->setView(new HostView(this));
        root->view()->setViewHidden(true);
        addSubview(root->view());
        m_root = root;
    }
    return m_root;
}

void QKWindow::setRootViewController(QKViewController *controller)
{
    if (m_root == controller)
        return;
    if (m_root)
        m_root->deleteLater();
    m_root = controller;
    if (!controller)
        return;
    controller->setParent(this);
    QKView *root = controller->view();
    root->setAutoresizingMask(FlexibleWidth | FlexibleHeight);
    insertSubviewAt(root, 0);
    controller->prepareViewForDisplay(bounds());
}

QKViewController *QKWindow::topMostController()
{
    QKViewController *top = rootViewController();
    while (top && top->presentedViewController())
        top = top->presentedViewController();
    return top;
}

void QKWindow::presentView(QKView *view)
{
    addSubview(view);
    updatePassThrough();
    // Queued: the view is half gone while it says so.
    connect(view, &QObject::destroyed, this, [this] {
        QMetaObject::invokeMethod(
            this, [this] { updatePassThrough(); }, Qt::QueuedConnection);
    });
}

void QKWindow::updatePassThrough()
{
    if (!m_host)
        return;
    // Over a host's widgets the window only catches taps while it shows something.
    bool showsSomething = false;
    for (QKView *view : subviews())
        if (!view->isViewHidden() && (!m_root || view != m_root->view()))
            showsSomething = true;
    setAttribute(Qt::WA_TransparentForMouseEvents, !showsSomething);
    setViewHidden(!showsSomething);
    if (showsSomething)
        raise();
}

bool QKWindow::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == m_host && event->type() == QEvent::Resize)
        setFrame(QRectF(QPointF(0, 0), QSizeF(m_host->size())));
    if (watched == m_host && event->type() == QEvent::ChildAdded)
        QMetaObject::invokeMethod(
            this, [this] { updatePassThrough(); }, Qt::QueuedConnection);
    return QKView::eventFilter(watched, event);
}
