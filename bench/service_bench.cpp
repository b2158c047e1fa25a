// murmora-server under load, each figure beside a baseline measured in the same run:
// a device's first page against nginx serving the same JSON over HTTPS with the same
// certificate, screenshots posted against the same PNG bytes written and fsynced, and
// start-up against nginx's. Servers listen on 127.0.0.1 only; every step is bounded in
// time, and children and temporary directories go away when a step fails or the run is
// interrupted. `--smoke` runs everything once, small, and enforces no goal.

#include "SyntheticScreenshot.h"

#include "QKServiceStore.h"
#include "base/QKBase64.h"
#include "base/QKPNGCodec.h"
#include "support/PostgresServer.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QMutex>
#include <QProcess>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QThread>
#include <QUrl>

#include <sqlite3.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>

namespace {

struct Options
{
    QStringList stores{QStringLiteral("sqlite"), QStringLiteral("postgres")};
    int threads = 1000000; // in the store
    int devices = 10000;
    int seconds = 10; // each measured wrk run
    int warmupSeconds = 2;
    int connections = 32;
    int clients = 8;
    int items = 800;
    int starts = 3;        // start-ups timed, the median kept
    int serverThreads = 0; // 0: murmora-server's default
    int nginxWorkers = 2;
    int timeLimit = 1500; // seconds for the whole run
    bool smoke = false;
    bool keep = false; // leave the temporary directories, for a look at the logs
    QString dataRoot;
    QString server = QStringLiteral(MURMORA_SERVER);
    QString nginx; // found on PATH or in /usr/sbin
};
Options options;

const QString Certs = QStringLiteral(MURMORA_TEST_CERTS);
constexpr int ExitSkipped = 77;

// Children get SIGTERM when the run is interrupted or overruns its time limit; the steps
// then fail and unwind, which removes the temporary directories.
std::atomic<pid_t> children[16];
volatile sig_atomic_t interrupted = 0;

void onSignal(int)
{
    interrupted = 1;
    for (auto &child : children)
        if (const pid_t pid = child.load())
            ::kill(pid, SIGTERM);
}

void checkInterrupted()
{
    if (interrupted)
        throw std::runtime_error("interrupted, or over the time limit");
}

void say(const QString &line)
{
    std::printf("%s\n", qPrintable(line));
    std::fflush(stdout);
}

quint16 freePort()
{
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHost, 0))
        throw std::runtime_error("no free port on 127.0.0.1");
    return probe.serverPort();
}

double seconds(const QElapsedTimer &timer)
{
    return double(timer.nsecsElapsed()) / 1e9;
}

// A child process that dies with this one, is stopped when destroyed, and is known to
// the signal handler meanwhile.
class Child
{
public:
    Child(const QString &program, const QStringList &arguments, const QString &outputFile = {},
          const QString &errorFile = {}, const QProcessEnvironment &environment = {})
    {
        m_process.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGTERM); });
        if (!outputFile.isEmpty())
            m_process.setStandardOutputFile(outputFile);
        if (!errorFile.isEmpty())
            m_process.setStandardErrorFile(errorFile);
        if (!environment.isEmpty())
            m_process.setProcessEnvironment(environment);
        m_process.start(program, arguments);
        if (!m_process.waitForStarted(10000))
            throw std::runtime_error(
                QStringLiteral("cannot start %1: %2").arg(program, m_process.errorString()).toStdString());
        for (auto &slot : children) {
            pid_t empty = 0;
            if (slot.compare_exchange_strong(empty, pid_t(m_process.processId()))) {
                m_slot = &slot;
                break;
            }
        }
    }
    ~Child() { stop(); }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    qint64 pid() const { return m_process.processId(); }
    QProcess &process() { return m_process; }
    bool running() const { return m_process.state() != QProcess::NotRunning; }
    // Safe from any thread, unlike running(): neither gone nor a zombie.
    bool alive() const
    {
        QFile stat(QStringLiteral("/proc/%1/stat").arg(pid()));
        if (!stat.open(QIODevice::ReadOnly))
            return false;
        const QByteArray text = stat.readAll();
        const qsizetype paren = text.lastIndexOf(')');
        return paren > 0 && text.size() > paren + 2 && text[paren + 2] != 'Z';
    }

    // SIGTERM, then SIGKILL after `graceMs`.
    void stop(int graceMs = 15000)
    {
        if (running()) {
            m_process.terminate();
            if (!m_process.waitForFinished(graceMs)) {
                m_process.kill();
                m_process.waitForFinished(5000);
            }
        }
        if (m_slot)
            m_slot->store(0);
        m_slot = nullptr;
    }

private:
    QProcess m_process;
    std::atomic<pid_t> *m_slot = nullptr;
};

// One blocking HTTPS/1.1 connection to 127.0.0.1, kept alive between exchanges, trusting
// the test CA. Lives and is used on one QThread.
class HttpsClient
{
public:
    explicit HttpsClient(quint16 port) : m_port(port)
    {
        m_config = QSslConfiguration::defaultConfiguration();
        m_config.setCaCertificates(QSslCertificate::fromPath(Certs + QLatin1String("/ca.pem")));
    }

