#include "QKScrollView.h"

#include "QKAnimation.h"

#include <QAbstractAnimation>
#include <QChildEvent>
#include <QEasingCurve>
#include <QMouseEvent>
#include <QScrollEvent>
#include <QScrollPrepareEvent>
#include <QScroller>
#include <QScrollerProperties>
#include <QVariantAnimation>
#include <QWheelEvent>

namespace {

// One notch of a mouse wheel.
constexpr qreal WheelStep = 48;
constexpr int AnimatedScrollMs = 300;

QPoint rounded(const QPointF &point)
{
    return QPoint(qRound(point.x()), qRound(point.y()));
}

// One flick recognizer for every scroll view: Qt does not free the one that
// QScroller::grabGesture makes per target once the target is gone. Its holder is
// never deleted, so the recognizer goes with the gesture manager.
Qt::GestureType flickGesture()
{
    static QObject *const holder = new QObject;
    static const Qt::GestureType type = QScroller::grabGesture(holder, QScroller::LeftMouseButtonGesture);
    return type;
}

} // namespace

QKScrollView::QKScrollView(const QRectF &frame, QWidget *parent) : QKView(frame, parent)
{
    m_shownAnimator = new QObject(this);
    QScroller *scroller = QScroller::scroller(this);
    grabGesture(flickGesture());
    QScrollerProperties properties = scroller->scrollerProperties();
    // Always at the top and bottom, so that even a short list can be pulled down.
    properties.setScrollMetric(QScrollerProperties::VerticalOvershootPolicy,
                               QVariant::fromValue(QScrollerProperties::OvershootAlwaysOn));
    properties.setScrollMetric(QScrollerProperties::HorizontalOvershootPolicy,
                               QVariant::fromValue(QScrollerProperties::OvershootWhenScrollable));
    scroller->setScrollerProperties(properties);
    connect(scroller, &QScroller::stateChanged, this, [this](QScroller::State state) {
        const bool dragging = state == QScroller::Dragging;
        if (dragging == m_dragging)
            return;
        m_dragging = dragging;
        emit draggingChanged(dragging);
    });
}

QKScrollView::~QKScrollView() = default;

void QKScrollView::setContentSize(const QSizeF &size)
{
    if (m_contentSize == size)
        return;
    m_contentSize = size;
    updateScroller();
}

void QKScrollView::setContentOffset(const QPointF &offset, bool animated)
{
    stopProgrammaticScroll();
    if (!animated || !QKAnimation::animationsEnabled() || offset == m_offset) {
        applyContentOffset(offset, true);
        return;
    }
    auto *animation = new QVariantAnimation(this);
    animation->setStartValue(m_offset);
    animation->setEndValue(offset);
    animation->setDuration(AnimatedScrollMs);
    animation->setEasingCurve(QEasingCurve::OutCubic);
    connect(animation, &QVariantAnimation::valueChanged, this,
            [this](const QVariant &value) { applyContentOffset(value.toPointF(), false); });
    m_scrollAnimation = animation;
    animation->start(QAbstractAnimation::DeleteWhenStopped);
}

void QKScrollView::setContentInset(const QMarginsF &inset)
{
    const QMarginsF old = m_inset;
    if (old == inset)
        return;
    m_inset = inset;
    updateScroller();
    // A moving scroller settles within the new range by itself.
    if (QScroller::scroller(this)->state() != QScroller::Inactive)
        return;
    QPointF target = m_offset;
    if (qAbs(m_offset.y() + old.top()) < 0.5)
        target.setY(-inset.top());
    target = clampedContentOffset(target);
    if (target != m_offset) {
        stopProgrammaticScroll();
        applyContentOffset(target, true);
    }
}

void QKScrollView::setScrollEnabled(bool enabled)
{
    m_scrollEnabled = enabled;
    if (!enabled)
        QScroller::scroller(this)->stop();
}

QPointF QKScrollView::minimumContentOffset() const
{
    return QPointF(-m_inset.left(), -m_inset.top());
}

QPointF QKScrollView::maximumContentOffset() const
{
    const QPointF minimum = minimumContentOffset();
    return QPointF(qMax(minimum.x(), m_contentSize.width() + m_inset.right() - frame().width()),
                   qMax(minimum.y(), m_contentSize.height() + m_inset.bottom() - frame().height()));
}

