#include "QKFeedbackSettingsViewControllerDelegate.h"

void QKFeedbackSettingsViewControllerDelegate::settingsViewControllerInit(QKFeedbackSettingsViewController *)
{}

void QKFeedbackSettingsViewControllerDelegate::settingsViewController(QKFeedbackSettingsViewController *,
                                                                      const QString &)
{}