    // The answer's status, or -1 with error() set: refused, timed out, unreadable.
    int exchange(const QByteArray &head, const QList<QByteArrayView> &body, QByteArray *answer, int timeoutMs)
    {
        QElapsedTimer timer;
        timer.start();
        const auto left = [&] { return std::max<int>(1, timeoutMs - int(timer.elapsed())); };
        if (!m_socket || m_socket->state() != QAbstractSocket::ConnectedState) {
            m_socket = std::make_unique<QSslSocket>();
            m_socket->setSslConfiguration(m_config);
            m_socket->connectToHostEncrypted(QStringLiteral("127.0.0.1"), m_port);
            if (!m_socket->waitForEncrypted(timeoutMs))
                return fail(QStringLiteral("no TLS connection: ") + m_socket->errorString());
            m_buffer.clear();
        }
        m_socket->write(head);
        for (QByteArrayView part : body)
            m_socket->write(part.data(), part.size());
        while (m_socket->bytesToWrite() > 0 || m_socket->encryptedBytesToWrite() > 0)
            if (timer.elapsed() > timeoutMs || !m_socket->waitForBytesWritten(left()))
                return fail(QStringLiteral("cannot send: ") + m_socket->errorString());
        qsizetype headEnd;
        while ((headEnd = m_buffer.indexOf("\r\n\r\n")) < 0)
            if (!readMore(timer, timeoutMs))
                return -1;
        const QByteArray answerHead = m_buffer.left(headEnd);
        const int status = answerHead.startsWith("HTTP/1.1 ") ? answerHead.mid(9, 3).toInt() : 0;
        qsizetype length = -1;
        bool close = false;
        for (const QByteArray &line : answerHead.split('\n')) {
            const QByteArray lower = line.trimmed().toLower();
            if (lower.startsWith("content-length:"))
                length = lower.mid(15).trimmed().toLongLong();
            if (lower.startsWith("connection:") && lower.contains("close"))
                close = true;
        }
        if (status == 0 || length < 0)
            return fail(QStringLiteral("an answer without a status or Content-Length"));
        while (m_buffer.size() < headEnd + 4 + length)
            if (!readMore(timer, timeoutMs))
                return -1;
        if (answer)
            *answer = m_buffer.mid(headEnd + 4, length);
        m_buffer.remove(0, headEnd + 4 + length);
        if (close)
            m_socket.reset();
        return status;
    }

    QString error() const { return m_error; }

private:
    bool readMore(const QElapsedTimer &timer, int timeoutMs)
    {
        if (m_socket->bytesAvailable() == 0 &&
            (timer.elapsed() > timeoutMs ||
             !m_socket->waitForReadyRead(std::max<int>(1, timeoutMs - int(timer.elapsed()))))) {
            fail(QStringLiteral("no answer: ") + m_socket->errorString());
            return false;
        }
        m_buffer += m_socket->readAll();
        return true;
    }
    int fail(const QString &why)
    {
        m_error = why;
        m_socket.reset();
        return -1;
    }

    quint16 m_port;
    QSslConfiguration m_config;
    std::unique_ptr<QSslSocket> m_socket;
    QByteArray m_buffer;
    QString m_error;
};

// Runs `work` on a QThread (sockets want one) and waits for it.
template <class F>
void onThreads(int count, F work)
{
    std::vector<std::unique_ptr<QThread>> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back(QThread::create([&work, i] { work(i); }));
        threads.back()->start();
    }
    for (auto &thread : threads)
        thread->wait();
}

QByteArray filterFor(int device)
{
    return "{\"$and\":[{\"RootId\" : null}, {\"Uid\" : \"device-" + QByteArray::number(device) + "\"}]}";
}

// What the app asks for its first page.
QByteArray listingHead(const QByteArray &path, quint16 port, int device)
{
    return "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(port) +
           "\r\nx-filter-meta: " + filterFor(device) +
           "\r\nx-sort-meta: {\"CreatedAt\" : -1}\r\nx-skip-meta: 0\r\n\r\n";
}

// Seconds from `since` to the first 200 answer to `head`, polling every 2 ms; -1 when
// `child` dies or nothing answers within the deadline.
double firstAnswer(const QElapsedTimer &since, Child &child, quint16 port, const QByteArray &head, QByteArray *body)
{
    double took = -1;
    onThreads(1, [&](int) {
        HttpsClient client(port);
        while (!interrupted && since.elapsed() < 30000 && child.alive()) {
            if (client.exchange(head, {}, body, 5000) == 200) {
                took = seconds(since);
                return;
            }
            QThread::msleep(2);
        }
    });
    return took;
}

// ---- stores -------------------------------------------------------------------------

struct Store
{
    QString kind; // "sqlite" or "postgres"
    QString data; // the server's data directory
    QString databaseUrl;
    QString key;
    QByteArray path;        // the threads collection
    qint64 databasePid = 0; // PostgreSQL's postmaster, whose children serve our connections
};

const char ThreadText[] = "' about the notes screen: the save button sometimes does nothing after editing.'";
const char SystemInfo[] = "'{\"Model\":\"iPhone15,2\",\"OSVersion\":\"17.4\",\"AppVersion\":\"2.3.1\","
                          "\"WidthInPixels\":1179,\"HeightInPixels\":2556}'";

// Applies the migrations through the service's own code, so the rows go into its schema.
qint64 makeApp(Store &store)
{
    auto opened = QKServiceStore::open(store.databaseUrl, store.data);
    const QKServiceApp app = opened->addApp(QStringLiteral("bench"));
    store.key = app.key;
    store.path = "/feedback/api/v1/" + app.key.toLatin1() + "/threads";
    return app.id;
}

// Items only, spread evenly over the devices and interleaved in time, each with a
// screenshot id (the images themselves are not stored: a listing never reads them).
// `i` runs over `source`; `id` and `imageId` are SQL making unique ids from it.
QString threadRows(qint64 appId, const QString &id, const QString &imageId, const QString &source)
{
    const qint64 newest = QDateTime::currentMSecsSinceEpoch();
    return QStringLiteral("SELECT %1, %2, NULL, 'device-' || (i % %3), 'Feedback ' || i || %4, 'Tester ' || (i % %3),"
                          " CASE WHEN i % 4 = 0 THEN 'Resolved' ELSE 'Open' END, %5 - (%6 - i) * 1000,"
                          " %5 - (%6 - i) * 1000 + 5000, %7, NULL, %8, i % 3 FROM %9")
        .arg(QString::number(appId), id, QString::number(options.devices), QLatin1String(ThreadText),
             QString::number(newest), QString::number(options.threads), QLatin1String(SystemInfo), imageId, source);
}

const char InsertThreads[] = "INSERT INTO threads (app_id, id, root_id, uid, text, author, state, created_at,"
                             " modified_at, system_info, parameters, image_id, comments) ";

