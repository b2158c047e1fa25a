#pragma once

#include "QKModalPanel.h"

#include <QStringList>

#include <functional>

/// The platform's alert: a white card with a bold title, a message and a row (two
/// buttons) or column of buttons, centred over the dimmed key window; it fades in
/// and out. Buttons are numbered as on the platform: the cancel button 0 (when there
/// is one), the others after it in order. Taps off the buttons do nothing.
///
/// Ownership: the alert owns itself and deletes itself (deleteLater) after it was
/// dismissed and dismissed() and the handler ran. One never dismissed lives until
/// it is; one whose window is destroyed goes with it, reporting nothing. Main
/// thread only.
class MURMORA_EXPORT QKAlertView : public QKModalPanel
{
    Q_OBJECT
public:
    QKAlertView(const QString &title, const QString &message, const QString &cancelButtonTitle,
                const QStringList &otherButtonTitles = {});

    QString title() const { return m_title; }
    QString message() const { return m_message; }
    /// By button index.
    QStringList buttonTitles() const { return m_buttons; }
    int numberOfButtons() const { return int(m_buttons.size()); }
    /// 0, or -1 without a cancel button.
    int cancelButtonIndex() const { return m_cancelIndex; }

    /// Called with the button index after dismissed() is emitted.
    void setDismissHandler(std::function<void(int buttonIndex)> handler) { m_handler = std::move(handler); }

    /// Fades in over the key window. Without one nothing shows, but the alert is listed
    /// until dismissed. Only the first call counts.
    void show();

    /// The alerts shown and not yet dismissed, oldest first.
    static QList<QKAlertView *> visibleAlerts();

private:
    QKModalOverlay *createOverlay() const override;
    void reportDismissal(int buttonIndex) override;
    double appearDuration() const override;
    double disappearDuration() const override;

    QString m_title;
    QString m_message;
    QStringList m_buttons;
    int m_cancelIndex = -1;
    std::function<void(int)> m_handler;
};
