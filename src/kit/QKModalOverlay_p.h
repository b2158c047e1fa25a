#pragma once

#include "QKView.h"

#include <QStringList>

#include <functional>

// The dim and the panel over a whole window, drawn by a subclass from one progress
// value (0 out, 1 in): one view, so taps anywhere on the window land on it.
class QKModalOverlay : public QKView
{
public:
    QKModalOverlay(const QStringList &buttons, int cancelIndex);

    void setTapHandler(std::function<void(int)> handler) { m_tapped = std::move(handler); }
    void setTapsEnabled(bool enabled) { m_tapsEnabled = enabled; }
    // Inside an animation block the progress follows over time.
    void animateProgress(qreal to);

    // In the overlay's coordinates, where the button is once the panel is in.
    virtual QRectF buttonRect(int index) const = 0;

    void touchesEnded(const QPointF &location) override;

protected:
    // Off the buttons; nothing by default.
    virtual void tappedOffButtons(const QPointF &location) { Q_UNUSED(location); }
    void tap(int index) { m_tapped(index); }

    qreal progress() const { return m_progress; }
    bool isAppearing() const { return m_appearing; }
    int pressedIndex() const { return m_pressed; }

    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;

    const QStringList m_buttons;
    const int m_cancelIndex;

private:
    int buttonAt(const QPointF &point) const;
    void setProgress(qreal progress);
    void setPressed(int index);

    std::function<void(int)> m_tapped;
    qreal m_progress = 0;
    bool m_appearing = true;
    bool m_tapsEnabled = true;
    bool m_pressing = false;
    int m_pressed = -1;
};
