#pragma once

#include "../annotation/QKFeedbackSendViewControllerDelegate.h"
#include "../data/QKFeedbackDataSource.h"
#include "../kit/QKActionSheetDelegate.h"
#include "../screens/QKFeedbackSettingsViewControllerDelegate.h"
#include "QKFeedbackSettings.h"

#include <QImage>
#include <QObject>
#include <QVariantMap>

class QKViewController;

/// The library's front door: a host sets the data source once and opens feedback
/// from anywhere. It captures the screen, shows the menu, opens the chosen screen in
/// a navigation controller over whatever is shown, keeps the user's name in
/// "qkfeedback.settings.plist" and sends the annotated items with a busy indicator
/// and a closing alert.
///
/// One instance for the process, made on first use and never destroyed. Main thread
/// only; the send completion is moved to the main thread before anything is touched.
class MURMORA_EXPORT QKFeedback : public QObject,
                                  public QKActionSheetDelegate,
                                  public QKFeedbackSendViewControllerDelegate,
                                  public QKFeedbackSettingsViewControllerDelegate
{
    Q_OBJECT
public:
    static QKFeedback *sharedInstance();

    /// Opens the menu with the cover-vertical transition (the shared instance's
    /// showFeedback(0)); hosts choose another style through sharedInstance().
    static void showFeedback();
    /// Gives `source` the saved name as its userName, then makes it the data source.
    static void setDataSource(const QKFeedbackDataSourcePtr &source);
    static QKFeedbackDataSourcePtr dataSource();
    static bool feedbackIsShown();
    static QKFeedbackSettings *feedbackSettings();
    /// From the key window's root controller, following presented controllers.
    static QKViewController *topMostController();
    /// The key window's root controller's view as an image at the screen's ratio.
    static QImage takeScreenshot();

    /// Opens the menu unless feedback is already shown. `style` is the transition of
    /// the screens opened from it (0 cover vertical, 1 flip, 2 cross dissolve, 3 curl);
    /// negative presents them without animation.
    void showFeedback(qint64 style);
    /// Throws QKUnrecognizedSelectorException when no feedback is shown (the platform's
    /// behaviour of this entry point, kept); does nothing otherwise.
    void sendFeedback();

    void loadSettings();
    /// Writes "qkfeedback.settings.plist" atomically; false when that failed.
    bool saveSettings();

    /// Sends feedbackItems, after the name screen when the source has no name yet.
    /// `sender` is the send screen, or null when resuming after the name screen.
    void send(QKViewController *sender);

    QImage screenshot() const { return m_screenshot; }
    /// Replaces the captured screen (a host with a better picture of its own may).
    void setScreenshot(const QImage &screenshot) { m_screenshot = screenshot; }
    qint64 transitionStyle() const { return m_transitionStyle; }
    void setTransitionStyle(qint64 style) { m_transitionStyle = style; }
    QVariantMap &settings() { return m_settings; }
    void setSettings(const QVariantMap &settings) { m_settings = settings; }
    QKFeedbackItemList feedbackItems() const { return m_feedbackItems; }
    void setFeedbackItems(const QKFeedbackItemList &items) { m_feedbackItems = items; }
    bool isFeedbackShown() const { return m_feedbackIsShown; }
    void setFeedbackIsShown(bool shown) { m_feedbackIsShown = shown; }
    bool showSettingsButtons() const { return m_showSettingsButtons; }

    // The menu, the send screen and the name screen report here.
    void actionSheetDidDismissWithButtonIndex(QKActionSheet *sheet, int buttonIndex) override;
    void sendViewControllerAction(QKFeedbackSendViewController *sendScreen) override;
    void settingsViewControllerInit(QKFeedbackSettingsViewController *screen) override;
    void settingsViewController(QKFeedbackSettingsViewController *screen, const QString &action) override;

    /// The settings file's path: QKDocumentsDirectory() + "/qkfeedback.settings.plist".
    static QString settingsPath();

private:
    QKFeedback();

    bool m_showSettingsButtons = false;
    QKFeedbackSettings m_feedbackSettings;
    bool m_feedbackIsShown = false;
    QImage m_screenshot;
    qint64 m_transitionStyle = 0;
    QKFeedbackDataSourcePtr m_dataSource;
    QVariantMap m_settings;
    QKFeedbackItemList m_feedbackItems;
    // The stack opened from the menu; compared only, never dereferenced.
    const QObject *m_shownStack = nullptr;
};
