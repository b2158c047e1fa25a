#pragma once

#include "../annotation/QKFeedbackSendViewControllerDelegate.h"
#include "../data/QKFeedbackDataSource.h"
#include "../kit/QKActionSheetDelegate.h"
#include "../models/QKFeedbackSendFlow.h"
#include "../models/QKFeedbackSettings.h"
#include "../screens/QKFeedbackSettingsViewControllerDelegate.h"

#include <QImage>
#include <QObject>
#include <QVariantMap>

#include <memory>

class QKFeedbackPrivate;
class QKViewController;

/// The library's front door: a host sets the data source once and opens feedback
/// from anywhere. It captures the screen, shows the menu, opens the chosen screen in
/// a navigation controller over whatever is shown, and shows the send: the name screen
/// first when needed, a busy indicator, the closing alert. What happens when is its
/// send flow's (QKFeedbackSendFlow), which also keeps the user's name in
/// "qkfeedback.settings.plist".
///
/// One instance for the process, made on first use and never destroyed. Main thread
/// only; the source's answers reach it there.
class MURMORA_EXPORT QKFeedback : public QObject,
                                  public QKActionSheetDelegate,
                                  public QKFeedbackSendViewControllerDelegate,
                                  public QKFeedbackSettingsViewControllerDelegate
{
    Q_OBJECT
public:
    /// How the feedback screens come in. Any negative value presents them without
    /// animation; 0 to 3 are the platform's modal transition styles.
    enum TransitionStyle : int {
        NoAnimation = -1,
        CoverVertical = 0,
        FlipHorizontal = 1,
        CrossDissolve = 2,
        PartialCurl = 3,
    };
    Q_ENUM(TransitionStyle)

    /// The one instance, made on first use (which reads the settings file).
    static QKFeedback *sharedInstance();

    /// Opens the menu with the cover-vertical transition (the shared instance's
    /// showFeedback(CoverVertical)); hosts choose another style through sharedInstance().
    static void showFeedback();
    /// Gives `source` the saved name as its userName, then makes it the data source.
    static void setDataSource(const QKFeedbackDataSourcePtr &source);
    /// The data source; null until set.
    static QKFeedbackDataSourcePtr dataSource();
    /// Whether the menu or a feedback screen is shown.
    static bool feedbackIsShown();
    /// The captions of the menu and the alert; owned by the send flow.
    static QKFeedbackSettings *feedbackSettings();
    /// From the key window's root controller, following presented controllers.
    static QKViewController *topMostController();
    /// The key window's root controller's view as an image at the screen's ratio.
    static QImage takeScreenshot();

    /// Opens the menu unless feedback is already shown; the screens opened from it come
    /// in with `style`.
    void showFeedback(TransitionStyle style);
    /// The same with the style as a number: negative presents without animation.
    void showFeedback(qint64 style);
    /// Throws QKUnrecognizedSelectorException when no feedback is shown (the platform's
    /// behaviour of this entry point, kept); does nothing otherwise.
    void sendFeedback();

    /// Reads the settings file (the send flow's).
    void loadSettings();
    /// Writes "qkfeedback.settings.plist" atomically; false when that failed.
    bool saveSettings();

    /// Sends feedbackItems, after the name screen when the source has no name yet.
    /// `sender` is the send screen, or null when resuming after the name screen.
    void send(QKViewController *sender);

    /// The send and name flow behind the screens; owned by the façade.
    QKFeedbackSendFlow *sendFlow() const;
    /// The screen as captured when the menu was asked for.
    QImage screenshot() const;
    /// Replaces the captured screen (a host with a better picture of its own may).
    void setScreenshot(const QImage &screenshot);
    /// The style the screens come in with, as a number.
    qint64 transitionStyle() const;
    /// Sets the style for the next screens.
    void setTransitionStyle(TransitionStyle style);
    /// The same with the style as a number, beyond the range of int clamped to it.
    void setTransitionStyle(qint64 style);
    /// The settings dictionary itself ("Name"), for changing in place.
    QVariantMap &settings();
    /// Replaces the settings dictionary.
    void setSettings(const QVariantMap &settings);
    /// The items the next send hands to the source.
    QKFeedbackItemList feedbackItems() const;
    /// Sets them.
    void setFeedbackItems(const QKFeedbackItemList &items);
    /// Whether the menu or a feedback screen is shown.
    bool isFeedbackShown() const;
    /// Set false by the screens' own closing actions.
    void setFeedbackIsShown(bool shown);
    /// Whether the name screen shows its two send buttons.
    bool showSettingsButtons() const;

    /// The menu closed: 0 opens the send screen, 1 the list, 2 the name screen (without
    /// its send buttons); anything else ends the feedback.
    void actionSheetDidDismissWithButtonIndex(QKActionSheet *sheet, int buttonIndex) override;
    /// The send screen's Send: takes its items and sends them.
    void sendViewControllerAction(QKFeedbackSendViewController *sendScreen) override;
    /// Fills the name screen: the saved name, and the send buttons only when a send waits.
    void settingsViewControllerInit(QKFeedbackSettingsViewController *screen) override;
    using QKFeedbackSettingsViewControllerDelegate::settingsViewController;
    /// The name screen's choice, handed to the send flow (which sends again unless it was Back).
    void settingsViewController(QKFeedbackSettingsViewController *screen,
                                QKFeedbackSendFlow::NameAction action) override;

    /// The settings file's path: QKDocumentsDirectory() + "/qkfeedback.settings.plist".
    static QString settingsPath();

    ~QKFeedback() override;

private:
    QKFeedback();

    std::unique_ptr<QKFeedbackPrivate> d;
};
