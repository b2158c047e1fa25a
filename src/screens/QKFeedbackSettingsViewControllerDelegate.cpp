#include "QKFeedbackSettingsViewControllerDelegate.h"

void QKFeedbackSettingsViewControllerDelegate::settingsViewControllerInit(QKFeedbackSettingsViewController *)
{}

void QKFeedbackSettingsViewControllerDelegate::settingsViewController(QKFeedbackSettingsViewController *,
                                                                      QKFeedbackSendFlow::NameAction)
{}

void QKFeedbackSettingsViewControllerDelegate::settingsViewController(QKFeedbackSettingsViewController *screen,
                                                                      const QString &action)
{
    settingsViewController(screen, QKFeedbackSendFlow::nameAction(action));
}