void fillSqlite(Store &store)
{
    const qint64 appId = makeApp(store);
    sqlite3 *db = nullptr;
    const QByteArray file = QDir(store.data).filePath(QStringLiteral("murmora.db")).toUtf8();
    if (sqlite3_open(file.constData(), &db) != SQLITE_OK)
        throw std::runtime_error("cannot open the SQLite store");
    const auto run = [db](const QString &sql) {
        char *message = nullptr;
        if (sqlite3_exec(db, sql.toUtf8().constData(), nullptr, nullptr, &message) != SQLITE_OK) {
            const std::string text = message ? message : "?";
            sqlite3_free(message);
            sqlite3_close(db);
            throw std::runtime_error("SQLite: " + text);
        }
    };
    // Out of WAL for one big unsynced transaction, then back, as the server left it.
    run(QStringLiteral("PRAGMA journal_mode=DELETE; PRAGMA synchronous=OFF; PRAGMA cache_size=-524288"));
    const QString random = QStringLiteral("lower(hex(randomblob(11)))");
    run(QStringLiteral("BEGIN; WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < %1) ")
            .arg(options.threads) +
        QLatin1String(InsertThreads) + threadRows(appId, random, random, QStringLiteral("n")) +
        QStringLiteral("; COMMIT; PRAGMA journal_mode=WAL"));
    sqlite3_close(db);
}

void fillPostgres(Store &store, PostgresServer &postgres)
{
    const qint64 appId = makeApp(store);
    // Chunks keep each psql call well inside PostgresServer's time limit for a tool.
    const qint64 chunk = 100000;
    for (qint64 from = 1; from <= options.threads; from += chunk) {
        checkInterrupted();
        const qint64 to = std::min<qint64>(options.threads, from + chunk - 1);
        const QString sql = QStringLiteral("SET synchronous_commit = off; ") + QLatin1String(InsertThreads) +
                            threadRows(appId, QStringLiteral("substr(md5(i::text), 1, 22)"),
                                       QStringLiteral("substr(md5((-i)::text), 1, 22)"),
                                       QStringLiteral("generate_series(%1::bigint, %2) AS i").arg(from).arg(to));
        if (!postgres.psql(sql))
            throw std::runtime_error("PostgreSQL fill: " + postgres.error().toStdString());
    }
    // So that neither autovacuum nor a checkpoint lands in a measurement.
    for (const char *sql : {"VACUUM ANALYZE", "CHECKPOINT"})
        if (!postgres.psql(QString::fromLatin1(sql)))
            throw std::runtime_error("PostgreSQL: " + postgres.error().toStdString());
}

// ---- the servers --------------------------------------------------------------------

std::unique_ptr<Child> startServer(const Store &store, quint16 port, const QString &log)
{
    QStringList arguments{QStringLiteral("--data"),     store.data,
                          QStringLiteral("--listen"),   QStringLiteral("127.0.0.1:%1").arg(port),
                          QStringLiteral("--tls-cert"), Certs + QLatin1String("/server.pem"),
                          QStringLiteral("--tls-key"),  Certs + QLatin1String("/server.key")};
    if (!store.databaseUrl.isEmpty())
        arguments << QStringLiteral("--database") << store.databaseUrl;
    if (options.serverThreads > 0)
        arguments << QStringLiteral("--threads") << QString::number(options.serverThreads);
    // The per-request log goes to a file, as a deployment would keep it.
    return std::make_unique<Child>(options.server, arguments, QDir(store.data).filePath(QStringLiteral("server.out")),
                                   log);
}

// nginx serving `root` as static files on 127.0.0.1:port with the test certificate.
std::unique_ptr<Child> startNginx(const QString &dir, const QString &root, quint16 port)
{
    const QString conf = QDir(dir).filePath(QStringLiteral("nginx.conf"));
    QString text = QStringLiteral("worker_processes %1;\n").arg(options.nginxWorkers);
    if (::geteuid() == 0)
        text += QStringLiteral("user root;\n"); // the workers read our 0700 temporary directory
    text += QStringLiteral("pid %1/nginx.pid;\n"
                           "error_log %1/nginx-error.log;\n"
                           "events { worker_connections 1024; }\n"
                           "http {\n"
                           "  access_log off;\n"
                           "  client_body_temp_path %1/body; proxy_temp_path %1/proxy; fastcgi_temp_path %1/fastcgi;\n"
                           "  uwsgi_temp_path %1/uwsgi; scgi_temp_path %1/scgi;\n"
                           "  default_type application/json;\n"
                           // Keep-alive as ours: no cap on requests per connection, so no new handshakes.
                           "  keepalive_requests 1000000000;\n"
                           "  server {\n"
                           "    listen 127.0.0.1:%2 ssl reuseport;\n"
                           "    ssl_certificate %3/server.pem;\n"
                           "    ssl_certificate_key %3/server.key;\n"
                           // nginx 1.22 leaves TLS 1.3 off by default; ours speaks it.
                           "    ssl_protocols TLSv1.2 TLSv1.3;\n"
                           "    root %4;\n"
                           "  }\n"
                           "}\n")
                .arg(dir)
                .arg(port)
                .arg(Certs, root);
    QFile file(conf);
    if (!file.open(QIODevice::WriteOnly) || file.write(text.toUtf8()) < 0)
        throw std::runtime_error("cannot write nginx.conf");
    file.close();
    return std::make_unique<Child>(
        options.nginx,
        QStringList{QStringLiteral("-p"), dir, QStringLiteral("-c"), conf, QStringLiteral("-e"),
                    QDir(dir).filePath(QStringLiteral("nginx-error.log")), QStringLiteral("-g"),
                    QStringLiteral("daemon off;")},
        QDir(dir).filePath(QStringLiteral("nginx.out")), QDir(dir).filePath(QStringLiteral("nginx.err")));
}

