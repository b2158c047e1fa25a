#pragma once

#include "../kit/QKGlobalKit.h"

#include <QString>

class QKFeedbackTextView;

/// Told by the comment bar when its button is pressed and when its field stops editing.
class MURMORA_EXPORT QKFeedbackTextViewDelegate
{
public:
    virtual ~QKFeedbackTextViewDelegate() = default;
    /// The button was pressed; `text` is the field's text as typed.
    virtual void feedbackTextView(QKFeedbackTextView *textView, const QString &text) = 0;
    /// The field lost the keyboard focus.
    virtual void feedbackTextViewEndEdit(QKFeedbackTextView *textView) = 0;
};
