#pragma once

#include "../data/QKFeedbackDataSource.h"
#include "../kit/QKViewController.h"

#include <QKeySequence>
#include <QPointer>

class QKShakeDetector;
class QShortcut;

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
    enum MotionSubtype { MotionNone = 0, MotionShake = 1 };

    /// Stores `contentController` without attaching it: its view is not added and it
    /// is no child, until setContentController().
    explicit QKFeedbackController(QKViewController *contentController = nullptr, QObject *parent = nullptr);
    ~QKFeedbackController() override;

    bool showOnShake() const { return m_showOnShake; }
    void setShowOnShake(bool showOnShake) { m_showOnShake = showOnShake; }

    QKViewController *contentController() const { return m_contentController; }
    /// Detaches the current content, then adds `controller` as a child whose view fills
    /// this one's and follows its size. Null only detaches.
    void setContentController(QKViewController *controller);

    /// The façade's data source; setting it also gives it the saved name.
    QKFeedbackDataSourcePtr dataSource() const;
    void setDataSource(const QKFeedbackDataSourcePtr &source);

    bool becomeFirstResponder() { return true; }
    /// A shake (MotionShake) opens the menu when showOnShake(); other motions do nothing.
    virtual void motionEnded(int subtype);

    void showFeedback();
    /// The façade instance's sendFeedback(), which throws when no feedback is shown.
    void sendFeedback();

    /// Keys that open the menu while this controller's window is active, whatever
    /// showOnShake() says; none by default.
    QKeySequence shortcut() const { return m_shortcut; }
    void setShortcut(const QKeySequence &shortcut);

    /// Started once the view loaded; reports to motionEnded(MotionShake).
    QKShakeDetector *shakeDetector() const { return m_shakeDetector; }

    void viewDidLoad() override;

private:
    void installShortcut();

    bool m_showOnShake = true;
    QPointer<QKViewController> m_contentController;
    QKShakeDetector *m_shakeDetector = nullptr;
    QKeySequence m_shortcut;
    QPointer<QShortcut> m_shortcutObject;
};
