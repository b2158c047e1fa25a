#pragma once

#include "../kit/QKView.h"

class QKButton;
class QKControl;
class QKTextField;
class QKFeedbackTextViewDelegate;

/// A one-line comment bar: a white strip with a grey rule along its top, a rounded
/// field and a "Done" button. It reports the button and the end of editing to its
/// delegate and knows nothing of what the text is for. Main thread only.
class MURMORA_EXPORT QKFeedbackTextView : public QKView
{
    Q_OBJECT
public:
    explicit QKFeedbackTextView(const QRectF &frame = QRectF(), QWidget *parent = nullptr);
    /// A bar at a zero frame showing `text`; the button stays disabled until the first edit.
    explicit QKFeedbackTextView(const QString &text, QWidget *parent = nullptr);
    ~QKFeedbackTextView() override;

    QKView *headerBorder() const { return m_headerBorder; }
    QKTextField *textField() const { return m_textField; }
    QKButton *sendButton() const { return m_sendButton; }
    /// Not owned: the delegate clears it, or outlives the bar.
    QKFeedbackTextViewDelegate *delegate() const { return m_delegate; }
    void setDelegate(QKFeedbackTextViewDelegate *delegate) { m_delegate = delegate; }
    /// True unless set: the field takes the focus when the bar goes into a view, and
    /// any edit enables the button; false enables it only for more than blanks.
    bool activateKeyboardOnShow() const { return m_activateKeyboardOnShow; }
    void setActivateKeyboardOnShow(bool activate) { m_activateKeyboardOnShow = activate; }

    /// The width asked for; the button's fitting height plus 10.
    QSizeF sizeThatFits(const QSizeF &size) const override;
    void layoutSubviews() override;
    void didMoveToSuperview() override;

    /// The button's action: hands the field's text, untrimmed, to the delegate.
    void sendButtonTouched(QKControl *sender);
    /// The field's action on every edit: enables the button by the rule above.
    void textFieldDidChanged(QKControl *sender);
    /// The field lost the focus: tells the delegate.
    void textFieldDidEndEditing(QKTextField *textField);

private:
    QKView *m_headerBorder;
    QKTextField *m_textField;
    QKButton *m_sendButton;
    QKFeedbackTextViewDelegate *m_delegate = nullptr;
    bool m_activateKeyboardOnShow = true;
    qreal m_buttonWidth = 0;
};
