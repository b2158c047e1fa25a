#pragma once

#include "QKNavigationItem.h"
#include "QKView.h"

#include <QObject>
#include <QPointer>

#include <functional>

class QKNavigationController;

/// Manages one screen: a view built lazily (loadView, then viewDidLoad, on the first
/// call of view()), its layout callbacks, a title and a navigation item, child
/// controllers, and modal presentation over the window.
///
/// Ownership: a child controller is owned by its parent controller, a presented one by
/// the controller that presented it; both are deleted when removed or dismissed. The
/// controller owns its view. Main thread only.
class MURMORA_EXPORT QKViewController : public QObject
{
    Q_OBJECT
public:
    enum TransitionStyle { CoverVertical = 0, FlipHorizontal = 1, CrossDissolve = 2, PartialCurl = 3 };

    explicit QKViewController(QObject *parent = nullptr);
    ~QKViewController() override;

    /// The root view, made on first use.
    QKView *view();
    bool isViewLoaded() const { return !m_view.isNull(); }

    /// Makes the root view; the base makes a plain view of the screen's size.
    virtual void loadView();
    virtual void viewDidLoad();
    /// Called after the root view laid out its subviews (its size changed, or a
    /// layout was asked for).
    virtual void viewDidLayoutSubviews();
    /// A tap ended on the root view (or on a subview that passed it on), at
    /// `location` in the root view. The base hands it on to the root view's superview.
    virtual void touchesEnded(const QPointF &location);

    QString title() const { return m_title; }
    void setTitle(const QString &title);
    QKNavigationItem *navigationItem();
    /// The nearest navigation controller above this one, if any.
    QKNavigationController *navigationController() const;

    QKViewController *parentViewController() const { return m_parent; }
    QList<QKViewController *> childViewControllers() const { return m_children; }
    /// Takes ownership. The child's view is not added anywhere: that is the caller's.
    void addChildViewController(QKViewController *child);
    /// Detaches from the parent and removes the view from its superview; the caller
    /// then owns this controller.
    void removeFromParentViewController();

    int modalTransitionStyle() const { return m_transitionStyle; }
    void setModalTransitionStyle(int style) { m_transitionStyle = style; }
    /// Shows `controller` over the whole window, above everything, taking ownership;
    /// `completion` runs once it is shown. Does nothing (and deletes nothing) when this
    /// controller already presents one.
    void presentViewController(QKViewController *controller, bool animated, std::function<void()> completion = {});
    /// Called on a presented controller: closes it and everything presented above it.
    /// Called on a presenting one: closes what it presents. `completion` runs after.
    void dismissViewControllerAnimated(bool animated, std::function<void()> completion = {});
    QKViewController *presentedViewController() const { return m_presented; }
    QKViewController *presentingViewController() const { return m_presenting; }

signals:
    void titleChanged();

protected:
    /// Sets the root view (for loadView overrides); the controller owns it.
    void setView(QKView *view);

private:
    friend class QKNavigationController;
    friend class QKWindow;
    void prepareViewForDisplay(const QRectF &frame);

    QPointer<QKView> m_view;
    QString m_title;
    QKNavigationItem *m_navigationItem = nullptr;
    QKViewController *m_parent = nullptr;
    QList<QKViewController *> m_children;
    QPointer<QKViewController> m_presented;
    QPointer<QKViewController> m_presenting;
    int m_transitionStyle = CoverVertical;
    bool m_loading = false;
};
