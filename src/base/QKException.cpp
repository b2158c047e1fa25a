#include "QKException.h"

QKException::QKException(const QString &name, const QString &reason)
    : m_name(name), m_reason(reason), m_what((name + QStringLiteral(": ") + reason).toUtf8())
{}