// User plus system CPU seconds of `pid` and of its direct children (nginx's workers).
double cpuSeconds(qint64 pid)
{
    const auto read = [](const QString &path, qint64 *parent) -> double {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly))
            return 0;
        const QByteArray stat = file.readAll();
        const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
        if (fields.size() < 13)
            return 0;
        if (parent)
            *parent = fields[1].toLongLong();
        return double(fields[11].toLongLong() + fields[12].toLongLong()) / double(::sysconf(_SC_CLK_TCK));
    };
    double total = read(QStringLiteral("/proc/%1/stat").arg(pid), nullptr);
    for (const QString &entry : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        bool number = false;
        entry.toLongLong(&number);
        qint64 parent = 0;
        if (number && entry != QString::number(pid)) {
            const double cpu = read(QStringLiteral("/proc/%1/stat").arg(entry), &parent);
            if (parent == pid)
                total += cpu;
        }
    }
    return total;
}

// The postmaster listening on `port`: the only process whose command line still says so
// (backends rewrite theirs).
qint64 postmasterPid(int port)
{
    const QByteArray option = "port=" + QByteArray::number(port);
    for (const QString &entry : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        QFile file(QStringLiteral("/proc/%1/cmdline").arg(entry));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        const QList<QByteArray> arguments = file.readAll().split('\0');
        if (!arguments.isEmpty() && arguments.first().endsWith("/postgres") && arguments.contains(option))
            return entry.toLongLong();
    }
    return 0;
}

// The 1-minute load average: other work on the machine skews every figure.
QString loadAverage()
{
    QFile file(QStringLiteral("/proc/loadavg"));
    return file.open(QIODevice::ReadOnly) ? QString::fromLatin1(file.readAll().split(' ').first())
                                          : QStringLiteral("?");
}

qint64 peakResident(qint64 pid)
{
    QFile file(QStringLiteral("/proc/%1/status").arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : file.readAll().split('\n'))
        if (line.startsWith("VmHWM:"))
            return line.mid(6).trimmed().split(' ').first().toLongLong() * 1024;
    return -1;
}

// ---- listing: wrk -------------------------------------------------------------------

const char WrkScript[] = R"(-- Each request asks a random device's first page, as the app does.
local devices = tonumber(os.getenv("BENCH_DEVICES"))
local n = 0
function setup(thread)
  n = n + 1
  thread:set("seed", n)
end
function init(args)
  math.randomseed(seed * 7919)
end
function request()
  local headers = {}
  headers["x-filter-meta"] = '{"$and":[{"RootId" : null}, {"Uid" : "device-' .. math.random(0, devices - 1) .. '"}]}'
  headers["x-sort-meta"] = '{"CreatedAt" : -1}'
  headers["x-skip-meta"] = "0"
  return wrk.format("GET", nil, headers)
end
)";

struct Load
{
    double rps = -1;
    double p99Ms = -1;
    qint64 requests = 0;
    qint64 failures = 0; // socket errors and non-2xx answers
    double cpuPerRequestUs = -1;
    double databaseCpuPerRequestUs = -1;
    QString problem;
};

double latencyMs(const QByteArray &text)
{
    const QByteArray t = text.trimmed();
    qsizetype digits = 0;
    while (digits < t.size() && (std::isdigit(uchar(t[digits])) || t[digits] == '.'))
        ++digits;
    const double value = t.left(digits).toDouble();
    const QByteArray unit = t.mid(digits);
    if (unit == "us")
        return value / 1000;
    if (unit == "ms")
        return value;
    if (unit == "s")
        return value * 1000;
    if (unit == "m")
        return value * 60000;
    return -1;
}

Load runWrk(const QString &dir, quint16 port, const QByteArray &path, int duration, qint64 serverPid,
            qint64 databasePid = 0)
{
    const QString script = QDir(dir).filePath(QStringLiteral("listing.lua"));
    QFile file(script);
    if (!file.exists() && (!file.open(QIODevice::WriteOnly) || file.write(WrkScript) < 0))
        throw std::runtime_error("cannot write the wrk script");
    file.close();
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("BENCH_DEVICES"), QString::number(options.devices));
    const QString output = QDir(dir).filePath(QStringLiteral("wrk.out"));
    const double cpuBefore = cpuSeconds(serverPid);
    const double databaseBefore = databasePid ? cpuSeconds(databasePid) : 0;
    Load load;
    {
        Child wrk(QStringLiteral("wrk"),
                  {QStringLiteral("-t2"), QStringLiteral("-c%1").arg(options.connections),
                   QStringLiteral("-d%1s").arg(duration), QStringLiteral("--timeout"), QStringLiteral("10s"),
                   QStringLiteral("--latency"), QStringLiteral("-s"), script,
                   QStringLiteral("https://127.0.0.1:%1").arg(port) + QString::fromLatin1(path)},
                  output, QDir(dir).filePath(QStringLiteral("wrk.err")), environment);
        if (!wrk.process().waitForFinished((duration + 60) * 1000))
            load.problem = QStringLiteral("wrk did not finish");
        wrk.stop();
    }
    const double cpu = cpuSeconds(serverPid) - cpuBefore;
    const double databaseCpu = databasePid ? cpuSeconds(databasePid) - databaseBefore : -1;
    checkInterrupted();
    QFile result(output);
    result.open(QIODevice::ReadOnly);
    const QByteArray text = result.readAll();
    for (const QByteArray &raw : text.split('\n')) {
        const QByteArray line = raw.trimmed();
        if (line.startsWith("99%"))
            load.p99Ms = latencyMs(line.mid(3));
        else if (line.startsWith("Requests/sec:"))
            load.rps = line.mid(13).trimmed().toDouble();
        else if (line.contains(" requests in "))
            load.requests = line.left(line.indexOf(' ')).toLongLong();
        else if (line.startsWith("Non-2xx or 3xx responses:"))
            load.failures += line.mid(25).trimmed().toLongLong();
        else if (line.startsWith("Socket errors:"))
            for (const QByteArray &part : line.mid(14).split(','))
                load.failures += part.trimmed().split(' ').last().toLongLong();
    }
    if (load.rps < 0 || load.p99Ms < 0)
        load.problem = QStringLiteral("unreadable wrk output: ") + QString::fromUtf8(text.left(300));
    if (load.requests > 0) {
        load.cpuPerRequestUs = cpu / double(load.requests) * 1e6;
        if (databaseCpu >= 0)
            load.databaseCpuPerRequestUs = databaseCpu / double(load.requests) * 1e6;
    }
    return load;
}

