// murmora-server: the service a team runs to receive what its apps send.

#include "QKAccounts.h"
#include "QKService.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QStringList>

#include <cstdio>
#include <cstring>
#include <malloc.h>
#include <stdexcept>
#include <termios.h>
#include <unistd.h>

namespace {

const char Usage[] = R"(usage:
  murmora-server --data DIR [--listen HOST:PORT] [--database URL]
                 [--tls-cert FILE --tls-key FILE] [--public-url URL] [--insecure-http]
                 [--max-body-mb N] [--threads N] [--webhook-retry-ms N]
  murmora-server apps add NAME --data DIR [--database URL]
  murmora-server apps list --data DIR [--database URL]
  murmora-server apps rotate NAME --data DIR [--database URL]
  murmora-server users add NAME [--admin] --data DIR [--database URL]
  murmora-server users list --data DIR [--database URL]
  murmora-server users passwd NAME --data DIR [--database URL]
  murmora-server users remove NAME --data DIR [--database URL]

Serves the feedback protocol at https://HOST:PORT/feedback/api/v1 (default listen
127.0.0.1:8443, port 0 picks a free one) and the team's dashboard at https://HOST:PORT/,
keeping its data in SQLite in DIR, or in PostgreSQL with --database postgresql://...
Without --tls-cert it makes its own certificate in DIR/tls and prints the CA file that
clients must trust. "users add" and "users passwd" read the password from standard input.
)";

void print(const QString &line, FILE *to = stdout)
{
    const QByteArray text = line.toUtf8() + '\n';
    std::fwrite(text.constData(), 1, size_t(text.size()), to);
    std::fflush(to);
}

int usage(const QString &problem)
{
    print(problem, stderr);
    std::fputs(Usage, stderr);
    return 2;
}

int apps(const QStringList &positional, const QKServiceOptions &options)
{
    auto store = QKServiceStore::open(options.databaseUrl, options.dataDirectory);
    const QString verb = positional.value(1);
    if (verb == QLatin1String("list") && positional.size() == 2) {
        for (const QKServiceApp &app : store->apps())
            print(QStringLiteral("%1\t%2\t%3")
                      .arg(app.name, app.key,
                           QDateTime::fromMSecsSinceEpoch(app.createdAt, Qt::UTC).toString(Qt::ISODate)));
        return 0;
    }
    if ((verb == QLatin1String("add") || verb == QLatin1String("rotate")) && positional.size() == 3) {
        const QString name = positional[2].trimmed();
        if (name.isEmpty() || name.size() > 200)
            return usage(QStringLiteral("An application's name is 1 to 200 characters."));
        if (verb == QLatin1String("add")) {
            const QKServiceApp app = store->addApp(name);
            print(QStringLiteral("Added the application %1. Its key, for the app's QKPlatformFeedbackSource:")
                      .arg(app.name));
            print(app.key);
            return 0;
        }
        const auto app = store->rotateApp(name);
        if (!app) {
            print(QStringLiteral("There is no application named %1.").arg(name), stderr);
            return 1;
        }
        print(QStringLiteral("The application %1 has a new key; the old one no longer works:").arg(app->name));
        print(app->key);
        return 0;
    }
    return usage(QStringLiteral("apps takes add NAME, list or rotate NAME."));
}

// One line of standard input, not echoed when it is a terminal.
QByteArray readPassword()
{
    const bool terminal = isatty(STDIN_FILENO);
    termios saved{};
    if (terminal) {
        std::fputs("Password: ", stderr);
        tcgetattr(STDIN_FILENO, &saved);
        termios quiet = saved;
        quiet.c_lflag &= ~tcflag_t(ECHO);
        tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
    }
    QByteArray line;
    for (int c = std::getchar(); c != EOF && c != '\n'; c = std::getchar())
        line.append(char(c));
    if (terminal) {
        tcsetattr(STDIN_FILENO, TCSANOW, &saved);
        std::fputs("\n", stderr);
    }
    if (line.endsWith('\r'))
        line.chop(1);
    return line;
}

int users(const QStringList &positional, const QKServiceOptions &options, bool admin)
{
    auto store = QKServiceStore::open(options.databaseUrl, options.dataDirectory);
    QKAccounts accounts(store.get());
    const QString verb = positional.value(1);
    if (verb == QLatin1String("list") && positional.size() == 2) {
        for (const QKMember &member : accounts.members())
            print(member.admin ? member.name + QLatin1String("\tadmin") : member.name);
        return 0;
    }
    if (verb == QLatin1String("add") && positional.size() == 3) {
        try {
            const QKMember member = accounts.addMember(positional[2], readPassword(), admin);
            print(QStringLiteral("Added %1 %2; they log in to the dashboard with that name and password.")
                      .arg(member.admin ? QStringLiteral("the administrator") : QStringLiteral("the member"),
                           member.name));
            return 0;
        } catch (const std::invalid_argument &error) {
            print(QString::fromUtf8(error.what()), stderr);
            return 1;
        }
    }
    if (verb == QLatin1String("passwd") && positional.size() == 3) {
        try {
            if (accounts.setPassword(positional[2], readPassword())) {
                print(QStringLiteral("%1 has a new password; their sessions have ended.").arg(positional[2]));
                return 0;
            }
        } catch (const std::invalid_argument &error) {
            print(QString::fromUtf8(error.what()), stderr);
            return 1;
        }
    } else if (verb == QLatin1String("remove") && positional.size() == 3) {
        if (accounts.removeMember(positional[2])) {
            print(QStringLiteral("Removed %1.").arg(positional[2]));
            return 0;
        }
    } else {
        return usage(QStringLiteral("users takes add NAME [--admin], list, passwd NAME or remove NAME."));
    }
    print(QStringLiteral("There is no member named %1.").arg(positional[2]), stderr);
    return 1;
}

} // namespace

