#pragma once

#include "QKError.h"

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QSharedPointer>
#include <QSslCertificate>
#include <QUrl>

#include <functional>
#include <memory>
#include <optional>

class QThread;

/// One HTTP request: URL, method, headers in order, body.
struct MURMORA_DATA_EXPORT QKURLRequest
{
    QUrl url;
    QByteArray method = QByteArrayLiteral("GET");
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;

    /// Sets `name` (case-insensitive), replacing an earlier value.
    void setHeader(const QByteArray &name, const QByteArray &value);
    /// The value of `name`, or a null array.
    QByteArray header(const QByteArray &name) const;
};

/// Runs HTTP requests on the library's one network thread, with the platform's
/// rules rather than Qt's defaults: an HTTP error status is an answer (its body is
/// delivered), only failures to get an answer are errors; requests time out after
/// 60 s without progress; answers larger than the cap fail; TLS is always verified
/// (add CA certificates to trust a private server); header values holding CR, LF or
/// NUL are refused before anything is sent.
///
/// Transport errors are QKError values in the domain "NSURLErrorDomain" with the
/// platform's URL error codes (-1001 timed out, -1002 unsupported URL, -1003 host not
/// found, -1004 cannot connect, -1005 connection lost, -1009 offline, -1016 content
/// that cannot be decoded (how Qt stops a gzip bomb), -1103 too large, -1200 TLS
/// failed, -1201/-1202/-1204 certificate expired/untrusted/not yet valid, -999
/// cancelled, -1007 too many redirects, -1022 a redirect from https to http,
/// RedirectRefusedError (-1040, Murmora's own) a redirect refused, -1 other) and a
/// description under "error".
///
/// Redirects (301, 302, 303, 307, 308) are followed only to the same scheme, host and
/// port, so that neither a body nor a header (the device's identifier in a filter)
/// ever reaches another server; and for a method other than GET only by 307 and 308,
/// which keep the method and body. Any other redirect ends the task with
/// RedirectRefusedError. (Qt's own policies would follow a 302 after a POST as a GET
/// and report that GET's answer.)
///
/// Every completion is called exactly once, on the network thread, never on the
/// caller's. Destroying a session cancels its unfinished tasks (-999). When the
/// QCoreApplication is destroyed, every task still in flight, in every session, ends
/// with -999 before the network thread stops; a task started after that fails with
/// -999 at once, on the caller's thread, as there is no network thread left to run it.
/// The settings may be changed from any thread; a change applies to tasks started
/// afterwards.
class MURMORA_DATA_EXPORT QKURLSession
{
public:
    using Completion = std::function<void(const QByteArray &body, int statusCode, std::optional<QKError> error)>;

    QKURLSession();
    ~QKURLSession();
    QKURLSession(const QKURLSession &) = delete;
    QKURLSession &operator=(const QKURLSession &) = delete;

    /// The process-wide session, never destroyed.
    static QSharedPointer<QKURLSession> sharedSession();
    /// The thread every completion runs on. Stopped when the QCoreApplication goes.
    static QThread *networkThread();

    /// Trusts these CA certificates besides the system's.
    void addCaCertificates(const QList<QSslCertificate> &certificates);
    /// Time without progress after which a request fails with -1001 (default 60 s).
    void setTimeoutInterval(int msecs);
    int timeoutInterval() const;
    /// Longest a request may take in all before it fails with -1001 (default 7 days).
    void setResourceTimeout(qint64 msecs);
    /// Largest answer body accepted; a larger one fails with -1103 (default 64 MiB).
    void setMaximumResponseSize(qint64 bytes);
    qint64 maximumResponseSize() const;

    /// Starts `request` at once.
    void dataTask(const QKURLRequest &request, Completion completion);

    static constexpr const char *ErrorDomain = "NSURLErrorDomain";
    /// A redirect to another origin, or one that would turn a POST, PUT or DELETE into a
    /// GET. The platform's URL errors have no code for it; this one is Murmora's.
    static constexpr qint64 RedirectRefusedError = -1040;

private:
    struct Private;
    std::shared_ptr<Private> d;
};
