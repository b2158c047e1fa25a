// The command-line tools: murmora-archive making and dumping archives, and
// murmora-feedback against murmora-server, a round trip through every command.

#include "base/QKKeyedUnarchiver.h"
#include "data/QKFeedbackItem.h"
#include "support/TestService.h"

#include <QCryptographicHash>
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

// Runs `tool` to its end with `input` on its standard input.
Run runTool(const QString &tool, const QStringList &arguments, const QByteArray &input = QByteArray())
{
    QProcess process;
    process.start(tool, arguments);
    if (!process.waitForStarted())
        return {};
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit)
        return {};
    return {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
}

// How the tool reports the service's refusal.
QByteArray reported(QKServiceRefusal refusal)
{
    return "Wendax Platform (" + QByteArray::number(QKServiceRoutes::code(refusal)) +
           "): " + TestService::message(refusal).toUtf8();
}
} // namespace

class TestTools : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    TestService m_service;

    Run tool(const QStringList &command, const QString &uid = QStringLiteral("dev-1"), const QString &key = QString())
    {
        return runTool(QStringLiteral(MURMORA_FEEDBACK_TOOL),
                       QStringList{QStringLiteral("--service"), m_service.baseUrl(), QStringLiteral("--key"),
                                   key.isNull() ? m_service.apiKey() : key, QStringLiteral("--uid"), uid,
                                   QStringLiteral("--ca"), FakeService::certsDirectory() + QStringLiteral("/ca.pem")} +
                           command);
    }

    QString path(const char *name) const { return m_dir.filePath(QString::fromLatin1(name)); }

    // Dumps `file` and checks that the printed JSON is `expected`.
    void checkDump(const QString &file, const QByteArray &expected)
    {
        const Run dumped = runTool(QStringLiteral(MURMORA_ARCHIVE_TOOL), {QStringLiteral("dump"), file});
        QVERIFY2(dumped.exitCode == 0, dumped.err.constData());
        QJsonParseError error;
        const QJsonDocument expectedDocument = QJsonDocument::fromJson(expected, &error);
        QVERIFY2(!expectedDocument.isNull(), qPrintable(error.errorString()));
        QVERIFY2(QJsonDocument::fromJson(dumped.out) == expectedDocument, dumped.out.constData());
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_service.start());
        QVERIFY(m_dir.isValid());
        QFile garbage(path("garbage.plist")), text(path("notes.png"));
        QVERIFY(garbage.open(QIODevice::WriteOnly) && text.open(QIODevice::WriteOnly));
        garbage.write("bplist00 this is not an archive at all");
        text.write("not an image");
    }

    void archiveItems()
    {
        QImage shot(7, 5, QImage::Format_ARGB32);
        for (int y = 0; y < 5; ++y)
            for (int x = 0; x < 7; ++x)
                shot.setPixel(x, y, qRgba(x * 30, y * 50, 200, 100 + x * y));
        QVERIFY(shot.save(path("shot.png")));
        const QString file = path("items.plist");
        const QByteArray input = QByteArray(R"([
            {"key": "k1", "createdAt": "2024-02-29T23:59:58.999Z", "modifiedAt": "2024-03-01T01:00:01.007+01:00",
             "text": "Crash on sav\u00e9 \u2713", "author": null, "state": "open", "imageFile": "%1",
             "subItems": [{"key": "k1.1", "createdAt": "1999-12-31T23:59:59.999Z", "text": "Fixed", "author": "Bob"}]},
            {"key": "k2", "text": "No comments", "subItems": null}])")
                                     .replace("%1", path("shot.png").toUtf8());
        const QByteArray expected = R"([
            {"key": "k1", "createdAt": "2024-02-29T23:59:58.999Z", "modifiedAt": "2024-03-01T00:00:01.007Z",
             "text": "Crash on sav\u00e9 \u2713", "author": null, "state": "open",
             "image": {"width": 7, "height": 5, "sha256": "%1"},
             "subItems": [{"key": "k1.1", "createdAt": "1999-12-31T23:59:59.999Z", "modifiedAt": null,
                           "text": "Fixed", "author": "Bob", "state": null, "image": null, "subItems": []}]},
            {"key": "k2", "createdAt": null, "modifiedAt": null, "text": "No comments", "author": null,
             "state": null, "image": null, "subItems": null}])";
        const Run made = runTool(QStringLiteral(MURMORA_ARCHIVE_TOOL), {QStringLiteral("make"), file}, input);
        QVERIFY2(made.exitCode == 0, made.err.constData());

        // The PNG the archive holds, read without the tool.
        const QVariantList root = QKKeyedUnarchiver::unarchiveObjectWithFile(file).toList();
        QCOMPARE(root.size(), 2);
        const auto item = root[0].value<QKCodingPtr>().dynamicCast<QKFeedbackItem>();
        QVERIFY(item);
        const QByteArray png = item->imagePNG();
        QVERIFY(png.startsWith("\x89PNG\r\n\x1a\n"));
        QCOMPARE(QImage::fromData(png).convertToFormat(QImage::Format_ARGB32), shot);
        const QByteArray sha = QCryptographicHash::hash(png, QCryptographicHash::Sha256).toHex();
        checkDump(file, QByteArray(expected).replace("%1", sha));
    }

    void archiveSettings()
    {
        const QByteArray json =
            R"({"Name": "Ada", "Count": -3, "Ratio": 2.5, "Big": 1e300, "On": true, "Tags": ["x", {"y": 1}]})";
        const Run made =
            runTool(QStringLiteral(MURMORA_ARCHIVE_TOOL), {QStringLiteral("make"), path("settings.plist")}, json);
        QVERIFY2(made.exitCode == 0, made.err.constData());
        checkDump(path("settings.plist"), json);
    }

    void archiveErrors_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("input");
        const QString out = path("out.plist");
        const auto image = [this](const char *name) { return "[{\"imageFile\": \"" + path(name).toUtf8() + "\"}]"; };
        QTest::newRow("dump missing file") << QStringList{"dump", path("missing.plist")} << QByteArray();
        QTest::newRow("dump garbage") << QStringList{"dump", path("garbage.plist")} << QByteArray();
        QTest::newRow("make invalid JSON") << QStringList{"make", out} << QByteArray(R"([{"key": )");
        QTest::newRow("make missing image") << QStringList{"make", out} << image("none.png");
        QTest::newRow("make image not an image") << QStringList{"make", out} << image("notes.png");
        QTest::newRow("make null setting") << QStringList{"make", out} << QByteArray(R"({"Name": null})");
        QTest::newRow("no arguments") << QStringList() << QByteArray();
        QTest::newRow("make without file") << QStringList{"make"} << QByteArray("{}");
        QTest::newRow("unknown command") << QStringList{"show", out} << QByteArray();
    }
    void archiveErrors()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, input);
        const Run run = runTool(QStringLiteral(MURMORA_ARCHIVE_TOOL), arguments, input);
        QVERIFY(run.exitCode > 0);
        // The tool's own message, not just Qt's warnings.
        QVERIFY2(run.err.contains("murmora-archive"), run.err.constData());
        QVERIFY(!QFile::exists(path("out.plist")));
    }
    void feedbackRoundTrip()
    {
        QImage shot(12, 8, QImage::Format_RGB32);
        shot.fill(qRgb(200, 30, 40));
        const QString png = path("shot.png");
        QVERIFY(shot.save(png));
        const Run sent = tool({"send", "--text", "Button hidden", "--image", png, "--author", "Ada"});
        QVERIFY2(sent.exitCode == 0, sent.err.constData());

        const Run listed = tool({"list", "--state", "Open"});
        QVERIFY2(listed.exitCode == 0, listed.err.constData());
        const QJsonArray items = listed.json().toArray();
        QCOMPARE(items.size(), 1);
        const QJsonObject item = items.first().toObject();
        QCOMPARE(item.value("text").toString(), "Button hidden");
        QCOMPARE(item.value("author").toString(), "Ada");
        QVERIFY(item.value("createdAt").toString().endsWith(QLatin1Char('Z')));
        const QString key = item.value("key").toString();
        const QString uri = item.value("params").toObject().value("ImageUri").toString();
        QVERIFY(!key.isEmpty() && !uri.isEmpty());
        QCOMPARE(tool({"list"}, "dev-2").json().toArray().size(), 0);

        const QString out = path("down.png");
        const Run image = tool({"image", uri, out});
        QVERIFY2(image.exitCode == 0, image.err.constData());
        QCOMPARE(QImage(out).convertToFormat(QImage::Format_RGB32), shot);

        // Ids may start with '-': "--" ends the options.
        const QString ends = "--";
        const Run commented = tool({"comment", ends, key, "Still there"});
        QVERIFY2(commented.exitCode == 0, commented.err.constData());
        QVERIFY(!commented.json().toObject().value("key").toString().isEmpty());
        const QJsonArray comments = tool({"comments", ends, key}).json().toArray();
        QCOMPARE(comments.size(), 1);
        QCOMPARE(comments.first().toObject().value("author").toString(), QString());

        QCOMPARE(tool({"edit", ends, key, "Resolved"}).exitCode, 0);
        const QJsonArray resolved = tool({"list", "--state", "Resolved"}).json().toArray();
        QCOMPARE(resolved.size(), 1);
        QCOMPARE(resolved.first()["key"].toString(), key);
        QCOMPARE(tool({"delete", ends, key}).exitCode, 0);
        QCOMPARE(tool({"list"}).json().toArray().size(), 0);
    }

    void feedbackErrors()
    {
        const Run missing = tool({"delete", "nope"});
        QCOMPARE(missing.exitCode, 1);
        QVERIFY2(missing.err.contains(reported(QKServiceRefusal::NoSuchThread)), missing.err.constData());
        const Run refused = tool({"list"}, "dev-1", "nobody");
        QCOMPARE(refused.exitCode, 1);
        QVERIFY2(refused.err.contains(reported(QKServiceRefusal::UnknownApplication)), refused.err.constData());
        QCOMPARE(tool({"frobnicate"}).exitCode, 2);
        QCOMPARE(tool({"send"}).exitCode, 2); // no --text
    }
};

QTEST_GUILESS_MAIN(TestTools)
#include "tst_murmoratools.moc"
