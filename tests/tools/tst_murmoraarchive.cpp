#include "base/QKKeyedUnarchiver.h"
#include "data/QKFeedbackItem.h"

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
    QByteArray out;
    QByteArray err;
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

QJsonValue dumped(const QString &path)
{
    const Run run = runTool({QStringLiteral("dump"), path});
    if (run.exitCode != 0)
        qWarning("dump failed: %s", run.err.constData());
    const QJsonDocument document = QJsonDocument::fromJson(run.out);
    return document.isArray() ? QJsonValue(document.array()) : QJsonValue(document.object());
}
} // namespace

class TestMurmoraArchive : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QString path(const char *name) const { return m_dir.filePath(QString::fromLatin1(name)); }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QFile garbage(path("garbage.plist"));
        QVERIFY(garbage.open(QIODevice::WriteOnly));
        garbage.write("bplist00 this is not an archive at all");
        QFile text(path("notes.png"));
        QVERIFY(text.open(QIODevice::WriteOnly));
        text.write("not an image");
    }

    void itemsRoundTrip()
    {
        QImage shot(7, 5, QImage::Format_ARGB32);
        for (int y = 0; y < 5; ++y)
            for (int x = 0; x < 7; ++x)
                shot.setPixel(x, y, qRgba(x * 30, y * 50, 200, 100 + x * y));
        QVERIFY(shot.save(path("shot.png")));
        const QJsonArray input{
            QJsonObject{{"key", "k1"},
                        {"createdAt", "2024-02-29T23:59:58.999Z"},
                        {"modifiedAt", "2024-03-01T01:00:01.007+01:00"},
                        {"text", QString::fromUtf8("Crash on sav\u00e9 \u2713")},
                        {"author", QJsonValue()},
                        {"state", "open"},
                        {"imageFile", path("shot.png")},
                        {"subItems", QJsonArray{QJsonObject{{"key", "k1.1"},
                                                            {"createdAt", "2024-03-02T10:00:00.001Z"},
                                                            {"text", "Fixed"},
                                                            {"author", "Bob"}}}}},
            QJsonObject{{"key", "k2"}, {"text", "No comments"}, {"subItems", QJsonValue()}}};
        const QString file = path("items.plist");
        const Run made = runTool({QStringLiteral("make"), file}, QJsonDocument(input).toJson());
        QVERIFY2(made.exitCode == 0, made.err.constData());

        // The PNG the archive holds, read without the tool.
        const QVariantList root = QKKeyedUnarchiver::unarchiveObjectWithFile(file).toList();
        QCOMPARE(root.size(), 2);
        const auto item = root[0].value<QKCodingPtr>().dynamicCast<QKFeedbackItem>();
        QVERIFY(item);
        const QByteArray png = item->imagePNGData();
        QVERIFY(png.startsWith("\x89PNG\r\n\x1a\n"));
        QCOMPARE(QImage::fromData(png).convertToFormat(QImage::Format_ARGB32), shot);
        const QString sha = QString::fromLatin1(QCryptographicHash::hash(png, QCryptographicHash::Sha256).toHex());

        const QJsonObject reply{{"key", "k1.1"},    {"createdAt", "2024-03-02T10:00:00.001Z"},
                                {"modifiedAt", {}}, {"text", "Fixed"},
                                {"author", "Bob"},  {"state", {}},
                                {"image", {}},      {"subItems", QJsonArray()}};
        const QJsonArray expected{
            QJsonObject{{"key", "k1"},
                        {"createdAt", "2024-02-29T23:59:58.999Z"},
                        {"modifiedAt", "2024-03-01T00:00:01.007Z"},
                        {"text", QString::fromUtf8("Crash on sav\u00e9 \u2713")},
                        {"author", QJsonValue()},
                        {"state", "open"},
                        {"image", QJsonObject{{"width", 7}, {"height", 5}, {"sha256", sha}}},
                        {"subItems", QJsonArray{reply}}},
            QJsonObject{{"key", "k2"},
                        {"createdAt", {}},
                        {"modifiedAt", {}},
                        {"text", "No comments"},
                        {"author", {}},
                        {"state", {}},
                        {"image", {}},
                        {"subItems", QJsonValue()}}};
        const QJsonValue actual = dumped(file);
        QVERIFY2(actual == expected, QJsonDocument(actual.toArray()).toJson().constData());
    }

    void settingsRoundTrip()
    {
        const QJsonObject settings{{"Name", "Ada"}, {"Count", -3}, {"Ratio", 2.5}, {"On", true}, {"Tags", QJsonArray{"x"}}};
        const QString file = path("settings.plist");
        const Run made = runTool({QStringLiteral("make"), file}, QJsonDocument(settings).toJson());
        QVERIFY2(made.exitCode == 0, made.err.constData());
        QCOMPARE(dumped(file), QJsonValue(settings));
    }

    void errors_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("input");
        const QString out = path("out.plist");
        const auto image = [this](const char *name) {
            return QJsonDocument(QJsonArray{QJsonObject{{"key", "a"}, {"imageFile", path(name)}}}).toJson();
        };
        QTest::newRow("dump missing file") << QStringList{"dump", path("missing.plist")} << QByteArray();
        QTest::newRow("dump garbage") << QStringList{"dump", path("garbage.plist")} << QByteArray();
        QTest::newRow("make invalid JSON") << QStringList{"make", out} << QByteArray("[{\"key\": ");
        QTest::newRow("make missing image") << QStringList{"make", out} << image("none.png");
        QTest::newRow("make image not an image") << QStringList{"make", out} << image("notes.png");
        QTest::newRow("make null setting") << QStringList{"make", out} << QByteArray("{\"Name\": null}");
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
        QVERIFY(!run.err.trimmed().isEmpty());
        QVERIFY(!QFile::exists(path("out.plist")));
    }
};

QTEST_MAIN(TestMurmoraArchive)
#include "tst_murmoraarchive.moc"
