#pragma once

#include "QKGlobal.h"

#include <QString>
#include <QVariantMap>

/// An error as a data source reports it: a short title (the domain), a code and
/// user information whose "error" entry is the message to show.
/// A plain value; completions take std::optional<QKError>, where no error is std::nullopt.
struct MURMORA_DATA_EXPORT QKError
{
    QString domain;
    qint64 code = 0;
    QVariantMap userInfo;

    /// An error whose user information holds only `message` under "error".
    static QKError withMessage(const QString &domain, qint64 code, const QString &message);

    /// The text under "error", or a null string when there is none.
    QString message() const;

    bool operator==(const QKError &other) const = default;
};
