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
        process.start(serverBinary(),
                      arguments + QStringList{QStringLiteral("--listen"), QStringLiteral("127.0.0.1:0")});
        QDeadlineTimer deadline(20000);
        static const QRegularExpression listening(QStringLiteral("listening on https://127.0.0.1:(\\d+)/"));
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
    return {QStringLiteral("--tls-cert"), FakeService::certsDirectory() + QStringLiteral("/server.pem"),
            QStringLiteral("--tls-key"), FakeService::certsDirectory() + QStringLiteral("/server.key")};
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
        const QStringList data{QStringLiteral("--data"), dir.path()};
        const auto [added, addOutput] =
            command(QStringList{QStringLiteral("apps"), QStringLiteral("add"), QStringLiteral("shop")} + data);
        QCOMPARE(added, 0);
        const QString key = lastLine(addOutput);
        QVERIFY(QRegularExpression(QStringLiteral("^[A-Za-z0-9_-]{22}$")).match(key).hasMatch());
        QCOMPARE(
            command(QStringList{QStringLiteral("apps"), QStringLiteral("add"), QStringLiteral("shop")} + data).first,
            1);
        QVERIFY(command(QStringList{QStringLiteral("apps"), QStringLiteral("list")} + data).second.contains(key));
        const QString rotated = lastLine(
            command(QStringList{QStringLiteral("apps"), QStringLiteral("rotate"), QStringLiteral("shop")} + data)
                .second);
        QVERIFY(rotated != key && rotated.size() == 22);
        QCOMPARE(
            command(QStringList{QStringLiteral("apps"), QStringLiteral("rotate"), QStringLiteral("none")} + data).first,
            1);
        QCOMPARE(command(QStringList{QStringLiteral("--listen"), QStringLiteral("nowhere")} + data).first, 1);
        QCOMPARE(command(QStringList{QStringLiteral("--threads")} + data).first, 2);

        // First start: its own certificate, which a client trusting the printed CA accepts.
        Server server;
        QVERIFY2(server.start(data), qPrintable(server.output));
        const QString caFile =
            server.output.section(QStringLiteral("CA certificate: "), 1).section(QLatin1Char('\n'), 0, 0);
        QCOMPARE(caFile, dir.filePath(QStringLiteral("tls/ca.pem")));
        QSslSocket socket;
        QSslConfiguration tls = socket.sslConfiguration();
        tls.setCaCertificates(QSslCertificate::fromPath(caFile));
        socket.setSslConfiguration(tls);
        socket.connectToHostEncrypted(QStringLiteral("127.0.0.1"), server.port);
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
        QVERIFY2(log.contains(QStringLiteral("POST /feedback/api/v1/{key}/threads 201 ")), qPrintable(log));
        QVERIFY(!log.contains(key) && !log.contains(rotated) && !log.contains(QStringLiteral("dev-a")));

        // The next start reuses the certificate.
        QFile caBefore(caFile);
        QVERIFY(caBefore.open(QIODevice::ReadOnly));
        const QByteArray before = caBefore.readAll();
        Server again;
        QVERIFY(again.start(data));
        QFile caAfter(caFile);
        QVERIFY(caAfter.open(QIODevice::ReadOnly));
        QCOMPARE(caAfter.readAll(), before);
        again.process.terminate();
        QVERIFY(again.process.waitForFinished(15000));

        // A database from a newer server is refused with a message, not opened.
        sqlite3 *db = nullptr;
        QCOMPARE(sqlite3_open(dir.filePath(QStringLiteral("murmora.db")).toUtf8().constData(), &db), SQLITE_OK);
        QCOMPARE(sqlite3_exec(db, "UPDATE schema_version SET version = 99", nullptr, nullptr, nullptr), SQLITE_OK);
        sqlite3_close(db);
        const auto [refused, message] = command(QStringList{QStringLiteral("apps"), QStringLiteral("list")} + data);
        QCOMPARE(refused, 1);
        QVERIFY2(message.contains(QStringLiteral("newer murmora-server (schema version 99")), qPrintable(message));
    }

    // Every answered POST is there and whole after a SIGKILL at any moment; nothing
    // half-written shows, and no screenshot outlives its thread.
    void killedAtRandomMoments()
    {
        QTemporaryDir dir;
        const QStringList arguments = QStringList{QStringLiteral("--data"), dir.path()} + certificateArguments();
        const QString key = lastLine(command(QStringList{QStringLiteral("apps"), QStringLiteral("add"),
                                                         QStringLiteral("k"), QStringLiteral("--data"), dir.path()})
                                         .second);
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
            QVERIFY(t.text.startsWith(QLatin1String("item ")));
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

    // Instances hold no state: what one stores, the other lists, comments, resolves, deletes.
    void twoProcessesOnePostgres()
    {
        if (const QString why = PostgresServer::unavailable(); !why.isEmpty())
            QSKIP(qPrintable(why));
        PostgresServer postgres;
        QVERIFY2(postgres.start(), qPrintable(postgres.error()));
        const QStringList database{QStringLiteral("--database"), postgres.url()};
        const QString key = lastLine(
            command(QStringList{QStringLiteral("apps"), QStringLiteral("add"), QStringLiteral("p")} + database).second);
        QTemporaryDir dirA, dirB;
        Server a, b;
        QVERIFY2(a.start(database + certificateArguments() + QStringList{QStringLiteral("--data"), dirA.path()}),
                 qPrintable(a.output));
        QVERIFY2(b.start(database + certificateArguments() + QStringList{QStringLiteral("--data"), dirB.path()}),
                 qPrintable(b.output));
        auto session = QSharedPointer<QKURLSession>::create();
        session->addCaCertificates(FakeService::caCertificates());
        QKPlatformFeedbackSource viaA(key, QStringLiteral("dev-p"), a.baseUrl(), QVariantMap());
        QKPlatformFeedbackSource viaB(key, QStringLiteral("dev-p"), b.baseUrl(), QVariantMap());
        viaA.setSession(session);
        viaB.setSession(session);

        QImage picture(8, 6, QImage::Format_RGB32);
        picture.fill(qRgb(10, 200, 30));
        auto item = QKFeedbackItemPtr::create();
        item->setText(QStringLiteral("through A"));
        item->setImage(picture);
        Outcome sent;
        viaA.addFeedback(item, sent.error_());
        QTRY_VERIFY_WITH_TIMEOUT(sent.done(), 20000);
        QVERIFY(!sent.error);

        Outcome listed;
        viaB.feedbackItemsByState(QStringLiteral("Open"), 0, listed.items_());
        QTRY_VERIFY_WITH_TIMEOUT(listed.done(), 20000);
        QCOMPARE(listed.items->size(), 1);
        const QKFeedbackItemPtr stored = listed.items->first();
        QCOMPARE(stored->text(), QStringLiteral("through A"));
        Outcome image;
        viaB.imageForKey(stored->params().value(QStringLiteral("ImageUri")).toString(), image.image_());
        QTRY_VERIFY_WITH_TIMEOUT(image.done(), 20000);
        QCOMPARE(image.image.convertToFormat(QImage::Format_RGB32), picture);

        auto comment = QKFeedbackItemPtr::create();
        comment->setText(QStringLiteral("through B"));
        Outcome commented;
        viaB.addSubItemForKey(stored->key(), comment, commented.error_());
        QTRY_VERIFY_WITH_TIMEOUT(commented.done(), 20000);
        QVERIFY(!commented.error);
        Outcome comments;
        viaA.subItemsForKey(stored->key(), comments.items_());
        QTRY_VERIFY_WITH_TIMEOUT(comments.done(), 20000);
        QCOMPARE(comments.items->size(), 1);
        QCOMPARE(comments.items->first()->key(), comment->key());

        Outcome resolved, afterResolve, deleted, afterDelete;
        viaB.editWithKey(stored->key(), QStringLiteral("Resolved"), resolved.error_());
        QTRY_VERIFY_WITH_TIMEOUT(resolved.done(), 20000);
        viaA.feedbackItemsByState(QStringLiteral("Resolved"), 0, afterResolve.items_());
        QTRY_VERIFY_WITH_TIMEOUT(afterResolve.done(), 20000);
        QCOMPARE(afterResolve.items->size(), 1);
        viaB.deleteWithKey(stored->key(), deleted.error_());
        QTRY_VERIFY_WITH_TIMEOUT(deleted.done(), 20000);
        QVERIFY(!deleted.error);
        viaA.feedbackItems(afterDelete.items_());
        QTRY_VERIFY_WITH_TIMEOUT(afterDelete.done(), 20000);
        QCOMPARE(afterDelete.items->size(), 0);
        a.process.terminate();
        b.process.terminate();
        QVERIFY(a.process.waitForFinished(15000) && b.process.waitForFinished(15000));
    }
};

QTEST_GUILESS_MAIN(tst_MurmoraServer)
#include "tst_murmoraserver.moc"
