#pragma once

#include "QKModalPanel.h"

#include <QStringList>

class QKActionSheetDelegate;

/// The platform's action sheet: a group of buttons under a small grey title and a
/// separate cancel button, sliding up from the bottom of a window over a dimmed
/// background. Buttons are numbered as on the platform: the destructive one (if
/// any) first, then the others in order, the cancel button (if any) last. A tap on
/// the dimmed background stands for the cancel button.
///
/// Ownership: the sheet owns itself and deletes itself (deleteLater) after it was
/// dismissed and the delegate was told. One never dismissed lives until it is; one
/// whose window is destroyed goes with it, telling nobody. Main thread only.
class MURMORA_EXPORT QKActionSheet : public QKModalPanel
{
    Q_OBJECT
public:
    QKActionSheet(const QString &title, QKActionSheetDelegate *delegate, const QString &cancelButtonTitle,
                  const QString &destructiveButtonTitle, const QStringList &otherButtonTitles);

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

    /// The sheets shown and not yet dismissed, oldest first.
    static QList<QKActionSheet *> visibleSheets();

private:
    QKModalOverlay *createOverlay() const override;
    /// Tells the delegate of the tap before sliding away.
    void buttonTapped(int buttonIndex) override;
    /// Tells the delegate, then emits dismissed.
    void reportDismissal(int buttonIndex) override;
    double appearDuration() const override;
    double disappearDuration() const override;

    QString m_title;
    QStringList m_buttons;
    int m_cancelIndex = -1;
    int m_destructiveIndex = -1;
    QKActionSheetDelegate *m_delegate = nullptr;
    QPointer<QObject> m_delegateObject;
};
