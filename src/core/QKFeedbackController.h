#pragma once

#include "../data/QKFeedbackDataSource.h"
#include "../kit/QKViewController.h"

#include <QKeySequence>

#include <memory>

class QKShakeDetector;
class QKFeedbackControllerPrivate;

/// A container a host puts at the root of its window, around its own content
/// controller, to get feedback without code of its own: a shake (or, on a desktop,
/// the optional shortcut) opens the façade's menu. It keeps no feedback state; the
/// data source and the rest go to the façade's shared instance.
///
/// Ownership: the content controller is this controller's, attached (as a child) or
/// only stored. A replaced one is detached and handed back to the caller, as
/// removeFromParentViewController does. Main thread only.
class MURMORA_EXPORT QKFeedbackController : public QKViewController
{
    Q_OBJECT
public:
    /// The motions motionEnded() is told of.
    enum MotionSubtype { MotionNone = 0, MotionShake = 1 };
    Q_ENUM(MotionSubtype)

    /// Stores `contentController` without attaching it: its view is not added and it
    /// is no child, until setContentController().
    explicit QKFeedbackController(QKViewController *contentController = nullptr, QObject *parent = nullptr);
    /// Takes the content controller and the shake detector with it.
    ~QKFeedbackController() override;

    /// Whether a shake opens the menu; true by default.
    bool showOnShake() const;
    /// Turns opening on a shake on or off.
    void setShowOnShake(bool showOnShake);

    /// The host's own controller inside this one; null when there is none.
    QKViewController *contentController() const;
    /// Detaches the current content, then adds `controller` as a child whose view fills
    /// this one's and follows its size. Null only detaches.
    void setContentController(QKViewController *controller);

    /// The façade's data source; setting it also gives it the saved name.
    QKFeedbackDataSourcePtr dataSource() const;
    /// Makes `source` the façade's data source, with the saved name as its userName.
    void setDataSource(const QKFeedbackDataSourcePtr &source);

    /// Always true: this controller takes motion events.
    bool becomeFirstResponder();
    /// A shake (MotionShake) opens the menu when showOnShake(); other motions do nothing.
    virtual void motionEnded(int subtype);

    /// Opens the menu, as QKFeedback::showFeedback() does.
    void showFeedback();
    /// The façade instance's sendFeedback(), which throws when no feedback is shown.
    void sendFeedback();

    /// Keys that open the menu while this controller's window is active, whatever
    /// showOnShake() says; none by default.
    QKeySequence shortcut() const;
    /// Sets the keys; an empty sequence removes the shortcut.
    void setShortcut(const QKeySequence &shortcut);

    /// Started once the view loaded; reports to motionEnded(MotionShake).
    /// Owned by this controller.
    QKShakeDetector *shakeDetector() const;

    /// Starts the shake detector and installs the shortcut.
    void viewDidLoad() override;

private:
    void installShortcut();

    std::unique_ptr<QKFeedbackControllerPrivate> d;
};
