#pragma once

#include "QKView.h"

#include <QPointer>

class QKViewController;

/// The view at the root of a window, with the controller at its root. Modal
/// controllers are shown inside it, over everything else.
///
/// A QKWindow is either a top-level window of its own, or laid over a host's own
/// top-level QWidget (attach()), so that a host without our controllers still gets
/// the menu and the screens. Main thread only.
class MURMORA_EXPORT QKWindow : public QKView
{
    Q_OBJECT
public:
    /// A top-level window of `size` points.
    explicit QKWindow(const QSizeF &size = QSizeF());
    ~QKWindow() override;

    /// The window that feedback opens in: the one made key last, else the QKWindow of
    /// the active top-level widget (laid over it on first use), else of the first
    /// visible top-level widget. Null without any window.
    static QKWindow *keyWindow();
    /// The QKWindow laid over `host` (made on first call; owned by `host`).
    static QKWindow *attach(QWidget *host);

    void makeKeyAndVisible();

    /// Takes ownership; its view fills the window. For an attached window, a plain
    /// controller standing for the host's own widgets is made on first use.
    QKViewController *rootViewController();
    void setRootViewController(QKViewController *controller);

    /// The controller shown on top: from the root, follow presented controllers.
    QKViewController *topMostController();

    /// For an attached window: the host widget, whose look is the root view's snapshot.
    QWidget *host() const { return m_host; }

    /// Views of presented controllers, over the root's.
    void presentView(QKView *view);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    QKWindow(QWidget *host, bool attached);
    void updatePassThrough();

    QPointer<QKViewController> m_root;
    QPointer<QWidget> m_host;
};