int main(int argc, char *argv[])
{
    QKService::blockStopSignals();
    // Screenshots arrive as megabytes of text, copied a few times per request. Left to
    // mmap, every such buffer is fresh pages and thousands of page faults; in the heap,
    // freed buffers serve the next request.
    mallopt(M_MMAP_THRESHOLD, 256 * 1024 * 1024);
    mallopt(M_TRIM_THRESHOLD, 512 * 1024 * 1024);
    QCoreApplication app(argc, argv);
    QStringList args = app.arguments().mid(1);
    QKServiceOptions options;
    QStringList positional;
    bool admin = false;
    for (qsizetype i = 0; i < args.size(); ++i) {
        const QString &arg = args[i];
        const auto value = [&](QString *into) {
            if (i + 1 >= args.size())
                return false;
            *into = args[++i];
            return true;
        };
        QString number;
        bool ok = true;
        if (arg == QLatin1String("--data"))
            ok = value(&options.dataDirectory);
        else if (arg == QLatin1String("--listen"))
            ok = value(&options.listen);
        else if (arg == QLatin1String("--database"))
            ok = value(&options.databaseUrl);
        else if (arg == QLatin1String("--tls-cert"))
            ok = value(&options.certificateFile);
        else if (arg == QLatin1String("--tls-key"))
            ok = value(&options.keyFile);
        else if (arg == QLatin1String("--public-url"))
            ok = value(&options.publicUrl);
        else if (arg == QLatin1String("--insecure-http"))
            options.insecureHttp = true;
        else if (arg == QLatin1String("--max-body-mb")) {
            ok = value(&number) && number.toInt() > 0 && number.toInt() <= 4096;
            options.http.maxBodyBytes = qint64(number.toInt()) * 1024 * 1024;
        } else if (arg == QLatin1String("--threads")) {
            ok = value(&number) && number.toInt() > 0 && number.toInt() <= 256;
            options.http.threads = number.toInt();
        } else if (arg == QLatin1String("--webhook-retry-ms")) {
            ok = value(&number) && number.toLongLong() > 0;
            options.webhookFirstRetryMs = number.toLongLong();
        } else if (arg == QLatin1String("--admin")) {
            admin = true;
        } else if (arg == QLatin1String("--help") || arg == QLatin1String("-h")) {
            std::fputs(Usage, stdout);
            return 0;
        } else if (arg.startsWith(QLatin1String("--")))
            return usage(QStringLiteral("Unknown option %1.").arg(arg));
        else
            positional.append(arg);
        if (!ok)
            return usage(QStringLiteral("%1 needs a valid value.").arg(arg));
    }
    if (options.dataDirectory.isEmpty() && options.databaseUrl.isEmpty())
        return usage(QStringLiteral("Give the data directory: --data DIR."));
    try {
        if (positional.value(0) == QLatin1String("apps"))
            return apps(positional, options);
        if (positional.value(0) == QLatin1String("users"))
            return users(positional, options, admin);
        if (!positional.isEmpty())
            return usage(QStringLiteral("Unknown command %1.").arg(positional.first()));
        QKService service(options);
        service.start();
        if (options.publicUrl.isEmpty() &&
            (options.listen.startsWith(QLatin1String("0.0.0.0:")) || options.listen.startsWith(QLatin1String("[::]:"))))
            print(QStringLiteral("Listening on every address: give --public-url too, or screenshot addresses will "
                                 "name %1, which no client reaches.")
                      .arg(service.baseUrl()),
                  stderr);
        if (!service.madeCaFile().isEmpty())
            print(QStringLiteral("CA certificate: %1").arg(service.madeCaFile()));
        print(QStringLiteral("Murmora service listening on %1").arg(service.listeningUrl()));
        print(
            QStringLiteral("Dashboard: %1/").arg(service.listeningUrl().chopped(int(std::strlen("/feedback/api/v1")))));
        service.runUntilSignalled();
        print(QStringLiteral("Murmora service stopped."), stderr);
        return 0;
    } catch (const std::exception &error) {
        print(QString::fromUtf8(error.what()), stderr);
        return 1;
    }
}
