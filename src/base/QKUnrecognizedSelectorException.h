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

    /// The operation that was asked for.
    QString selector() const;

private:
    std::shared_ptr<const QString> d;
};
