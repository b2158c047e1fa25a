#pragma once

#include "QKGlobal.h"

#include <QSharedDataPointer>
#include <QString>
#include <QVariantMap>

class QKErrorData;

/// An error as a data source reports it: a short title (the domain), a code and
/// user information whose "error" entry is the message to show.
///
/// An implicitly shared value, cheap to copy and safe to hand between threads.
/// Completions take std::optional<QKError>, where no error is std::nullopt.
class MURMORA_DATA_EXPORT QKError
{
public:
    /// An error with a null domain, code 0 and no user information.
    QKError();
    /// An error with the given parts, as a data source builds it.
    QKError(const QString &domain, qint64 code, const QVariantMap &userInfo = {});
    /// Copies share the data until one of them is changed.
    QKError(const QKError &other);
    /// Shares `other`'s data.
    QKError &operator=(const QKError &other);
    ~QKError();

    /// An error whose user information holds only `message` under "error".
    static QKError withMessage(const QString &domain, qint64 code, const QString &message);

    /// The short title a screen shows above the message, such as "Network Error".
    QString domain() const;
    /// Sets the title.
    void setDomain(const QString &domain);
    /// A transport error's URL error code (negative), an HTTP status, or the source's own code.
    qint64 code() const;
    /// Sets the code.
    void setCode(qint64 code);
    /// Everything the source knows; the message to show is under "error".
    QVariantMap userInfo() const;
    /// Sets the user information.
    void setUserInfo(const QVariantMap &userInfo);

    /// The text under "error", or a null string when there is none.
    QString message() const;

    /// Equal when domain, code and user information are.
    bool operator==(const QKError &other) const;

private:
    QSharedDataPointer<QKErrorData> d;
};
