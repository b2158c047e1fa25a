// murmora-feedback against murmora-server: a round trip through every command.

#include "support/TestService.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

namespace {
struct Run
{
    int exitCode = -1;
    QByteArray out, err;
    QJsonValue json() const
    {
        const QJsonDocument document = QJsonDocument::fromJson(out);
        return document.isArray() ? QJsonValue(document.array()) : QJsonValue(document.object());
    }
};

// How the tool reports the service's refusal.
QByteArray reported(QKServiceRefusal refusal)
{
    return "Wendax Platform (" + QByteArray::number(QKServiceRoutes::code(refusal)) +
           "): " + TestService::message(refusal).toUtf8();
}
} // namespace

class TestMurmoraFeedback : public QObject
{
    Q_OBJECT

    TestService m_service;
    QTemporaryDir m_dir;

    Run tool(const QStringList &command, const QString &uid = QStringLiteral("dev-1"), const QString &key = QString())
    {
        QProcess process;
        process.start(QStringLiteral(MURMORA_FEEDBACK_TOOL),
                      QStringList{QStringLiteral("--service"), m_service.baseUrl(), QStringLiteral("--key"),
                                  key.isNull() ? m_service.apiKey() : key, QStringLiteral("--uid"), uid,
                                  QStringLiteral("--ca"), FakeService::certsDirectory() + QStringLiteral("/ca.pem")} +
                          command);
        if (!process.waitForFinished(60000))
            return {};
        return {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
    }

private slots:
    void initTestCase() { QVERIFY(m_service.start()); }

    void roundTrip()
    {
        QImage shot(12, 8, QImage::Format_RGB32);
        shot.fill(qRgb(200, 30, 40));
        const QString png = m_dir.filePath(QStringLiteral("shot.png"));
        QVERIFY(shot.save(png));
        const Run sent = tool({QStringLiteral("send"), QStringLiteral("--text"), QStringLiteral("Button hidden"),
                               QStringLiteral("--image"), png, QStringLiteral("--author"), QStringLiteral("Ada")});
        QVERIFY2(sent.exitCode == 0, sent.err.constData());

        const Run listed = tool({QStringLiteral("list"), QStringLiteral("--state"), QStringLiteral("Open")});
        QVERIFY2(listed.exitCode == 0, listed.err.constData());
        const QJsonArray items = listed.json().toArray();
        QCOMPARE(items.size(), 1);
        const QJsonObject item = items.first().toObject();
        QCOMPARE(item.value(QStringLiteral("text")).toString(), QStringLiteral("Button hidden"));
        QCOMPARE(item.value(QStringLiteral("author")).toString(), QStringLiteral("Ada"));
        QVERIFY(item.value(QStringLiteral("createdAt")).toString().endsWith(QLatin1Char('Z')));
        const QString key = item.value(QStringLiteral("key")).toString();
        const QString uri =
            item.value(QStringLiteral("params")).toObject().value(QStringLiteral("ImageUri")).toString();
        QVERIFY(!key.isEmpty() && !uri.isEmpty());
        QCOMPARE(tool({QStringLiteral("list")}, QStringLiteral("dev-2")).json().toArray().size(), 0);

        const QString out = m_dir.filePath(QStringLiteral("down.png"));
        const Run image = tool({QStringLiteral("image"), uri, out});
        QVERIFY2(image.exitCode == 0, image.err.constData());
        QCOMPARE(QImage(out).convertToFormat(QImage::Format_RGB32), shot);

        // Ids may start with '-': "--" ends the options.
        const QString ends = QStringLiteral("--");
        const Run commented = tool({QStringLiteral("comment"), ends, key, QStringLiteral("Still there")});
        QVERIFY2(commented.exitCode == 0, commented.err.constData());
        QVERIFY(!commented.json().toObject().value(QStringLiteral("key")).toString().isEmpty());
        const QJsonArray comments = tool({QStringLiteral("comments"), ends, key}).json().toArray();
        QCOMPARE(comments.size(), 1);
        QCOMPARE(comments.first().toObject().value(QStringLiteral("author")).toString(), QString());

        QCOMPARE(tool({QStringLiteral("edit"), ends, key, QStringLiteral("Resolved")}).exitCode, 0);
        const QJsonArray resolved =
            tool({QStringLiteral("list"), QStringLiteral("--state"), QStringLiteral("Resolved")}).json().toArray();
        QCOMPARE(resolved.size(), 1);
        QCOMPARE(resolved.first()[QStringLiteral("key")].toString(), key);
        QCOMPARE(tool({QStringLiteral("delete"), ends, key}).exitCode, 0);
        QCOMPARE(tool({QStringLiteral("list")}).json().toArray().size(), 0);
    }

    void errors()
    {
        const Run missing = tool({QStringLiteral("delete"), QStringLiteral("nope")});
        QCOMPARE(missing.exitCode, 1);
        QVERIFY2(missing.err.contains(reported(QKServiceRefusal::NoSuchThread)), missing.err.constData());
        const Run refused = tool({QStringLiteral("list")}, QStringLiteral("dev-1"), QStringLiteral("nobody"));
        QCOMPARE(refused.exitCode, 1);
        QVERIFY2(refused.err.contains(reported(QKServiceRefusal::UnknownApplication)), refused.err.constData());
        QCOMPARE(tool({QStringLiteral("frobnicate")}).exitCode, 2);
        QCOMPARE(tool({QStringLiteral("send")}).exitCode, 2); // no --text
    }
};

QTEST_GUILESS_MAIN(TestMurmoraFeedback)
#include "tst_murmorafeedback.moc"