// ---- ingest -------------------------------------------------------------------------

// One item's JSON around the screenshot, as the app sends it (Base64 in 64-character
// lines joined by CR LF, escaped inside the JSON string).
struct Payload
{
    QByteArray png;
    QByteArray base64; // JSON-escaped
    QByteArray before() const { return R"({"Image":{"Filename":"nimbrel.png","ContentType":"image/png","base64":")"; }
    QByteArray after(int client, int n) const
    {
        return R"("},"Text":"Item )" + QByteArray::number(n) +
               R"(: the chart does not redraw after rotating the phone.","Author":"Tester )" +
               QByteArray::number(client) + R"(","Uid":"ingest-device-)" + QByteArray::number(client) +
               R"(","SystemInfo":{"Model":"iPhone15,2","OSVersion":"17.4","Uuid":"ingest-device-)" +
               QByteArray::number(client) +
               R"(","AppId":"com.example.notes","AppVersion":"2.3.1","WidthInPixels":1179,"HeightInPixels":2556}})";
    }
};

struct Ingest
{
    double itemsPerSecond = -1;
    double cpuPerItemMs = -1; // murmora-server's; PostgreSQL's below
    double databaseCpuPerItemMs = -1;
    qint64 stored = 0;
    QString problem;
};

Ingest postItems(const Payload &payload, const QByteArray &path, quint16 port)
{
    std::atomic<qint64> stored{0};
    QString problem;
    QMutex problemMutex;
    const QByteArray run = QByteArray::number(QDateTime::currentMSecsSinceEpoch());
    QElapsedTimer timer;
    timer.start();
    onThreads(options.clients, [&](int client) {
        HttpsClient https(port);
        const QByteArray before = payload.before();
        for (int n = client; n < options.items && !interrupted; n += options.clients) {
            const QByteArray after = payload.after(client, n);
            const qsizetype length = before.size() + payload.base64.size() + after.size();
            const QByteArray head = "POST " + path + " HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(port) +
                                    "\r\nContent-Type: application/json\r\nIdempotency-Key: bench-" + run + '-' +
                                    QByteArray::number(n) + "\r\nContent-Length: " + QByteArray::number(length) +
                                    "\r\n\r\n";
            QByteArray answer;
            const int status = https.exchange(head, {before, payload.base64, after}, &answer, 60000);
            if (status == 201) {
                ++stored;
                continue;
            }
            QMutexLocker lock(&problemMutex);
            problem = QStringLiteral("client %1: %2 %3")
                          .arg(client)
                          .arg(status)
                          .arg(status < 0 ? https.error() : QString::fromUtf8(answer.left(200)));
            return;
        }
    });
    Ingest ingest;
    ingest.stored = stored;
    ingest.problem = problem;
    if (stored == options.items)
        ingest.itemsPerSecond = double(options.items) / seconds(timer);
    else if (problem.isEmpty())
        ingest.problem = QStringLiteral("only %1 of %2 items stored").arg(stored.load()).arg(options.items);
    return ingest;
}

