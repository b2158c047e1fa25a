#include "PostgresServer.h"

#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTcpServer>

#include <pwd.h>
#include <unistd.h>

namespace {

const QString Bin = "/usr/lib/postgresql/15/bin/";
constexpr int ToolTimeoutMs = 90000;

} // namespace

PostgresServer::~PostgresServer()
{
    m_guard.closeWriteChannel();
    m_guard.waitForFinished(ToolTimeoutMs);
}

QString PostgresServer::unavailable()
{
    for (const char *tool : {"initdb", "pg_ctl", "psql"})
        if (!QFileInfo(Bin + tool).isExecutable())
            return Bin + tool + QLatin1String(" is missing (./dev.sh deps installs postgresql-15)");
    return {};
}

bool PostgresServer::start()
{
    if (const QString why = unavailable(); !why.isEmpty())
        return fail(why);
    if (!m_dir.isValid())
        return fail("no temporary directory: " + m_dir.errorString());
    // initdb refuses root; the server's files belong to postgres then.
    if (::geteuid() == 0) {
        const passwd *user = ::getpwnam("postgres");
        if (!user || ::chown(QFile::encodeName(m_dir.path()).constData(), user->pw_uid, user->pw_gid) != 0)
            return fail("running as root, but there is no postgres user to run the server");
    }
    // Stops the server and removes its files when its input closes: in our destructor, or
    // when the test dies without running it.
    const QString stop = QStringLiteral("exec >/dev/null 2>&1; read _; %1pg_ctl stop -D '%2' -m fast -w; rm -rf '%3'")
                             .arg(Bin, dataDirectory(), m_dir.path());
    if (::geteuid() == 0)
        m_guard.start("/usr/sbin/runuser", {"-u", "postgres", "--", "/bin/sh", "-c", stop});
    else
        m_guard.start("/bin/sh", {"-c", stop});
    if (!m_guard.waitForStarted())
        return fail("cannot start a shell: " + m_guard.errorString());
    const QStringList initdb =
        QStringLiteral("-U postgres -A trust -E UTF8 --locale=C --locale-provider=icu --icu-locale=en --no-sync")
            .split(QLatin1Char(' '));
    if (!run("initdb", QStringList{"-D", dataDirectory()} + initdb, true))
        return false;
    {
        QTcpServer probe;
        if (!probe.listen(QHostAddress::LocalHost, 0))
            return fail("no free port on 127.0.0.1");
        m_port = probe.serverPort();
    }
    const QString log = m_dir.filePath("server.log");
    const QString options =
        QStringLiteral("-c listen_addresses=127.0.0.1 -c port=%1 -c unix_socket_directories=%2 -c fsync=on")
            .arg(m_port)
            .arg(m_dir.path());
    if (!run("pg_ctl", {"start", "-w", "-D", dataDirectory(), "-l", log, "-o", options}, true)) {
        QFile file(log);
        file.open(QIODevice::ReadOnly);
        return fail(m_error + QLatin1String("\nserver log:\n") + QString::fromUtf8(file.readAll()));
    }
    return psql("CREATE DATABASE murmora", QStringLiteral("postgres")).has_value();
}

QString PostgresServer::url(const QString &database) const
{
    return QStringLiteral("postgresql://postgres@127.0.0.1:%1/%2").arg(m_port).arg(database);
}

std::optional<QString> PostgresServer::psql(const QString &sql, const QString &database)
{
    QString output;
    const QStringList options = QStringLiteral("-X -q -A -t -v ON_ERROR_STOP=1 -d").split(QLatin1Char(' '));
    if (!run("psql", options + QStringList{url(database), "-c", sql}, false, &output))
        return std::nullopt;
    return output.trimmed();
}

bool PostgresServer::run(const QString &tool, const QStringList &arguments, bool asServerUser, QString *output)
{
    QProcess process;
    process.setWorkingDirectory(m_dir.path());
    if (asServerUser && ::geteuid() == 0)
        process.start("/usr/sbin/runuser", QStringList{"-u", "postgres", "--", Bin + tool} + arguments);
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
