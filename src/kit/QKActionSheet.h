#pragma once

#include "QKGlobalKit.h"

#include <QObject>
#include <QPointer>
#include <QRectF>
#include <QStringList>

class QKActionSheetDelegate;
class QKView;

/// The platform's action sheet: a group of buttons under a small grey title and a
/// separate cancel button, sliding up from the bottom of a window over a dimmed
/// background. Buttons are numbered as on the platform: the destructive one (if
/// any) first, then the others in order, the cancel button (if any) last.
///
/// Ownership: the sheet owns itself and deletes itself (deleteLater) after it was
/// dismissed and the delegate was told. One never dismissed lives until it is; one
/// whose window is destroyed goes with it, telling nobody. Main thread only.
class MURMORA_EXPORT QKActionSheet : public QObject
{
    Q_OBJECT
public:
    QKActionSheet(const QString &title, QKActionSheetDelegate *delegate, const QString &cancelButtonTitle,
                  const QString &destructiveButtonTitle, const QStringList &otherButtonTitles);
    ~QKActionSheet() override;

    QString title() const { return m_title; }
    QKActionSheetDelegate *delegate() const;
    void setDelegate(QKActionSheetDelegate *delegate);

    int numberOfButtons() const { return int(m_buttons.size()); }
    /// A null string outside 0..numberOfButtons()-1.
    QString buttonTitleAtIndex(int index) const { return m_buttons.value(index); }
    /// -1 when the sheet has no such button.
    int cancelButtonIndex() const { return m_cancelIndex; }
    int destructiveButtonIndex() const { return m_destructiveIndex; }
    int firstOtherButtonIndex() const;

    /// Slides up in the window that `view` is in (the key window when it is in none).
    /// Without any window nothing shows, but the sheet is listed until dismissed.
    void showInView(QKView *view);
    bool isVisible() const { return m_state == Shown; }
    /// Slides away (at once when not animated), then tells the delegate and emits dismissed.
    void dismissWithClickedButtonIndex(int buttonIndex, bool animated);

    /// Where the button is once the sheet is up, in window coordinates; empty when
    /// the sheet is not shown in a window or there is no such button.
    QRectF rectForButtonAtIndex(int index) const;
    /// The dimmed view over the window that takes the taps; null when not shown.
    QKView *view() const;

    /// The sheets shown and not yet dismissed, oldest first.
    static QList<QKActionSheet *> visibleSheets();

signals:
    void dismissed(int buttonIndex);

private:
    enum State { Idle, Shown, Dismissing };
    void tapped(int buttonIndex);
    void finishDismissal(int buttonIndex);

    QString m_title;
    QStringList m_buttons;
    int m_cancelIndex = -1;
    int m_destructiveIndex = -1;
    QKActionSheetDelegate *m_delegate = nullptr;
    QPointer<QObject> m_delegateObject;
    State m_state = Idle;
    QPointer<QKView> m_view;
};
