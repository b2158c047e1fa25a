#include "PostgresServer.h"

#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTcpServer>

#include <pwd.h>
#include <unistd.h>

namespace {

const QString Bin = QStringLiteral("/usr/lib/postgresql/15/bin/");
constexpr int ToolTimeoutMs = 90000;

} // namespace

PostgresServer::~PostgresServer()
{
    m_guard.closeWriteChannel();
    m_guard.waitForFinished(ToolTimeoutMs);
}

QString PostgresServer::unavailable()
{
    for (const QString &tool : {QStringLiteral("initdb"), QStringLiteral("pg_ctl"), QStringLiteral("psql")})
        if (!QFileInfo(Bin + tool).isExecutable())
            return Bin + tool + QLatin1String(" is missing (./dev.sh deps installs postgresql-15)");
    return {};
}

bool PostgresServer::start()
{
    if (const QString why = unavailable(); !why.isEmpty())
        return fail(why);
    if (!m_dir.isValid())
        return fail(QStringLiteral("no temporary directory: ") + m_dir.errorString());
    // initdb refuses root; the server's files belong to postgres then.
    if (::geteuid() == 0) {
        const passwd *user = ::getpwnam("postgres");
        if (!user || ::chown(QFile::encodeName(m_dir.path()).constData(), user->pw_uid, user->pw_gid) != 0)
            return fail(QStringLiteral("running as root, but there is no postgres user to run the server"));
    }
    // Stops the server and removes its files when its input closes: in our destructor, or
    // when the test dies without running it.
    const QString stop = QStringLiteral("exec >/dev/null 2>&1; read _; %1pg_ctl stop -D '%2' -m fast -w; rm -rf '%3'")
                             .arg(Bin, dataDirectory(), m_dir.path());
    if (::geteuid() == 0)
        m_guard.start(QStringLiteral("/usr/sbin/runuser"),
                      {QStringLiteral("-u"), QStringLiteral("postgres"), QStringLiteral("--"),
                       QStringLiteral("/bin/sh"), QStringLiteral("-c"), stop});
    else
        m_guard.start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), stop});
    if (!m_guard.waitForStarted())
        return fail(QStringLiteral("cannot start a shell: ") + m_guard.errorString());
    if (!run(QStringLiteral("initdb"),
             {QStringLiteral("-D"), dataDirectory(), QStringLiteral("-U"), QStringLiteral("postgres"),
              QStringLiteral("-A"), QStringLiteral("trust"), QStringLiteral("-E"), QStringLiteral("UTF8"),
              QStringLiteral("--locale=C"), QStringLiteral("--locale-provider=icu"), QStringLiteral("--icu-locale=en"),
              QStringLiteral("--no-sync")},
             true))
        return false;
    {
        QTcpServer probe;
        if (!probe.listen(QHostAddress::LocalHost, 0))
            return fail(QStringLiteral("no free port on 127.0.0.1"));
        m_port = probe.serverPort();
    }
    const QString log = m_dir.filePath(QStringLiteral("server.log"));
    const QString options =
        QStringLiteral("-c listen_addresses=127.0.0.1 -c port=%1 -c unix_socket_directories=%2 -c fsync=on")
            .arg(m_port)
            .arg(m_dir.path());
    if (!run(QStringLiteral("pg_ctl"),
             {QStringLiteral("start"), QStringLiteral("-D"), dataDirectory(), QStringLiteral("-l"), log,
              QStringLiteral("-w"), QStringLiteral("-t"), QStringLiteral("60"), QStringLiteral("-o"), options},
             true)) {
        QFile file(log);
        file.open(QIODevice::ReadOnly);
        return fail(m_error + QLatin1String("\nserver log:\n") + QString::fromUtf8(file.readAll()));
    }
    return psql(QStringLiteral("CREATE DATABASE murmora"), QStringLiteral("postgres")).has_value();
}

QString PostgresServer::url(const QString &database) const
{
    return QStringLiteral("postgresql://postgres@127.0.0.1:%1/%2").arg(m_port).arg(database);
}

std::optional<QString> PostgresServer::psql(const QString &sql, const QString &database)
{
    QString output;
    if (!run(QStringLiteral("psql"),
             {QStringLiteral("-X"), QStringLiteral("-q"), QStringLiteral("-A"), QStringLiteral("-t"),
              QStringLiteral("-v"), QStringLiteral("ON_ERROR_STOP=1"), QStringLiteral("-d"), url(database),
              QStringLiteral("-c"), sql},
             false, &output))
        return std::nullopt;
    return output.trimmed();
}

bool PostgresServer::run(const QString &tool, const QStringList &arguments, bool asServerUser, QString *output)
{
    QProcess process;
    process.setWorkingDirectory(m_dir.path());
    if (asServerUser && ::geteuid() == 0)
        process.start(QStringLiteral("/usr/sbin/runuser"),
                      QStringList{QStringLiteral("-u"), QStringLiteral("postgres"), QStringLiteral("--"), Bin + tool} +
                          arguments);
    else
        process.start(Bin + tool, arguments);
    if (!process.waitForFinished(ToolTimeoutMs)) {
        process.kill();
        process.waitForFinished();
        return fail(tool + QLatin1String(" did not finish: ") + process.errorString());
    }
    if (output)
        *output = QString::fromUtf8(process.readAllStandardOutput());
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
        return fail(tool + QLatin1String(" failed: ") + QString::fromUtf8(process.readAllStandardError()));
    return true;
}

bool PostgresServer::fail(const QString &why)
{
    m_error = why;
    return false;
}
