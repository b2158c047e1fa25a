#include "QKModalPanel.h"

#include "QKAnimation.h"
#include "QKModalOverlay_p.h"
#include "QKWindow.h"

#include <QMouseEvent>

QKModalOverlay::QKModalOverlay(const QStringList &buttons, int cancelIndex)
    : m_buttons(buttons), m_cancelIndex(cancelIndex)
{
    // QKView fills with its background colour, and an unset QColor reads as opaque black.
    setBackgroundColor(Qt::transparent);
}

void QKModalOverlay::animateProgress(qreal to)
{
    m_appearing = to > m_progress;
    if (!QKAnimation::animateValue(this, m_progress, to,
                                   [this](const QVariant &value) { setProgress(value.toReal()); }))
        setProgress(to);
}

void QKModalOverlay::touchesEnded(const QPointF &location)
{
    if (!m_tapsEnabled)
        return;
    const int index = buttonAt(location);
    if (index >= 0)
        tap(index);
    else
        tappedOffButtons(location);
}

void QKModalOverlay::mousePressEvent(QMouseEvent *event)
{
    m_pressing = event->button() == Qt::LeftButton;
    setPressed(m_pressing ? buttonAt(event->position()) : -1);
    QKView::mousePressEvent(event);
}

void QKModalOverlay::mouseMoveEvent(QMouseEvent *event)
{
    if (m_pressing)
        setPressed(buttonAt(event->position()));
    QKView::mouseMoveEvent(event);
}

void QKModalOverlay::mouseReleaseEvent(QMouseEvent *event)
{
    m_pressing = false;
    setPressed(-1);
    QKView::mouseReleaseEvent(event);
}

int QKModalOverlay::buttonAt(const QPointF &point) const
{
    for (int i = 0; i < m_buttons.size(); ++i)
        if (buttonRect(i).contains(point))
            return i;
    return -1;
}

void QKModalOverlay::setProgress(qreal progress)
{
    m_progress = progress;
    update();
}

void QKModalOverlay::setPressed(int index)
{
    if (m_pressed != index) {
        m_pressed = index;
        update();
    }
}

QKModalPanel::~QKModalPanel()
{
    shownPanels().removeOne(this);
    if (m_overlay) {
        m_overlay->removeFromSuperview();
        m_overlay->deleteLater();
    }
}

QList<QKModalPanel *> &QKModalPanel::shownPanels()
{
    static QList<QKModalPanel *> panels;
    return panels;
}

void QKModalPanel::showInWindow(QKWindow *window)
{
    if (m_state != Idle)
        return;
    m_state = Shown;
    shownPanels().append(this);
    if (!window)
        return;
    QKModalOverlay *overlay = createOverlay();
    QPointer<QKModalPanel> self(this);
    overlay->setTapHandler([self](int index) {
        if (self)
            self->buttonTapped(index);
    });
    overlay->setFrame(window->bounds());
    overlay->setAutoresizingMask(QKView::FlexibleWidth | QKView::FlexibleHeight);
    m_overlay = overlay;
    // Gone with its window: nobody is left to answer, so the panel goes quietly.
    connect(overlay, &QObject::destroyed, this, [this] {
        shownPanels().removeOne(this);
        m_state = Dismissing;
        deleteLater();
    });
    window->presentView(overlay);
    QKAnimation::animate(appearDuration(), 0, QKAnimation::CurveEaseOut, [overlay] { overlay->animateProgress(1); });
}

void QKModalPanel::buttonTapped(int buttonIndex)
{
    dismissWithClickedButtonIndex(buttonIndex, true);
}

void QKModalPanel::dismissWithClickedButtonIndex(int buttonIndex, bool animated)
{
    if (m_state == Dismissing)
        return;
    m_state = Dismissing;
    shownPanels().removeOne(this);
    if (!animated) {
        finishDismissal(buttonIndex);
        return;
    }
    QPointer<QKModalPanel> self(this);
    QPointer<QKModalOverlay> overlay = m_overlay;
    if (overlay)
        overlay->setTapsEnabled(false);
    QKAnimation::animate(
        disappearDuration(), 0, QKAnimation::CurveEaseIn,
        [overlay] {
            if (overlay)
                overlay->animateProgress(0);
        },
        [self, buttonIndex](bool) {
            if (self)
                self->finishDismissal(buttonIndex);
        });
}

void QKModalPanel::finishDismissal(int buttonIndex)
{
    if (m_overlay) {
        disconnect(m_overlay, nullptr, this, nullptr);
        m_overlay->removeFromSuperview();
        m_overlay->deleteLater();
        m_overlay = nullptr;
    }
    QPointer<QKModalPanel> self(this);
    reportDismissal(buttonIndex);
    if (self)
        deleteLater();
}

QRectF QKModalPanel::rectForButtonAtIndex(int index) const
{
    if (!m_overlay)
        return QRectF();
    const QRectF rect = m_overlay->buttonRect(index);
    if (rect.isEmpty())
        return rect;
    return rect.translated(m_overlay->convertPointToView(QPointF(0, 0), nullptr));
}

QKView *QKModalPanel::view() const
{
    return m_overlay;
}
