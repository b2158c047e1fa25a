#pragma once

#include "QKException.h"

/// Thrown when an object is asked for an operation it does not implement,
/// such as an optional data source operation.
class MURMORA_DATA_EXPORT QKUnrecognizedSelectorException : public QKException
{
public:
    /// `className` and `selector` name the receiver and the operation,
    /// e.g. "QKLocalFeedbackSource" and "imageForKey:completionHandler:".
    QKUnrecognizedSelectorException(const QString &className, const QString &selector, const void *instance);

    QString selector() const { return m_selector; }

private:
    QString m_selector;
};
