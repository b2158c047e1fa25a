// murmora-server as a team runs it: the command line, its first start, its log, a
// database from a newer version, SIGTERM, SIGKILL at random moments during a stream of
// POSTs, and two processes sharing one PostgreSQL.

#include "data/QKPlatformFeedbackSource.h"
#include "support/CompletionOutcome.h"
#include "support/PostgresServer.h"
#include "support/ServiceClient.h"

#include "QKServiceStore.h"

#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <sqlite3.h>

#include <csignal>
#include <sys/prctl.h>
#include <thread>

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int DefaultKills = 60; // sanitized processes start slowly
#else
constexpr int DefaultKills = 200;
#endif

QString serverBinary()
{
    return QStringLiteral(MURMORA_SERVER);
}

QStringList words(const char *text)
{
    return QString::fromUtf8(text).split(QLatin1Char(' '));
}

// Runs a command of the server to its end: exit code and standard output.
std::pair<int, QString> command(const QStringList &arguments)
{
    QProcess process;
    process.start(serverBinary(), arguments);
    if (!process.waitForFinished(20000))
        return {-1, QString()};
    return {process.exitCode(), QString::fromUtf8(process.readAllStandardOutput() + process.readAllStandardError())};
}

QString lastLine(const QString &text)
{
    return text.trimmed().split(QLatin1Char('\n')).last();
}

// A running server: started, its listening line read, stopped or killed on request.
class Server
{
public:
    ~Server()
    {
        if (process.state() != QProcess::NotRunning)
            kill();
    }
    bool start(const QStringList &arguments)
    {
        process.setProcessChannelMode(QProcess::SeparateChannels);
        // A test that dies takes its servers with it.
        process.setChildProcessModifier([] { prctl(PR_SET_PDEATHSIG, SIGKILL); });
        process.start(serverBinary(), arguments + QStringList{"--listen", "127.0.0.1:0"});
        QDeadlineTimer deadline(20000);
        static const QRegularExpression listening("listening on https://127.0.0.1:(\\d+)/");
        while (!deadline.hasExpired() && process.state() != QProcess::NotRunning) {
            process.waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime())));
            output += QString::fromUtf8(process.readAllStandardOutput());
            if (const auto match = listening.match(output); match.hasMatch()) {
                port = quint16(match.captured(1).toUInt());
                return true;
            }
        }
        output += QString::fromUtf8(process.readAllStandardError());
        return false;
    }
    QString baseUrl() const { return QStringLiteral("https://127.0.0.1:%1/feedback/api/v1").arg(port); }
    void kill()
    {
        ::kill(pid_t(process.processId()), SIGKILL);
        process.waitForFinished(10000);
    }

    QProcess process;
    QString output;
    quint16 port = 0;
};

QStringList certificateArguments()
{
    return {"--tls-cert", FakeService::certsDirectory() + "/server.pem", "--tls-key",
            FakeService::certsDirectory() + "/server.key"};
}

// A PNG the service accepts, made unique by a text chunk.
QByteArray uniquePng(quint32 serial)
{
    QByteArray payload(20000, '\0');
    for (qsizetype i = 0; i < payload.size(); ++i)
        payload[i] = char(serial * 2654435761u >> (i % 24));
    const QByteArray header = pngHeader(4, 4);
    return header.left(33) + chunk("tEXt", "murmora\0" + payload) + header.mid(33);
}

QByteArray itemJson(quint32 serial)
{
    return "{\"Text\":\"item " + QByteArray::number(serial) + "\",\"Uid\":\"dev\",\"Image\":{\"base64\":\"" +
           uniquePng(serial).toBase64() + "\"}}";
}

QByteArray post(QSslSocket &socket, const QString &key, const QByteArray &body)
{
    socket.write(
        requestText("POST", "/feedback/api/v1/" + key.toUtf8() + "/threads", {"Connection: keep-alive"}, body));
    const Reply reply = readReply(socket, 10000);
    return reply.status == 201 ? reply.json().toObject().value(QStringLiteral("Id")).toString().toUtf8() : QByteArray();
}

} // namespace

