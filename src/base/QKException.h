#pragma once

#include "QKGlobal.h"

#include <QByteArray>
#include <QString>
#include <exception>

/// An exception the library throws where a programming error or corrupt input
/// stops an operation: it has a name and a reason, and what() joins them.
class MURMORA_DATA_EXPORT QKException : public std::exception
{
public:
    QKException(const QString &name, const QString &reason);

    QString name() const { return m_name; }
    QString reason() const { return m_reason; }
    const char *what() const noexcept override { return m_what.constData(); }

private:
    QString m_name;
    QString m_reason;
    QByteArray m_what;
};
