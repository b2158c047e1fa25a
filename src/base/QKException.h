#pragma once

#include "QKGlobal.h"

#include <QString>

#include <exception>
#include <memory>

class QKExceptionPrivate;

/// An exception the library throws where a programming error or corrupt input
/// stops an operation: it has a name and a reason, and what() joins them.
/// Copies share their text, so throwing and catching by value stays cheap.
class MURMORA_DATA_EXPORT QKException : public std::exception
{
public:
    /// `name` says what kind of failure this is (e.g. "NSInvalidArgumentException"),
    /// `reason` what went wrong, for a person to read.
    QKException(const QString &name, const QString &reason);
    ~QKException() override;

    /// The kind of failure.
    QString name() const;
    /// What went wrong.
    QString reason() const;
    /// "name: reason" in UTF-8; valid as long as the exception or a copy lives.
    const char *what() const noexcept override;

private:
    std::shared_ptr<const QKExceptionPrivate> d;
};
