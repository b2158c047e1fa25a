#pragma once

#include "QKGlobal.h"

#include <QMetaType>
#include <QSharedPointer>
#include <QStringList>

class QKKeyedArchiver;

/// A class whose objects archive themselves by key. Each registers a factory
/// with QKKeyedUnarchiver::registerClass under the first name of its class chain.
class MURMORA_DATA_EXPORT QKCoding
{
public:
    virtual ~QKCoding();

    /// The archived class names, most derived first, e.g. {"QKFeedbackItem", "NSObject"}.
    virtual QStringList archiveClassChain() const = 0;
    /// Writes the object's fields with the archiver's encode calls.
    virtual void encodeWithCoder(QKKeyedArchiver &coder) const = 0;
};

using QKCodingPtr = QSharedPointer<QKCoding>;
Q_DECLARE_METATYPE(QKCodingPtr)
