#include "QKView.h"

#include "QKAnimation.h"
#include "QKViewController.h"

#include <QApplication>
#include <QGraphicsOpacityEffect>
#include <QMouseEvent>
#include <QPainter>
#include <QScreen>

namespace {

// Keys and input methods stop at a view whose interaction is off, whatever widget
// inside it has the focus.
class InteractionFilter : public QObject
{
public:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        switch (event->type()) {
        case QEvent::KeyPress:
        case QEvent::KeyRelease:
        case QEvent::InputMethod:
        case QEvent::Shortcut:
            break;
        default:
            return false;
        }
        for (auto *widget = qobject_cast<QWidget *>(watched); widget; widget = widget->parentWidget())
            if (auto *view = qobject_cast<QKView *>(widget); view && !view->isUserInteractionEnabled())
                return true;
        return false;
    }
};

// One filter for every widget of Murmora's views and what is put inside them; a
// host's own widgets never pass through it. Main thread only, as views are.
InteractionFilter *interactionFilter()
{
    static auto *filter = new InteractionFilter;
    return filter;
}

QRect shown(const QRectF &frame)
{
    return QRect(QPoint(qRound(frame.x()), qRound(frame.y())),
                 QPoint(qRound(frame.right()) - 1, qRound(frame.bottom()) - 1));
}

// The share of `delta` each flexible part takes, in proportion to its size.
void distribute(double delta, bool flexA, double a, bool flexB, double b, bool flexC, double c, double *da, double *db,
                double *dc)
{
    *da = *db = *dc = 0;
    const double total = (flexA ? a : 0) + (flexB ? b : 0) + (flexC ? c : 0);
    const int count = int(flexA) + int(flexB) + int(flexC);
    if (count == 0)
        return;
    if (total <= 0) {
        if (flexA)
            *da = delta / count;
        if (flexB)
            *db = delta / count;
        if (flexC)
            *dc = delta / count;
        return;
    }
    if (flexA)
        *da = delta * a / total;
    if (flexB)
        *db = delta * b / total;
    if (flexC)
        *dc = delta * c / total;
}

} // namespace

QKView::QKView(const QRectF &frame, QWidget *parent) : QWidget(parent), m_frame(frame)
{
    setAttribute(Qt::WA_NoSystemBackground);
    installEventFilter(interactionFilter());
    applyGeometry(m_frame);
}

QKView::~QKView() = default;

void QKView::applyGeometry(const QRectF &displayed)
{
    m_shown = displayed;
    QRectF inWidget = displayed;
    if (const QKView *parent = superview())
        inWidget.translate(-parent->shownBoundsOrigin());
    const QRect rect = shown(inWidget);
    if (geometry() != rect)
        setGeometry(rect);
}

void QKView::refreshSubviewGeometry()
{
    for (QKView *view : subviews())
        view->applyGeometry(view->m_shown);
}

void QKView::setFrame(const QRectF &frame)
{
    const QRectF old = m_frame;
    if (old == frame)
        return;
    m_frame = frame;
    if (!QKAnimation::animateValue(this, m_shown, frame,
                                   [this](const QVariant &value) { applyGeometry(value.toRectF()); }))
        applyGeometry(frame);
    if (old.size() != frame.size()) {
        autoresizeSubviews(old.size(), frame.size());
        m_needsLayout = true;
        layoutIfNeeded();
    }
}

void QKView::setBounds(const QRectF &bounds)
{
    const QPointF c = center();
    setFrame(QRectF(c.x() - bounds.width() / 2, c.y() - bounds.height() / 2, bounds.width(), bounds.height()));
}

void QKView::setCenter(const QPointF &center)
{
    setFrame(
        QRectF(center.x() - m_frame.width() / 2, center.y() - m_frame.height() / 2, m_frame.width(), m_frame.height()));
}

void QKView::setViewHidden(bool hidden)
{
    m_hidden = hidden;
    // A view not yet in a superview would otherwise open as a window of its own.
    if (parentWidget() || hidden)
        QWidget::setVisible(!hidden);
}

void QKView::setBackgroundColor(const QColor &color)
{
    m_backgroundColor = color;
    update();
}

