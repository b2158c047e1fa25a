#include "QKArchiveException.h"

QKArchiveException::QKArchiveException(const QString &reason)
    : QKException(QStringLiteral("NSInvalidUnarchiveOperationException"), reason)
{}