// The same PNG bytes as files, each written and fsynced, from as many threads as clients.
double storageFloor(const QByteArray &png, const QString &dir)
{
    QDir().mkpath(dir);
    std::atomic<int> failures{0};
    QElapsedTimer timer;
    timer.start();
    onThreads(options.clients, [&](int client) {
        for (int n = client; n < options.items && !interrupted; n += options.clients) {
            const QByteArray name = QDir(dir).filePath(QStringLiteral("%1.png").arg(n)).toLocal8Bit();
            const int fd = ::open(name.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            if (fd < 0 || ::write(fd, png.constData(), size_t(png.size())) != png.size() || ::fsync(fd) != 0)
                ++failures;
            if (fd >= 0)
                ::close(fd);
        }
    });
    const double took = seconds(timer);
    QDir(dir).removeRecursively();
    checkInterrupted();
    if (failures)
        throw std::runtime_error("the storage floor could not write its files");
    return double(options.items) / took;
}

// ---- one store, every figure --------------------------------------------------------

struct Figures
{
    QString store;
    double fillSeconds = -1;
    double startOurs = -1, startNginx = -1;
    Load listOurs, listNginx;
    Ingest ingest;
    double floor = -1;
    qint64 peak = -1;
    int pageItems = 0;
    qint64 pageBytes = 0;
    QString problem;
};

double median(QList<double> values)
{
    if (values.isEmpty() || values.contains(-1.0))
        return -1;
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void measure(Store &store, const QString &scratch, Figures &f)
{
    const QString log = QDir(scratch).filePath(QStringLiteral("server-%1.log").arg(store.kind));
    const auto head = [&](quint16 port) { return listingHead(store.path, port, 0); };

    // The same path as ours, so wrk runs the same script against both.
    const QString root = QDir(scratch).filePath(QStringLiteral("www"));
    const QString file = root + QString::fromLatin1(store.path);
    QDir().mkpath(QFileInfo(file).path());

    // Start-up: process start to the first page, the median of a few.
    QList<double> ours, nginx;
    QByteArray body;
    for (int i = 0; i < options.starts; ++i) {
        checkInterrupted();
        const quint16 port = freePort();
        QElapsedTimer since;
        since.start();
        auto server = startServer(store, port, log);
        ours << firstAnswer(since, *server, port, head(port), &body);
    }
    f.startOurs = median(ours);
    if (f.startOurs < 0)
        throw std::runtime_error("murmora-server gave no first page; see " + log.toStdString());
    const QJsonArray items = QJsonDocument::fromJson(body).array();
    f.pageItems = int(items.size());
    f.pageBytes = body.size();
    if (f.pageItems != std::min(20, options.threads / options.devices))
        throw std::runtime_error("the first page holds " + std::to_string(f.pageItems) + " items");
    QFile json(file);
    if (!json.open(QIODevice::WriteOnly) || json.write(body) != body.size())
        throw std::runtime_error("cannot write the static page for nginx");
    json.close();
    for (int i = 0; i < options.starts; ++i) {
        checkInterrupted();
        const QString dir = QDir(scratch).filePath(QStringLiteral("nginx-%1").arg(i));
        QDir().mkpath(dir);
        const quint16 port = freePort();
        QElapsedTimer since;
        since.start();
        auto server = startNginx(dir, root, port);
        QByteArray same;
        nginx << firstAnswer(since, *server, port, head(port), &same);
        if (same != body)
            throw std::runtime_error("nginx did not serve the page");
    }
    f.startNginx = median(nginx);
    say(QStringLiteral("  start-up to the first page: ours %1 s, nginx %2 s")
            .arg(f.startOurs, 0, 'f', 3)
            .arg(f.startNginx, 0, 'f', 3));

    // Listing: each server alone on the machine, warmed up, then measured.
    {
        const quint16 port = freePort();
        QElapsedTimer since;
        since.start();
        auto server = startServer(store, port, log);
        if (firstAnswer(since, *server, port, head(port), nullptr) < 0)
            throw std::runtime_error("murmora-server did not start; see " + log.toStdString());
        runWrk(scratch, port, store.path, options.warmupSeconds, server->pid());
        f.listOurs = runWrk(scratch, port, store.path, options.seconds, server->pid(), store.databasePid);
    }
    {
        const QString dir = QDir(scratch).filePath(QStringLiteral("nginx-load"));
        QDir().mkpath(dir);
        const quint16 port = freePort();
        QElapsedTimer since;
        since.start();
        auto server = startNginx(dir, root, port);
        if (firstAnswer(since, *server, port, head(port), nullptr) < 0)
            throw std::runtime_error("nginx did not start");
        runWrk(scratch, port, store.path, options.warmupSeconds, server->pid());
        f.listNginx = runWrk(scratch, port, store.path, options.seconds, server->pid());
    }
    say(QStringLiteral("  listing: ours %1 req/s, p99 %2 ms; nginx %3 req/s, p99 %4 ms")
            .arg(f.listOurs.rps, 0, 'f', 0)
            .arg(f.listOurs.p99Ms, 0, 'f', 2)
            .arg(f.listNginx.rps, 0, 'f', 0)
            .arg(f.listNginx.p99Ms, 0, 'f', 2));
}

void ingest(Store &store, const Payload &payload, const QString &scratch, Figures &f)
{
    checkInterrupted();
    f.floor = storageFloor(payload.png, QDir(store.data).filePath(QStringLiteral("floor")));
    // A fresh process, so its peak resident memory is the ingest's.
    const quint16 port = freePort();
    const QString log = QDir(scratch).filePath(QStringLiteral("server-%1-ingest.log").arg(store.kind));
    QElapsedTimer since;
    since.start();
    auto server = startServer(store, port, log);
    if (firstAnswer(since, *server, port, listingHead(store.path, port, 0), nullptr) < 0)
        throw std::runtime_error("murmora-server did not start; see " + log.toStdString());
    const double cpu = cpuSeconds(server->pid());
    const double databaseCpu = store.databasePid ? cpuSeconds(store.databasePid) : 0;
    f.ingest = postItems(payload, store.path, port);
    if (f.ingest.stored > 0) {
        f.ingest.cpuPerItemMs = (cpuSeconds(server->pid()) - cpu) / double(f.ingest.stored) * 1e3;
        if (store.databasePid)
            f.ingest.databaseCpuPerItemMs =
                (cpuSeconds(store.databasePid) - databaseCpu) / double(f.ingest.stored) * 1e3;
    }
    f.peak = peakResident(server->pid());
    say(QStringLiteral("  ingest: ours %1 items/s, floor %2 items/s, peak resident %3 MB")
            .arg(f.ingest.itemsPerSecond, 0, 'f', 1)
            .arg(f.floor, 0, 'f', 1)
            .arg(double(f.peak) / 1e6, 0, 'f', 1));
}

Figures runStore(const QString &kind, const Payload &payload)
{
    Figures f;
    f.store = kind == QLatin1String("sqlite") ? QStringLiteral("SQLite") : QStringLiteral("PostgreSQL");
    say(QStringLiteral("%1: %2 threads over %3 devices").arg(f.store).arg(options.threads).arg(options.devices));
    try {
        const QString base = options.dataRoot.isEmpty() ? QDir::tempPath() : options.dataRoot;
        QTemporaryDir scratch(QDir(base).filePath(QStringLiteral("murmora-service-bench-XXXXXX")));
        if (!scratch.isValid())
            throw std::runtime_error("no temporary directory in " + base.toStdString());
        if (options.keep) {
            scratch.setAutoRemove(false);
            say(QStringLiteral("  kept in %1").arg(scratch.path()));
        }
        Store store;
        store.kind = kind;
        store.data = scratch.filePath(QStringLiteral("data"));
        QDir().mkpath(store.data);
        std::optional<PostgresServer> postgres;
        QElapsedTimer fill;
        fill.start();
        if (kind == QLatin1String("postgres")) {
            if (const QString why = PostgresServer::unavailable(); !why.isEmpty())
                throw std::runtime_error(why.toStdString());
            postgres.emplace();
            if (!postgres->start())
                throw std::runtime_error("PostgreSQL: " + postgres->error().toStdString());
            store.databaseUrl = postgres->url();
            store.databasePid = postmasterPid(QUrl(store.databaseUrl).port());
            fillPostgres(store, *postgres);
        } else {
            fillSqlite(store);
        }
        f.fillSeconds = seconds(fill);
        say(QStringLiteral("  filled in %1 s").arg(f.fillSeconds, 0, 'f', 1));
        checkInterrupted();
        measure(store, scratch.path(), f);
        ingest(store, payload, scratch.path(), f);
    } catch (const std::exception &error) {
        f.problem = QString::fromUtf8(error.what());
        say(QStringLiteral("  failed: ") + f.problem);
    }
    return f;
}

// ---- the table ----------------------------------------------------------------------

struct Row
{
    QString figure, ours, baseline, ratio, goal, met, note;
    bool missed = false;
};

QString fixed(double value, int decimals, const QString &unit = {})
{
    return value < 0 ? QStringLiteral("-") : QString::number(value, 'f', decimals) + unit;
}

// `ok` is nullopt when the figure was not measured.
Row row(const QString &figure, const QString &ours, const QString &baseline, double ratio, const QString &goal,
        std::optional<bool> ok, const QString &note)
{
    Row r{figure, ours, baseline, ratio < 0 ? QStringLiteral("-") : QString::number(ratio, 'f', 3), goal, {}, note};
    r.met = !ok ? QStringLiteral("-") : *ok ? QStringLiteral("yes") : QStringLiteral("no");
    r.missed = !ok || !*ok;
    return r;
}

QString loadNote(const Load &ours, const Load &nginx)
{
    if (!ours.problem.isEmpty())
        return ours.problem;
    if (!nginx.problem.isEmpty())
        return QStringLiteral("nginx: ") + nginx.problem;
    QString note = QStringLiteral("CPU/request: ours %1 µs").arg(ours.cpuPerRequestUs, 0, 'f', 0);
    if (ours.databaseCpuPerRequestUs >= 0)
        note += QStringLiteral(" + PostgreSQL %1 µs").arg(ours.databaseCpuPerRequestUs, 0, 'f', 0);
    note += QStringLiteral(", nginx %1 µs").arg(nginx.cpuPerRequestUs, 0, 'f', 0);
    if (ours.failures || nginx.failures)
        note += QStringLiteral("; failed requests: ours %1, nginx %2").arg(ours.failures).arg(nginx.failures);
    return note;
}

QString ingestNote(const Ingest &i)
{
    if (i.cpuPerItemMs < 0)
        return {};
    QString note = QStringLiteral("%1 clients, %2 items; CPU/item: ours %3 ms")
                       .arg(options.clients)
                       .arg(options.items)
                       .arg(i.cpuPerItemMs, 0, 'f', 1);
    if (i.databaseCpuPerItemMs >= 0)
        note += QStringLiteral(" + PostgreSQL %1 ms").arg(i.databaseCpuPerItemMs, 0, 'f', 1);
    return note;
}

QList<Row> rows(const Figures &f)
{
    QList<Row> list;
    const QString s = f.store;
    const auto has = [](double a, double b) { return a >= 0 && b > 0; };
    const Load &o = f.listOurs;
    const Load &n = f.listNginx;
    const bool clean = o.failures == 0 && n.failures == 0;
    const QString note = f.problem.isEmpty() ? loadNote(o, n) : f.problem;
    list << row(QStringLiteral("1. list a first page, %1: req/s").arg(s), fixed(o.rps, 0), fixed(n.rps, 0),
                has(o.rps, n.rps) ? o.rps / n.rps : -1, QStringLiteral("≥ 0.5× nginx"),
                has(o.rps, n.rps) ? std::optional<bool>(clean && o.rps >= 0.5 * n.rps) : std::nullopt, note);
    list << row(QStringLiteral("1. list a first page, %1: p99").arg(s), fixed(o.p99Ms, 2, QStringLiteral(" ms")),
                fixed(n.p99Ms, 2, QStringLiteral(" ms")), has(o.p99Ms, n.p99Ms) ? o.p99Ms / n.p99Ms : -1,
                QStringLiteral("≤ 10 ms"), o.p99Ms >= 0 ? std::optional<bool>(clean && o.p99Ms <= 10) : std::nullopt,
                f.pageItems ? QStringLiteral("%1 items, %2 bytes a page").arg(f.pageItems).arg(f.pageBytes)
                            : QString());
    const Ingest &i = f.ingest;
    list << row(QStringLiteral("2. ingest, %1: items/s").arg(s), fixed(i.itemsPerSecond, 1), fixed(f.floor, 1),
                has(i.itemsPerSecond, f.floor) ? i.itemsPerSecond / f.floor : -1, QStringLiteral("≥ 0.5× write+fsync"),
                has(i.itemsPerSecond, f.floor) ? std::optional<bool>(i.itemsPerSecond >= 0.5 * f.floor) : std::nullopt,
                !i.problem.isEmpty() ? i.problem : ingestNote(i));
    const double limit = 256.0 * 1024 * 1024;
    list << row(QStringLiteral("2. ingest, %1: peak resident").arg(s),
                fixed(double(f.peak) / 1048576, 1, QStringLiteral(" MiB")), QStringLiteral("256.0 MiB"),
                f.peak > 0 ? double(f.peak) / limit : -1, QStringLiteral("≤ 256 MiB"),
                f.peak > 0 ? std::optional<bool>(double(f.peak) <= limit) : std::nullopt,
                QStringLiteral("VmHWM of the server; the limit as baseline"));
    list << row(QStringLiteral("3. start-up to first page, %1").arg(s), fixed(f.startOurs, 3, QStringLiteral(" s")),
                fixed(f.startNginx, 3, QStringLiteral(" s")),
                has(f.startOurs, f.startNginx) ? f.startOurs / f.startNginx : -1, QStringLiteral("≤ 0.5 s"),
                f.startOurs >= 0 ? std::optional<bool>(f.startOurs <= 0.5) : std::nullopt,
                QStringLiteral("baseline: nginx; median of %1").arg(options.starts));
    return list;
}

int printTable(const QList<Row> &table)
{
    QList<QStringList> lines{{QStringLiteral("figure"), QStringLiteral("ours"), QStringLiteral("baseline"),
                              QStringLiteral("ratio"), QStringLiteral("goal"), QStringLiteral("met"),
                              QStringLiteral("notes")}};
    int missed = 0;
    for (const Row &r : table) {
        missed += r.missed;
        lines << QStringList{r.figure, r.ours, r.baseline, r.ratio, r.goal, r.met, r.note};
    }
    QList<qsizetype> widths(lines.first().size(), 0);
    for (const QStringList &line : lines)
        for (qsizetype c = 0; c < line.size(); ++c)
            widths[c] = std::max(widths[c], line[c].size());
    std::printf("\n");
    for (qsizetype l = 0; l < lines.size(); ++l) {
        QString text;
        for (qsizetype c = 0; c < lines[l].size(); ++c)
            text += (c ? QStringLiteral(" | ") : QString()) + lines[l][c].leftJustified(widths[c]);
        std::printf("%s\n", qPrintable(text.trimmed()));
        if (l == 0) {
            QString rule;
            for (qsizetype c = 0; c < widths.size(); ++c)
                rule += (c ? QStringLiteral("-|-") : QString()) + QString(widths[c], QLatin1Char('-'));
            std::printf("%s\n", qPrintable(rule));
        }
    }
    return missed;
}

const char Usage[] = R"(usage: murmora-service-bench [--smoke] [--store sqlite|postgres|both] [--threads N]
         [--devices N] [--seconds S] [--server-threads N] [--nginx-workers N] [--items N]
         [--data-root DIR] [--time-limit S] [--server PATH] [--keep]
)";

bool parse(const QStringList &arguments)
{
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString &a = arguments[i];
        const auto number = [&](int *into, int least) {
            bool ok = false;
            *into = arguments.value(++i).toInt(&ok);
            return ok && *into >= least;
        };
        bool ok = true;
        if (a == QLatin1String("--smoke")) {
            options.smoke = true;
            options.threads = 20000;
            options.devices = 200;
            options.seconds = 2;
            options.warmupSeconds = 1;
            options.items = 40;
            options.starts = 1;
        } else if (a == QLatin1String("--keep")) {
            options.keep = true;
        } else if (a == QLatin1String("--store")) {
            const QString which = arguments.value(++i);
            options.stores = which == QLatin1String("both") ? options.stores : QStringList{which};
            ok = which == QLatin1String("both") || which == QLatin1String("sqlite") ||
                 which == QLatin1String("postgres");
        } else if (a == QLatin1String("--threads"))
            ok = number(&options.threads, 1);
        else if (a == QLatin1String("--devices"))
            ok = number(&options.devices, 1);
        else if (a == QLatin1String("--seconds"))
            ok = number(&options.seconds, 1);
        else if (a == QLatin1String("--server-threads"))
            ok = number(&options.serverThreads, 1);
        else if (a == QLatin1String("--nginx-workers"))
            ok = number(&options.nginxWorkers, 1);
        else if (a == QLatin1String("--items"))
            ok = number(&options.items, 1);
        else if (a == QLatin1String("--time-limit"))
            ok = number(&options.timeLimit, 10);
        else if (a == QLatin1String("--data-root"))
            options.dataRoot = arguments.value(++i);
        else if (a == QLatin1String("--server"))
            options.server = arguments.value(++i);
        else
            ok = false;
        if (!ok)
            return false;
    }
    return options.devices <= options.threads;
}

} // namespace

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    if (!parse(app.arguments())) {
        std::fputs(Usage, stderr);
        return 2;
    }
    options.nginx = QStandardPaths::findExecutable(QStringLiteral("nginx"));
    if (options.nginx.isEmpty())
        options.nginx = QStandardPaths::findExecutable(QStringLiteral("nginx"), {QStringLiteral("/usr/sbin")});
    if (options.nginx.isEmpty() || QStandardPaths::findExecutable(QStringLiteral("wrk")).isEmpty()) {
        std::printf("wrk or nginx is missing (./dev.sh bench service installs them); skipped.\n");
        return ExitSkipped;
    }
    if (!QFileInfo(options.server).isExecutable()) {
        std::printf("%s is missing; build murmora-server.\n", qPrintable(options.server));
        return 2;
    }

    // Our own copy: the build tree is shared, and a rebuild must not swap the binary mid-run.
    QTemporaryDir bin(QDir(options.dataRoot.isEmpty() ? QDir::tempPath() : options.dataRoot)
                          .filePath(QStringLiteral("murmora-service-bench-bin-XXXXXX")));
    const QString copy = bin.filePath(QStringLiteral("murmora-server"));
    if (!bin.isValid() || !QFile::copy(options.server, copy)) {
        std::printf("cannot copy %s\n", qPrintable(options.server));
        return 2;
    }
    options.server = copy;

    struct sigaction action = {};
    action.sa_handler = onSignal;
    for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGALRM})
        ::sigaction(signal, &action, nullptr);
    ::alarm(unsigned(options.timeLimit));
    QElapsedTimer total;
    total.start();
    const QString loadBefore = loadAverage();

    // Every item carries the same screenshot, encoded once: the store keeps bytes as they
    // come, so varying pixels would change nothing it does.
    Payload payload;
    payload.png = QKPNGCodec::encode(syntheticScreenshot(QSize(1179, 2556)));
    payload.base64 = QKBase64::encodeWithLineBreaksToASCII(payload.png).replace("\r\n", "\\r\\n");
    say(QStringLiteral("screenshot: 1179×2556, PNG %1 MB, body %2 MB")
            .arg(double(payload.png.size()) / 1e6, 0, 'f', 2)
            .arg(double(payload.base64.size()) / 1e6, 0, 'f', 2));

    QList<Row> table;
    int failed = 0;
    for (const QString &store : std::as_const(options.stores)) {
        if (interrupted)
            break;
        const Figures figures = runStore(store, payload);
        failed += !figures.problem.isEmpty() || !figures.ingest.problem.isEmpty();
        table << rows(figures);
    }
    const int missed = printTable(table);
    std::printf("\nwrk -t2 -c%d, %d s measured after %d s of warm-up, each server alone; nginx with %d worker(s). "
                "murmora-server threads: %s. Load average %s before, %s after. Took %.0f s.%s\n",
                options.connections, options.seconds, options.warmupSeconds, options.nginxWorkers,
                options.serverThreads ? qPrintable(QString::number(options.serverThreads)) : "default",
                qPrintable(loadBefore), qPrintable(loadAverage()), seconds(total),
                options.smoke ? " Smoke run: small store, goals not enforced." : "");
    // A smoke run only has to get through every step.
    if (options.smoke)
        return interrupted || failed ? 1 : 0;
    if (missed)
        std::printf("%d goal(s) not met.\n", missed);
    return missed ? 1 : 0;
}
