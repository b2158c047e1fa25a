#pragma once

// A throwaway PostgreSQL 15 server for a test: initdb and pg_ctl in a temporary
// directory (as the postgres user when the test runs as root), listening on 127.0.0.1
// and a free port, trusting its clients, with a database "murmora". Its default
// collation is ICU's "en", so text ordered by the database's default shows up. Stopped
// and removed when destroyed.

#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <optional>

class PostgresServer
{
public:
    PostgresServer() = default;
    ~PostgresServer();
    PostgresServer(const PostgresServer &) = delete;
    PostgresServer &operator=(const PostgresServer &) = delete;

    // Why no server can run on this machine (the binaries are missing), or empty.
    static QString unavailable();
    // Starts the server and creates "murmora"; false, with error() saying why, when it
    // cannot within a bounded time.
    bool start();
    QString error() const { return m_error; }
    QString url(const QString &database = QStringLiteral("murmora")) const;
    // Runs `sql` through psql in `database`: its unaligned output, or nullopt (error()).
    std::optional<QString> psql(const QString &sql, const QString &database = QStringLiteral("murmora"));

private:
    bool run(const QString &tool, const QStringList &arguments, bool asServerUser, QString *output = nullptr);
    bool fail(const QString &why);
    QString dataDirectory() const { return m_dir.filePath(QStringLiteral("data")); }

    QTemporaryDir m_dir;
    QProcess m_guard;
    quint16 m_port = 0;
    QString m_error;
};