void QKView::setAlpha(qreal alpha)
{
    m_alpha = qBound(0.0, alpha, 1.0);
    if (m_alpha >= 1.0) {
        setGraphicsEffect(nullptr);
        return;
    }
    auto *effect = qobject_cast<QGraphicsOpacityEffect *>(graphicsEffect());
    if (!effect) {
        effect = new QGraphicsOpacityEffect(this);
        setGraphicsEffect(effect);
    }
    effect->setOpacity(m_alpha);
}

void QKView::setUserInteractionEnabled(bool enabled)
{
    if (m_userInteraction == enabled)
        return;
    m_userInteraction = enabled;
    applyInteraction();
    // The focus stays: a field keeps editing while its screen is switched off (during a
    // send, say), as on the platform. Keys stop at this view (InteractionFilter).
}

bool QKView::interactionBlocked() const
{
    for (const QWidget *widget = this; widget; widget = widget->parentWidget())
        if (auto *view = qobject_cast<const QKView *>(widget); view && !view->m_userInteraction)
            return true;
    return false;
}

void QKView::applyTransparency(QWidget *widget, bool blocked)
{
    // A view whose own interaction is off stays off whatever its ancestors say.
    if (auto *view = qobject_cast<QKView *>(widget); view && !view->m_userInteraction)
        blocked = true;
    widget->setAttribute(Qt::WA_TransparentForMouseEvents, blocked);
    for (QObject *child : widget->children())
        if (auto *childWidget = qobject_cast<QWidget *>(child); childWidget && !childWidget->isWindow())
            applyTransparency(childWidget, blocked);
}

void QKView::applyInteraction()
{
    // Mouse events skip transparent widgets, so a tap lands on the nearest view that takes it.
    const QKView *parent = superview();
    applyTransparency(this, parent && parent->interactionBlocked());
}

QKView *QKView::superview() const
{
    return qobject_cast<QKView *>(parentWidget());
}

QList<QKView *> QKView::subviews() const
{
    QList<QKView *> views;
    for (QObject *child : children())
        if (auto *view = qobject_cast<QKView *>(child))
            views.append(view);
    return views;
}

void QKView::addSubview(QKView *view)
{
    if (!view)
        return;
    if (view->parentWidget() != this) {
        view->setParent(this);
        view->applyGeometry(view->m_frame);
        view->applyInteraction();
        view->QWidget::setVisible(!view->m_hidden);
        view->didMoveToSuperview();
    }
    view->raise();
}

void QKView::insertSubviewAt(QKView *view, int index)
{
    addSubview(view);
    const QList<QKView *> views = subviews();
    // Widgets stack in the order of their children list; put `view` under the one at `index`.
    if (index >= 0 && index < views.size() && views[index] != view)
        view->stackUnder(views[index]);
}

void QKView::bringSubviewToFront(QKView *view)
{
    if (view && view->parentWidget() == this)
        view->raise();
}

void QKView::removeFromSuperview()
{
    if (!parentWidget())
        return;
    // Hidden first: a widget without a parent would otherwise become a window.
    QWidget::setVisible(false);
    setParent(nullptr);
    applyInteraction();
    didMoveToSuperview();
}

void QKView::layoutSubviews()
{}

void QKView::setNeedsLayout()
{
    if (m_needsLayout)
        return;
    m_needsLayout = true;
    QMetaObject::invokeMethod(
        this, [this] { layoutIfNeeded(); }, Qt::QueuedConnection);
}

void QKView::layoutIfNeeded()
{
    if (m_needsLayout) {
        m_needsLayout = false;
        layoutSubviews();
        if (m_viewController)
            m_viewController->viewDidLayoutSubviews();
    }
    for (QKView *view : subviews())
        view->layoutIfNeeded();
}

QSizeF QKView::sizeThatFits(const QSizeF &) const
{
    return m_frame.size();
}

void QKView::sizeToFit()
{
    const QSizeF size = sizeThatFits(m_frame.size());
    setFrame(QRectF(m_frame.topLeft(), size));
}

void QKView::drawRect(QPainter &, const QRectF &)
{}

void QKView::didMoveToSuperview()
{}

bool QKView::endEditing(bool)
{
    QWidget *focus = QApplication::focusWidget();
    if (focus && (focus == this || isAncestorOf(focus)))
        focus->clearFocus();
    return true;
}

