#include "QKFeedbackTextView.h"

#include "QKFeedbackTextViewDelegate.h"

#include "../base/QKLocalizedString.h"
#include "../base/QKWhitespace.h"
#include "../kit/QKButton.h"
#include "../kit/QKTextField.h"
#include "../models/QKPalette.h"

namespace {} // namespace

QKFeedbackTextView::QKFeedbackTextView(const QRectF &frame, QWidget *parent)
    : QKView(frame, parent), m_headerBorder(new QKView), m_textField(new QKTextField),
      m_sendButton(new QKButton(QKButton::Custom))
{
    setBackgroundColor(QKPalette::background());

    m_headerBorder->setBackgroundColor(QKPalette::secondaryText());
    addSubview(m_headerBorder);

    m_textField->setTintColor(QKPalette::text());
    m_textField->setBorderStyle(QKTextField::BorderRoundedRect);
    m_textField->setPlaceholder(QKLocalizedString("Comment"));
    m_textField->setDidEndEditing([this](QKTextField *field) { textFieldDidEndEditing(field); });
    m_textField->addTarget(
        this, [this](QKControl *sender) { textFieldDidChanged(sender); }, QKControl::EditingChanged);
    addSubview(m_textField);

    m_sendButton->setEnabled(false);
    m_sendButton->setTitle(QKLocalizedString("Done"), QKButton::Normal);
    m_sendButton->setTitleColor(QKPalette::secondaryText(), QKButton::Disabled);
    m_sendButton->setTitleColor(QKPalette::tint(), QKButton::Normal);
    m_sendButton->addTarget(
        this, [this](QKControl *sender) { sendButtonTouched(sender); }, QKControl::TouchUpInside);
    addSubview(m_sendButton);

    // The button keeps the width its title needed when the bar was built.
    m_buttonWidth = m_sendButton->sizeThatFits(bounds().size()).width() + 10.0;
    layoutSubviews();
}

QKFeedbackTextView::QKFeedbackTextView(const QString &text, QWidget *parent) : QKFeedbackTextView(QRectF(), parent)
{
    m_textField->setText(text);
}

QKFeedbackTextView::~QKFeedbackTextView()
{
    // The field's focus-out while it is destroyed must not reach a half-destroyed bar.
    m_textField->setDidEndEditing({});
}

QSizeF QKFeedbackTextView::sizeThatFits(const QSizeF &size) const
{
    return QSizeF(size.width(), m_sendButton->sizeThatFits(size).height() + 10.0);
}

void QKFeedbackTextView::layoutSubviews()
{
    // H:|-5-[t]-5-[b(width)]-5-|, V:|-5-[b]-5-| and V:|-5-[t]-5-|; the rule runs along the top, 1 high.
    const QSizeF size = bounds().size();
    const qreal height = qMax(0.0, size.height() - 10.0);
    m_sendButton->setFrame(QRectF(size.width() - 5.0 - m_buttonWidth, 5.0, m_buttonWidth, height));
    m_textField->setFrame(QRectF(5.0, 5.0, qMax(0.0, size.width() - 15.0 - m_buttonWidth), height));
    m_headerBorder->setFrame(QRectF(0, 0, size.width(), 1.0));
}

void QKFeedbackTextView::didMoveToSuperview()
{
    if (m_activateKeyboardOnShow && superview())
        m_textField->becomeFirstResponder();
}

void QKFeedbackTextView::sendButtonTouched(QKControl *)
{
    if (m_delegate)
        m_delegate->feedbackTextView(this, m_textField->text());
}

void QKFeedbackTextView::textFieldDidChanged(QKControl *)
{
    m_sendButton->setEnabled(m_activateKeyboardOnShow || !QKTrimmedWhitespace(m_textField->text()).isEmpty());
}

void QKFeedbackTextView::textFieldDidEndEditing(QKTextField *)
{
    if (m_delegate)
        m_delegate->feedbackTextViewEndEdit(this);
}