class tst_MurmoraServer : public QObject
{
    Q_OBJECT

private slots:
    void commandLine()
    {
        QTemporaryDir dir;
        const QStringList data{"--data", dir.path()};
        const auto [added, addOutput] = command(words("apps add shop") + data);
        QCOMPARE(added, 0);
        const QString key = lastLine(addOutput);
        QVERIFY(QRegularExpression(QStringLiteral("^[A-Za-z0-9_-]{22}$")).match(key).hasMatch());
        QCOMPARE(command(words("apps add shop") + data).first, 1);
        QVERIFY(command(words("apps list") + data).second.contains(key));
        const QString rotated = lastLine(command(words("apps rotate shop") + data).second);
        QVERIFY(rotated != key && rotated.size() == 22);
        QCOMPARE(command(words("apps rotate none") + data).first, 1);
        QCOMPARE(command(words("--listen nowhere") + data).first, 1);
        QCOMPARE(command(words("--threads") + data).first, 2);

        // First start: its own certificate, which a client trusting the printed CA accepts.
        Server server;
        QVERIFY2(server.start(data), qPrintable(server.output));
        const QString caFile = server.output.section("CA certificate: ", 1).section(QLatin1Char('\n'), 0, 0);
        QCOMPARE(caFile, dir.filePath("tls/ca.pem"));
        QSslSocket socket;
        QSslConfiguration tls = socket.sslConfiguration();
        tls.setCaCertificates(QSslCertificate::fromPath(caFile));
        socket.setSslConfiguration(tls);
        socket.connectToHostEncrypted("127.0.0.1", server.port);
        QVERIFY2(socket.waitForEncrypted(5000), qPrintable(socket.errorString()));
        QVERIFY(!post(socket, rotated, itemJson(1)).isEmpty());
        socket.write(requestText("GET", "/feedback/api/v1/" + key.toUtf8() + "/threads",
                                 {"x-filter-meta: {\"Uid\":\"dev-a\"}"}, {}));
        QCOMPARE(readReply(socket).code(), 4040); // the key before rotation

        // SIGTERM: a clean stop; the log names routes, never keys, ids or devices.
        server.process.terminate();
        QVERIFY(server.process.waitForFinished(15000));
        QCOMPARE(server.process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(server.process.exitCode(), 0);
        const QString log = QString::fromUtf8(server.process.readAllStandardError());
        QVERIFY2(log.contains("POST /feedback/api/v1/{key}/threads 201 "), qPrintable(log));
        QVERIFY(!log.contains(key) && !log.contains(rotated) && !log.contains("dev-a"));

        // The next start reuses the certificate.
        Server again;
        QVERIFY(again.start(data));
        QCOMPARE(QSslCertificate::fromPath(caFile), tls.caCertificates());
        again.process.terminate();
        QVERIFY(again.process.waitForFinished(15000));

        // A database from a newer server is refused with a message, not opened.
        sqlite3 *db = nullptr;
        QCOMPARE(sqlite3_open(dir.filePath(QStringLiteral("murmora.db")).toUtf8().constData(), &db), SQLITE_OK);
        QCOMPARE(sqlite3_exec(db, "UPDATE schema_version SET version = 99", nullptr, nullptr, nullptr), SQLITE_OK);
        sqlite3_close(db);
        const auto [refused, message] = command(words("apps list") + data);
        QCOMPARE(refused, 1);
        QVERIFY2(message.contains("newer murmora-server (schema version 99"), qPrintable(message));
    }

    // Every answered POST is there and whole after a SIGKILL at any moment; nothing
    // half-written shows, and no screenshot outlives its thread.
    void killedAtRandomMoments()
    {
        QTemporaryDir dir;
        const QStringList arguments = QStringList{"--data", dir.path()} + certificateArguments();
        const QString key = lastLine(command(words("apps add k") + arguments.mid(0, 2)).second);
        const int kills = qEnvironmentVariableIntValue("MURMORA_KILLS") ? qEnvironmentVariableIntValue("MURMORA_KILLS")
                                                                        : DefaultKills;
        const quint32 seed = QRandomGenerator::global()->generate();
        qInfo("seed %u, %d kills", seed, kills);
        QRandomGenerator random(seed);
        QHash<QByteArray, quint32> answered; // id → serial of its PNG
        quint32 serial = 0;
        for (int round = 0; round < kills; ++round) {
            Server server;
            QVERIFY2(server.start(arguments), qPrintable(server.output));
            std::atomic<bool> stop = false;
            std::atomic<int> count = 0;
            QHash<QByteArray, quint32> fresh;
            std::thread client([&] {
                auto socket = connectTo(server.port);
                while (socket && !stop) {
                    const quint32 s = ++serial;
                    const QByteArray id = post(*socket, key, itemJson(s));
                    if (id.isEmpty())
                        break;
                    fresh.insert(id, s);
                    ++count;
                }
            });
            const int answers = random.bounded(4);
            QTRY_VERIFY_WITH_TIMEOUT(count >= answers, 20000);
            std::this_thread::sleep_for(std::chrono::microseconds(random.bounded(20000))); // a moment inside a POST
            server.kill();
            stop = true;
            client.join();
            answered.insert(fresh);
        }
        auto store = QKServiceStore::open(QString(), dir.path());
        const qint64 app = store->appByKey(key)->id;
        QKThreadPage page;
        page.limit = 1 << 30;
        page.filter = *QKFilterQuery::parse("{\"Uid\":\"dev\"}");
        const QList<QKServiceThread> threads = store->threads(app, page);
        QVERIFY(threads.size() >= answered.size());
        QSet<QString> seen;
        for (const QKServiceThread &t : threads) {
            const auto image = store->image(t.imageId);
            QVERIFY2(image, "a thread without its screenshot");
            QCOMPARE(*image, uniquePng(t.text.mid(5).toUInt()));
            seen.insert(t.id);
        }
        for (auto it = answered.cbegin(); it != answered.cend(); ++it)
            QVERIFY2(seen.contains(QString::fromUtf8(it.key())), "an answered POST is missing");
        sqlite3 *db = nullptr;
        sqlite3_open(dir.filePath(QStringLiteral("murmora.db")).toUtf8().constData(), &db);
        sqlite3_stmt *orphans = nullptr;
        sqlite3_prepare_v2(db, "SELECT COUNT(*) FROM images WHERE thread_id NOT IN (SELECT id FROM threads)", -1,
                           &orphans, nullptr);
        QCOMPARE(sqlite3_step(orphans), SQLITE_ROW);
        QCOMPARE(sqlite3_column_int(orphans, 0), 0);
        sqlite3_finalize(orphans);
        sqlite3_close(db);
        qInfo("%lld answered POSTs, %lld stored threads", qint64(answered.size()), qint64(threads.size()));
    }

    // Instances hold no state: what one stores and changes, the other lists and serves.
    void twoProcessesOnePostgres()
    {
        if (const QString why = PostgresServer::unavailable(); !why.isEmpty())
            QSKIP(qPrintable(why));
        PostgresServer postgres;
        QVERIFY2(postgres.start(), qPrintable(postgres.error()));
        const QStringList database{"--database", postgres.url()};
        const QString key = lastLine(command(words("apps add p") + database).second);
        QTemporaryDir dirA, dirB;
        Server a, b;
        QVERIFY2(a.start(database + certificateArguments() + QStringList{"--data", dirA.path()}), qPrintable(a.output));
        QVERIFY2(b.start(database + certificateArguments() + QStringList{"--data", dirB.path()}), qPrintable(b.output));
        auto session = QSharedPointer<QKURLSession>::create();
        session->addCaCertificates(FakeService::caCertificates());
        QKPlatformFeedbackSource viaA(key, "dev-p", a.baseUrl(), QVariantMap());
        QKPlatformFeedbackSource viaB(key, "dev-p", b.baseUrl(), QVariantMap());
        viaA.setSession(session);
        viaB.setSession(session);
        const auto listed = [&](QKPlatformFeedbackSource &via, const QString &state) {
            Outcome outcome;
            via.feedbackItemsByState(state, 0, outcome.items_());
            return QTest::qWaitFor([&] { return outcome.done(); }, 20000) && outcome.items ? outcome.items->size()
                                                                                           : qsizetype(-1);
        };

        // A screenshot too: each process has a data directory of its own.
        QImage picture(8, 6, QImage::Format_RGB32);
        picture.fill(qRgb(10, 200, 30));
        auto item = QKFeedbackItemPtr::create();
        item->setText("through A");
        item->setImage(picture);
        Outcome sent, found, image, resolved;
        viaA.addFeedback(item, sent.error_());
        QTRY_VERIFY_WITH_TIMEOUT(sent.done(), 20000);
        QVERIFY(!sent.error);
        viaB.feedbackItems(found.items_());
        QTRY_VERIFY_WITH_TIMEOUT(found.done(), 20000);
        QCOMPARE(found.items->size(), 1);
        viaB.imageForKey(found.items->first()->params().value(QStringLiteral("ImageUri")).toString(), image.image_());
        QTRY_VERIFY_WITH_TIMEOUT(image.done(), 20000);
        QCOMPARE(image.image.convertToFormat(QImage::Format_RGB32), picture);
        start(viaB, Op::Edit, resolved, found.items->first()->key());
        QTRY_VERIFY_WITH_TIMEOUT(resolved.done(), 20000);
        QVERIFY(!resolved.error);
        QCOMPARE(listed(viaA, "Resolved"), 1);
        QCOMPARE(listed(viaA, "Open"), 0);
        a.process.terminate();
        b.process.terminate();
        QVERIFY(a.process.waitForFinished(15000) && b.process.waitForFinished(15000));
    }
};

QTEST_GUILESS_MAIN(tst_MurmoraServer)
#include "tst_murmoraserver.moc"
