#pragma once

#include "QKException.h"

/// Thrown when a keyed archive cannot be read (or an object cannot be archived);
/// the reason says what is wrong.
class MURMORA_DATA_EXPORT QKArchiveException : public QKException
{
public:
    /// An exception named "NSInvalidUnarchiveOperationException" with `reason`.
    explicit QKArchiveException(const QString &reason);
};
