#pragma once

#include "QKView.h"

#include <QList>
#include <QPointer>

#include <functional>

/// The base of views that send events when used: targets registered for a set of
/// events are called when any of them happens. Taps on a disabled control go on to
/// the view underneath, as on the platform; disabling does not grey out subviews.
class MURMORA_EXPORT QKControl : public QKView
{
    Q_OBJECT
public:
    enum Event {
        TouchDown = 1 << 0,
        TouchUpInside = 1 << 6,
        ValueChanged = 1 << 12,
        EditingDidBegin = 1 << 16,
        EditingChanged = 1 << 17,
        EditingDidEnd = 1 << 18,
        EditingDidEndOnExit = 1 << 19,
    };

    explicit QKControl(const QRectF &frame = QRectF(), QWidget *parent = nullptr);
    ~QKControl() override;

    /// Not QWidget's: a disabled control keeps its subviews' look.
    bool isEnabled() const { return m_enabled; }
    void setEnabled(bool enabled);
    /// True while a press that began inside is held over the control.
    bool isHighlighted() const { return m_highlighted; }
    void setHighlighted(bool highlighted);

    /// Calls `action` for each of `events` (flags of Event) until `context` is
    /// destroyed; a null context means for as long as the control lives.
    void addTarget(QObject *context, std::function<void(QKControl *sender)> action, int events);
    /// Drops the targets registered with `context`.
    void removeTargets(QObject *context);
    /// Calls the targets of any of `events` and emits controlEvent.
    void sendActions(int events);

signals:
    void controlEvent(int events);

protected:
    /// Called after isEnabled() changed; the base repaints.
    virtual void enabledChanged();
    /// Called after isHighlighted() changed; the base repaints.
    virtual void highlightedChanged();

    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;

private:
    struct Target
    {
        QPointer<QObject> context;
        bool hasContext;
        std::function<void(QKControl *)> action;
        int events;
    };
    QList<Target> m_targets;
    bool m_enabled = true;
    bool m_highlighted = false;
    bool m_tracking = false;
};
