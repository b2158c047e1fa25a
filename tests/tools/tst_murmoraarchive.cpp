#include "base/QKKeyedUnarchiver.h"
#include "data/QKFeedbackItem.h"

#include <QCryptographicHash>
#include <QJsonDocument>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

namespace {
struct Run
{
    int exitCode = -1;
    QByteArray out, err;
};

Run runTool(const QStringList &arguments, const QByteArray &input = QByteArray())
{
    QProcess process;
    process.start(QStringLiteral(MURMORA_ARCHIVE_TOOL), arguments);
    if (!process.waitForStarted())
        return {};
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit)
        return {};
    return {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
}
} // namespace

class TestMurmoraArchive : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QString path(const char *name) const { return m_dir.filePath(QString::fromLatin1(name)); }

    // Dumps `file` and checks that the printed JSON is `expected`.
    void checkDump(const QString &file, const QByteArray &expected)
    {
        const Run dumped = runTool({QStringLiteral("dump"), file});
        QVERIFY2(dumped.exitCode == 0, dumped.err.constData());
        QJsonParseError error;
        const QJsonDocument expectedDocument = QJsonDocument::fromJson(expected, &error);
        QVERIFY2(!expectedDocument.isNull(), qPrintable(error.errorString()));
        QVERIFY2(QJsonDocument::fromJson(dumped.out) == expectedDocument, dumped.out.constData());
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QFile garbage(path("garbage.plist")), text(path("notes.png"));
        QVERIFY(garbage.open(QIODevice::WriteOnly) && text.open(QIODevice::WriteOnly));
        garbage.write("bplist00 this is not an archive at all");
        text.write("not an image");
    }

    void items()
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
        const Run made = runTool({QStringLiteral("make"), file}, input);
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

    void settings()
    {
        const QByteArray json =
            R"({"Name": "Ada", "Count": -3, "Ratio": 2.5, "Big": 1e300, "On": true, "Tags": ["x", {"y": 1}]})";
        const Run made = runTool({QStringLiteral("make"), path("settings.plist")}, json);
        QVERIFY2(made.exitCode == 0, made.err.constData());
        checkDump(path("settings.plist"), json);
    }

    void errors_data()
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
    void errors()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, input);
        const Run run = runTool(arguments, input);
        QVERIFY(run.exitCode > 0);
        // The tool's own message, not just Qt's warnings.
        QVERIFY2(run.err.contains("murmora-archive"), run.err.constData());
        QVERIFY(!QFile::exists(path("out.plist")));
    }
};

QTEST_MAIN(TestMurmoraArchive)
#include "tst_murmoraarchive.moc"
