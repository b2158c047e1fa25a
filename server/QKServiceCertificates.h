#pragma once

// The service's own TLS certificate, for a team that has none yet: a local CA and a
// server certificate it signs, for localhost and 127.0.0.1, kept in DIR/tls and reused
// on every start (the server certificate is renewed when it has less than 30 days left).
// Clients trust the CA file.

#include <QString>

struct QKServiceCertificates
{
    QString certificateFile; // the server certificate, then the CA
    QString keyFile;
    QString caFile;

    // Makes what is missing; throws std::runtime_error.
    static QKServiceCertificates ensure(const QString &dataDirectory);
};
