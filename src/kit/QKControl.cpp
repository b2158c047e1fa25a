#include "QKControl.h"

#include <QMouseEvent>

QKControl::QKControl(const QRectF &frame, QWidget *parent) : QKView(frame, parent)
{}

QKControl::~QKControl() = default;

void QKControl::setEnabled(bool enabled)
{
    if (m_enabled == enabled)
        return;
    m_enabled = enabled;
    if (!enabled) {
        m_tracking = false;
        setHighlighted(false);
    }
    enabledChanged();
}

void QKControl::setHighlighted(bool highlighted)
{
    if (m_highlighted == highlighted)
        return;
    m_highlighted = highlighted;
    highlightedChanged();
}

void QKControl::enabledChanged()
{
    update();
}

void QKControl::highlightedChanged()
{
    update();
}

void QKControl::addTarget(QObject *context, std::function<void(QKControl *sender)> action, int events)
{
    if (!action || events == 0)
        return;
    m_targets.append({context, context != nullptr, std::move(action), events});
    if (context && context != this)
        connect(context, &QObject::destroyed, this, [this](QObject *gone) {
            m_targets.removeIf([gone](const Target &t) { return t.hasContext && (!t.context || t.context == gone); });
        });
}

void QKControl::removeTargets(QObject *context)
{
    m_targets.removeIf([context](const Target &t) { return t.hasContext && t.context == context; });
}

void QKControl::sendActions(int events)
{
    // A copy: an action may add or remove targets, or delete its context.
    const QList<Target> targets = m_targets;
    QPointer<QKControl> self(this);
    for (const Target &target : targets) {
        if (!(target.events & events) || (target.hasContext && !target.context))
            continue;
        target.action(this);
        if (!self)
            return;
    }
    emit controlEvent(events);
}

void QKControl::mousePressEvent(QMouseEvent *event)
{
    if (!m_enabled) {
        // Ignored events go on to the parent widget: the view underneath.
        event->ignore();
        return;
    }
    if (event->button() != Qt::LeftButton) {
        QKView::mousePressEvent(event);
        return;
    }
    event->accept();
    m_tracking = true;
    setHighlighted(true);
    sendActions(TouchDown);
}

void QKControl::mouseMoveEvent(QMouseEvent *event)
{
    if (!m_tracking) {
        QKView::mouseMoveEvent(event);
        return;
    }
    setHighlighted(rect().contains(event->position().toPoint()));
    event->accept();
}

void QKControl::mouseReleaseEvent(QMouseEvent *event)
{
    if (!m_enabled && !m_tracking) {
        event->ignore();
        return;
    }
    if (!m_tracking || event->button() != Qt::LeftButton) {
        QKView::mouseReleaseEvent(event);
        return;
    }
    event->accept();
    m_tracking = false;
    setHighlighted(false);
    if (m_enabled && rect().contains(event->position().toPoint()))
        sendActions(TouchUpInside);
}