QPointF QKScrollView::clampedContentOffset(const QPointF &offset) const
{
    const QPointF minimum = minimumContentOffset();
    const QPointF maximum = maximumContentOffset();
    return QPointF(qBound(minimum.x(), offset.x(), maximum.x()), qBound(minimum.y(), offset.y(), maximum.y()));
}

void QKScrollView::applyContentOffset(const QPointF &offset, bool mayAnimate)
{
    if (offset == m_offset)
        return;
    const QPointF from = m_shownOffset;
    m_offset = offset;
    const auto apply = [this](const QVariant &value) { showOffset(value.toPointF()); };
    if (mayAnimate && QKAnimation::animateValue(m_shownAnimator, from, offset, apply)) {
        // Stopping the previous movement showed its end; go on from where it was.
        showOffset(from);
    } else {
        QKAnimation::stopAnimations(m_shownAnimator);
        showOffset(offset);
    }
    scrollViewDidScroll();
    emit didScroll();
}

void QKScrollView::showOffset(const QPointF &offset)
{
    m_shownOffset = offset;
    refreshSubviewGeometry();
}

void QKScrollView::stopProgrammaticScroll()
{
    if (m_scrollAnimation)
        m_scrollAnimation->stop();
    if (!m_fromScroller && QScroller::scroller(this)->state() == QScroller::Scrolling)
        QScroller::scroller(this)->stop();
}

void QKScrollView::updateScroller()
{
    if (QScroller::hasScroller(this) && QScroller::scroller(this)->state() != QScroller::Inactive)
        QScroller::scroller(this)->resendPrepareEvent();
}

void QKScrollView::scrollViewDidScroll()
{}

void QKScrollView::touchesEnded(const QPointF &location)
{
    // Qt ends a press that turned into a drag with a release far away: not a tap.
    if (!bounds().contains(location))
        return;
    QKView::touchesEnded(location);
}

QImage QKScrollView::snapshot()
{
    refreshSubviewGeometry();
    return QKView::snapshot();
}

bool QKScrollView::event(QEvent *event)
{
    switch (event->type()) {
    case QEvent::Show:
        refreshSubviewGeometry();
        break;
    case QEvent::Resize:
        updateScroller();
        break;
    case QEvent::ScrollPrepare: {
        auto *prepare = static_cast<QScrollPrepareEvent *>(event);
        if (!m_scrollEnabled) {
            prepare->ignore();
            return true;
        }
        if (m_scrollAnimation)
            m_scrollAnimation->stop();
        QKAnimation::stopAnimations(m_shownAnimator);
        showOffset(m_offset);
        const QPointF minimum = minimumContentOffset();
        prepare->setViewportSize(frame().size());
        prepare->setContentPosRange(QRectF(minimum, maximumContentOffset()));
        prepare->setContentPos(m_offset);
        prepare->accept();
        return true;
    }
    case QEvent::Scroll: {
        auto *scroll = static_cast<QScrollEvent *>(event);
        m_fromScroller = true;
        applyContentOffset(scroll->contentPos() + scroll->overshootDistance(), false);
        m_fromScroller = false;
        return true;
    }
    default:
        break;
    }
    return QKView::event(event);
}

void QKScrollView::mousePressEvent(QMouseEvent *event)
{
    m_pressed = event->button() == Qt::LeftButton;
    event->accept();
}

void QKScrollView::mouseReleaseEvent(QMouseEvent *event)
{
    if (m_pressed && event->button() == Qt::LeftButton) {
        m_pressed = false;
        touchesEnded(event->position() + rounded(m_shownOffset));
    }
    event->accept();
}

void QKScrollView::wheelEvent(QWheelEvent *event)
{
    QPointF delta = event->pixelDelta();
    if (delta.isNull())
        delta = QPointF(event->angleDelta()) / 120.0 * WheelStep;
    const QPointF target = clampedContentOffset(m_offset - delta);
    if (!m_scrollEnabled || target == m_offset) {
        // Let an enclosing scroll view have it.
        event->ignore();
        return;
    }
    stopProgrammaticScroll();
    applyContentOffset(target, false);
    event->accept();
}
