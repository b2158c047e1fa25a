#pragma once

#include "QKViewController.h"

class QKNavigationBar;

/// A stack of controllers under a bar that shows the top one's title and bar button
/// items. Pushing slides the new screen in from the right; popping slides it back out.
/// Owns the controllers on its stack; a popped controller is deleted once it is off
/// screen, and one deleted by its host leaves the stack. With an opaque bar (the
/// default) the screens start below it.
class MURMORA_EXPORT QKNavigationController : public QKViewController
{
    Q_OBJECT
public:
    explicit QKNavigationController(QKViewController *rootViewController, QObject *parent = nullptr);

    QList<QKViewController *> viewControllers() const { return m_stack; }
    QKViewController *topViewController() const { return m_stack.isEmpty() ? nullptr : m_stack.last(); }
    void pushViewController(QKViewController *controller, bool animated);
    /// Pops the top controller (never the root); answers it, already scheduled for deletion.
    QKViewController *popViewControllerAnimated(bool animated);

    QKNavigationBar *navigationBar();

    void loadView() override;
    void viewDidLayoutSubviews() override;

    static constexpr double BarHeight = 44.0;

private:
    QRectF contentFrame() const;
    void showTop();
    void adopt(QKViewController *controller);
    void forget(QKViewController *gone);
    QList<QKViewController *> m_stack;
    QKNavigationBar *m_bar = nullptr;
    QMetaObject::Connection m_titleConnection;
};
