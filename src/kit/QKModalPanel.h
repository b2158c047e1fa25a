#pragma once

#include "QKGlobalKit.h"

#include <QList>
#include <QObject>
#include <QPointer>
#include <QRectF>

class QKModalOverlay;
class QKView;
class QKWindow;

/// What an alert and an action sheet have in common: a dimmed overlay over a whole
/// window that animates in, takes the taps until a button is chosen, animates out,
/// reports the button index and then deletes its panel (deleteLater). A panel whose
/// window is destroyed goes with it, reporting nothing. Main thread only.
class MURMORA_EXPORT QKModalPanel : public QObject
{
    Q_OBJECT
public:
    ~QKModalPanel() override;

    bool isVisible() const { return m_state == Shown; }
    /// Animates out (at once when not animated), then reports the button index.
    void dismissWithClickedButtonIndex(int buttonIndex, bool animated);

    /// Where the button is once the panel is in, in window coordinates; empty when
    /// not shown in a window or there is no such button.
    QRectF rectForButtonAtIndex(int index) const;
    /// The dimmed view over the window that takes the taps; null when not shown.
    QKView *view() const;

signals:
    void dismissed(int buttonIndex);

protected:
    QKModalPanel() = default;

    /// Lists the panel and animates its overlay in over `window`; with no window
    /// nothing shows, but the panel is listed until dismissed. Only the first call counts.
    void showInWindow(QKWindow *window);

    virtual QKModalOverlay *createOverlay() const = 0;
    /// A button (or what stands for one) was tapped on the overlay.
    virtual void buttonTapped(int buttonIndex);
    /// The overlay is gone; tell whoever listens. The panel may be deleted meanwhile.
    virtual void reportDismissal(int buttonIndex) = 0;
    virtual double appearDuration() const = 0;
    virtual double disappearDuration() const = 0;

    /// The shown panels of one kind, oldest first.
    template <typename Panel>
    static QList<Panel *> visiblePanels()
    {
        QList<Panel *> panels;
        for (QKModalPanel *panel : shownPanels())
            if (auto *shown = qobject_cast<Panel *>(panel))
                panels.append(shown);
        return panels;
    }

private:
    enum State { Idle, Shown, Dismissing };
    static QList<QKModalPanel *> &shownPanels();
    void finishDismissal(int buttonIndex);

    State m_state = Idle;
    QPointer<QKModalOverlay> m_overlay;
};