QImage QKView::snapshot()
{
    if (m_frame.isEmpty())
        return QImage();
    const qreal ratio = screen() ? screen()->devicePixelRatio() : qApp->devicePixelRatio();
    QImage image(QSize(qCeil(m_frame.width() * ratio), qCeil(m_frame.height() * ratio)),
                 QImage::Format_ARGB32_Premultiplied);
    image.setDevicePixelRatio(ratio);
    image.fill(Qt::transparent);
    ensurePolished();
    QPainter painter(&image);
    render(&painter, QPoint(), QRegion(), QWidget::DrawChildren);
    return image;
}

void QKView::touchesEnded(const QPointF &location)
{
    if (m_viewController) {
        m_viewController->touchesEnded(location);
        return;
    }
    if (QKView *parent = superview())
        parent->touchesEnded(convertPointToView(location, parent));
}

QPointF QKView::convertPointToView(const QPointF &point, const QKView *view) const
{
    // Frames are exact; widgets are rounded, so walk the frames rather than mapTo.
    QPointF inWindow = point;
    for (const QKView *v = this; v; v = v->superview())
        inWindow += v->m_frame.topLeft() - (v->bounds().topLeft());
    if (!view)
        return inWindow;
    QPointF origin;
    for (const QKView *v = view; v; v = v->superview())
        origin += v->m_frame.topLeft() - v->bounds().topLeft();
    return inWindow - origin;
}

void QKView::autoresizeSubviews(const QSizeF &oldSize, const QSizeF &newSize)
{
    const double dw = newSize.width() - oldSize.width();
    const double dh = newSize.height() - oldSize.height();
    for (QKView *view : subviews()) {
        const int mask = view->m_autoresizingMask;
        if (mask == AutoresizingNone)
            continue;
        QRectF f = view->m_frame;
        double left, width, right, top, height, bottom;
        distribute(dw, mask & FlexibleLeftMargin, f.x(), mask & FlexibleWidth, f.width(), mask & FlexibleRightMargin,
                   oldSize.width() - f.right(), &left, &width, &right);
        distribute(dh, mask & FlexibleTopMargin, f.y(), mask & FlexibleHeight, f.height(), mask & FlexibleBottomMargin,
                   oldSize.height() - f.bottom(), &top, &height, &bottom);
        f = QRectF(f.x() + left, f.y() + top, f.width() + width, f.height() + height);
        view->setFrame(f);
    }
}

void QKView::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    // Widgets are whole pixels; draw in the exact frame's own coordinates.
    const QRectF rect(QPointF(0, 0), m_frame.size());
    if (m_backgroundColor.isValid() && m_backgroundColor.alpha() > 0)
        painter.fillRect(QRectF(QPointF(0, 0), size()), m_backgroundColor);
    drawRect(painter, rect);
}

void QKView::mousePressEvent(QMouseEvent *event)
{
    m_pressed = event->button() == Qt::LeftButton;
    event->accept();
}

void QKView::mouseReleaseEvent(QMouseEvent *event)
{
    // Only a release on the view is a tap: a press that became a drag ends elsewhere.
    if (m_pressed && event->button() == Qt::LeftButton) {
        m_pressed = false;
        if (rect().contains(event->position().toPoint()))
            touchesEnded(event->position());
    }
    event->accept();
}

bool QKView::event(QEvent *event)
{
    if (event->type() == QEvent::ChildAdded) {
        // Widgets put inside a view whose interaction is off are off too, and keys
        // that reach them pass the filter.
        if (auto *child = qobject_cast<QWidget *>(static_cast<QChildEvent *>(event)->child())) {
            child->installEventFilter(interactionFilter());
            if (interactionBlocked())
                applyTransparency(child, true);
        }
    }
    return QWidget::event(event);
}

void QKView::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    // A top-level view, or one in a Qt layout, is sized by Qt: take that as its frame.
    if (isWindow() || (parentWidget() && !qobject_cast<QKView *>(parentWidget()))) {
        const QRectF given(isWindow() ? QPointF(0, 0) : QPointF(pos()), QSizeF(size()));
        if (shown(m_frame).size() != geometry().size() || (!isWindow() && shown(m_frame) != geometry())) {
            const QSizeF old = m_frame.size();
            m_frame = given;
            if (old != given.size()) {
                autoresizeSubviews(old, given.size());
                m_needsLayout = true;
                layoutIfNeeded();
            }
        }
    }
}
