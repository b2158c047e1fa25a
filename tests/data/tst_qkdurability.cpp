// The two archives the library writes (the local source's items, the façade's
// settings) against a writer killed at random moments, the system calls of one save,
// a full disk and a read-only one.

#include "base/QKArchiveException.h"
#include "base/QKAtomicFile.h"
#include "base/QKDocumentsDirectory.h"
#include "base/QKKeyedUnarchiver.h"
#include "core/QKFeedback.h"
#include "data/QKLocalFeedbackSource.h"

#include <QApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QImage>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

namespace {

constexpr int ItemCount = 8; // as murmora_save_loop writes them

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int DefaultKillsPerArchive = 100; // sanitized processes start slowly
#else
constexpr int DefaultKillsPerArchive = 500;
#endif

QString fileName(const QString &kind)
{
    return kind == QLatin1String("items") ? "qkfeedback.plist" : "qkfeedback.settings.plist";
}

// What a reader finds: the version of a whole file (0 for none yet), or why it is not whole.
struct Found
{
    qint64 version = -1;
    QString fault;
};

Found readVersion(const QString &kind, const QString &dir)
{
    const QString path = dir + QLatin1Char('/') + fileName(kind);
    if (!QFileInfo::exists(path))
        return {0, {}};
    const auto versionOf = [](const QString &text) {
        bool ok = false;
        const qint64 v = text.startsWith(QLatin1Char('v')) ? text.mid(1).toLongLong(&ok) : -1;
        return ok ? v : -1;
    };
    try {
        const QVariant root = QKKeyedUnarchiver::unarchiveObjectWithFile(path);
        if (kind == QLatin1String("settings")) {
            const qint64 v = versionOf(root.toMap().value(QStringLiteral("Name")).toString());
            return v < 0 ? Found{-1, "no version in the settings"} : Found{v, {}};
        }
        const QVariantList list = root.toList();
        if (list.size() != ItemCount)
            return {-1, QStringLiteral("%1 items").arg(list.size())};
        qint64 version = -1;
        for (int i = 0; i < list.size(); ++i) {
            const auto item = list[i].value<QKCodingPtr>().dynamicCast<QKFeedbackItem>();
            const qint64 v = item ? versionOf(item->text()) : -1;
            if (v < 0 || (i > 0 && v != version))
                return {-1, QStringLiteral("item %1 is not of the same version").arg(i)};
            version = v;
        }
        const auto first = list[0].value<QKCodingPtr>().dynamicCast<QKFeedbackItem>();
        if (first->image().isNull())
            return {-1, "the screenshot is lost"};
        return {version, {}};
    } catch (const QKArchiveException &e) {
        return {-1, e.reason()};
    }
}

QStringList temporaries(const QString &kind, const QString &dir)
{
    return QDir(dir).entryList({QLatin1Char('.') + fileName(kind) + ".*"}, QDir::Files | QDir::Hidden | QDir::System);
}

QByteArray contents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// A small tmpfs over a directory, unmounted however the test ends.
struct TmpfsMount
{
    explicit TmpfsMount(const QString &dir) : path(QFile::encodeName(dir))
    {
        mounted = ::mount("tmpfs", path.constData(), "tmpfs", 0, "size=512k") == 0;
        if (!mounted)
            error = QString::fromLocal8Bit(std::strerror(errno));
    }
    ~TmpfsMount()
    {
        if (mounted && ::umount2(path.constData(), 0) != 0)
            ::umount2(path.constData(), MNT_DETACH);
    }
    bool setReadOnly(bool readOnly)
    {
        return ::mount("tmpfs", path.constData(), "tmpfs", MS_REMOUNT | (readOnly ? MS_RDONLY : 0), "size=512k") == 0;
    }
    QByteArray path;
    bool mounted = false;
    QString error;
};

// Unbuffered, so that what was printed before a SIGKILL is in the pipe.
void report(const char *what, qint64 version)
{
    const QByteArray line = QByteArray(what) + ' ' + QByteArray::number(version) + '\n';
    (void)!::write(STDOUT_FILENO, line.constData(), size_t(line.size()));
}

qint64 versionOf(const QString &text)
{
    return text.startsWith(QLatin1Char('v')) ? text.mid(1).toLongLong() : 0;
}

// Run as `--save-loop items|settings DIR [SAVES]`, this executable saves one of the
// library's archives over and over, each time as a new version a reader can recognise,
// for the tests to kill at any moment. items: ItemCount items whose text is "v<N>", one
// with a screenshot so that a save takes a while; settings: the façade's settings with
// the name "v<N>". It starts at the version found in DIR plus one, prints "running
// <found>" and "saved <N>" after each save that returned true, and stops after SAVES
// saves (none: until killed).
int saveLoop(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments().mid(1);
    QKSetDocumentsDirectory(args[2]);
    const qint64 saves = args.size() > 3 ? args[3].toLongLong() : -1;

    std::function<bool(qint64)> save;
    qint64 version = 0;
    std::unique_ptr<QKLocalFeedbackSource> source;
    if (args[1] == QLatin1String("items")) {
        source = std::make_unique<QKLocalFeedbackSource>(); // throws on a torn file
        if (!source->items().isEmpty())
            version = versionOf(source->items().first()->text());
        if (source->items().size() != ItemCount) {
            QKFeedbackItemList items;
            for (int i = 0; i < ItemCount; ++i) {
                auto item = QKFeedbackItem::create();
                item->setKey(QStringLiteral("k%1").arg(i));
                item->setState("Open");
                item->setText(QStringLiteral("v%1").arg(version));
                items.append(item);
            }
            QImage noise(320, 240, QImage::Format_RGB32);
            for (int y = 0; y < noise.height(); ++y)
                QRandomGenerator::global()->fillRange(reinterpret_cast<quint32 *>(noise.scanLine(y)), noise.width());
            items.first()->setImage(noise);
            source->addFeedbackItems(items, [](auto) {});
        }
        save = [&](qint64 v) {
            for (const QKFeedbackItemPtr &item : source->items())
                item->setText(QStringLiteral("v%1").arg(v));
            return source->save();
        };
    } else {
        QKFeedback *feedback = QKFeedback::sharedInstance();
        version = versionOf(feedback->settings().value(QStringLiteral("Name")).toString());
        save = [feedback](qint64 v) {
            feedback->settings()["Name"] = QStringLiteral("v%1").arg(v);
            return feedback->saveSettings();
        };
    }

    report("running", version);
    for (qint64 done = 0; saves < 0 || done < saves; ++done) {
        if (!save(++version)) {
            report("failed", version);
            return 1;
        }
        report("saved", version);
    }
    return 0;
}

} // namespace

class TestDurability : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        const QByteArray seed = qgetenv("MURMORA_DURABILITY_SEED");
        m_seed = seed.isEmpty() ? QRandomGenerator::system()->generate() : seed.toUInt();
        qInfo("seed %u (MURMORA_DURABILITY_SEED repeats a run)", m_seed);
    }

    // Every file a killed writer leaves behind is the last version it reported, or the
    // one it was reporting (renamed, not yet printed): whole, never older, never torn.
    void killedWriter_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::newRow("items") << "items";
        QTest::newRow("settings") << "settings";
    }
    void killedWriter()
    {
        QFETCH(QString, kind);
        const int kills = qEnvironmentVariableIntValue("MURMORA_DURABILITY_KILLS") > 0
                              ? qEnvironmentVariableIntValue("MURMORA_DURABILITY_KILLS") / 2
                              : DefaultKillsPerArchive;
        QRandomGenerator random(m_seed + (kind == QLatin1String("items") ? 0 : 1));
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        QElapsedTimer clock;
        clock.start();

        qint64 onDisk = 0;
        int wrongVersion = 0, renamedUnreported = 0;
        for (int kill = 0; kill < kills; ++kill) {
            QProcess writer;
            writer.start(QCoreApplication::applicationFilePath(), {"--save-loop", kind, dir.path()});
            QByteArray out;
            while (!out.contains('\n') && writer.waitForReadyRead(10000))
                out += writer.readAllStandardOutput();
            QVERIFY2(out.startsWith("running " + QByteArray::number(onDisk) + '\n'), out.constData());

            // A save takes a few milliseconds: a kill within the next dozen lands anywhere
            // in one (the wait has millisecond steps; the scheduler adds the rest).
            const QDeadlineTimer deadline(std::chrono::microseconds(random.bounded(12000)), Qt::PreciseTimer);
            while (!deadline.hasExpired() && writer.state() == QProcess::Running)
                writer.waitForReadyRead(qMax(1, int(deadline.remainingTime())));
            QVERIFY2(writer.state() == QProcess::Running, writer.readAllStandardError().constData());
            writer.kill();
            QVERIFY(writer.waitForFinished(10000));
            out += writer.readAllStandardOutput();

            qint64 reported = onDisk;
            for (const QByteArray &line : out.split('\n'))
                if (line.startsWith("saved "))
                    reported = line.mid(6).toLongLong();
            const Found found = readVersion(kind, dir.path());
            QCOMPARE(found.fault, QString()); // never torn
            wrongVersion += found.version < reported || found.version > reported + 1;
            renamedUnreported += found.version == reported + 1;
            onDisk = found.version;
        }
        QCOMPARE(wrongVersion, 0);

        // One clean save after the last kill.
        QProcess writer;
        writer.start(QCoreApplication::applicationFilePath(), {"--save-loop", kind, dir.path(), "1"});
        QVERIFY(writer.waitForFinished(10000));
        QCOMPARE(writer.exitCode(), 0);
        QCOMPARE(readVersion(kind, dir.path()).version, onDisk + 1);
        qInfo("%s: %d kills in %lld ms, %lld versions, %d renamed but not reported", qPrintable(kind), kills,
              clock.elapsed(), onDisk + 1, renamedUnreported);
        // Leftovers of killed writers go with the next save.
        QCOMPARE(temporaries(kind, dir.path()), QStringList());
    }

    // One save, as the kernel sees it: temporary in the same directory, its data, its
    // fsync, the rename over the archive, then the directory's fsync.
    void systemCallsOfOneSave_data() { killedWriter_data(); }
    void systemCallsOfOneSave()
    {
        QFETCH(QString, kind);
        const QString strace = QStandardPaths::findExecutable("strace");
        if (strace.isEmpty())
            QSKIP("strace is not installed");
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QString log = dir.filePath("strace.log");
        QVERIFY(QDir().mkpath(dir.filePath("docs")));
        const QString docs = QFileInfo(dir.filePath("docs")).canonicalFilePath();
        QProcess traced;
        // LeakSanitizer cannot run under ptrace and would fail the traced helper.
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("ASAN_OPTIONS", env.value("ASAN_OPTIONS") + ":detect_leaks=0");
        traced.setProcessEnvironment(env);
        // Saves run on the main thread, the one traced; -y shows each descriptor's file: "3</path>".
        // The items' archive is saved twice: once as the list is made, then once more.
        traced.start(strace, {"-y", "-o", log, "-e", "trace=openat,write,fsync,fdatasync,rename,renameat,renameat2",
                              QCoreApplication::applicationFilePath(), "--save-loop", kind, docs, "1"});
        QVERIFY(traced.waitForFinished(30000));
        if (traced.exitCode() != 0 && contents(log).isEmpty())
            QSKIP(qPrintable("strace cannot trace here: " + traced.readAllStandardError()));
        QCOMPARE(traced.exitCode(), 0);

        const QString temp = docs + "/." + fileName(kind) + QLatin1Char('.');
        const QString target = QLatin1Char('"') + docs + QLatin1Char('/') + fileName(kind) + QLatin1Char('"');
        QStringList steps;
        for (const QString &line : QString::fromUtf8(contents(log)).split(QLatin1Char('\n'))) {
            const QString name = line.section(QLatin1Char('('), 0, 0);
            const QString fd =
                line.section(QLatin1Char('('), 1).section(QStringLiteral(", "), 0, 0).section(u')', 0, 0);
            QString step;
            if (name == QLatin1String("openat") && line.contains(u'"' + temp) && line.contains("O_CREAT"))
                step = "create temporary";
            else if (name == QLatin1String("write") && fd.contains(u'<' + temp))
                step = "write";
            else if ((name == QLatin1String("fsync") || name == QLatin1String("fdatasync")) && fd.contains(u'<' + temp))
                step = "sync temporary";
            else if (name.startsWith(QLatin1String("rename")) && line.contains(u'"' + temp) && line.contains(target))
                step = "rename";
            else if (name == QLatin1String("fsync") && fd.endsWith(u'<' + docs + u'>'))
                step = "sync directory";
            if (!step.isEmpty() && (steps.isEmpty() || steps.last() != step))
                steps.append(step);
        }
        QCOMPARE(steps.mid(0, 5),
                 QStringList({"create temporary", "write", "sync temporary", "rename", "sync directory"}));
    }

    // A save that cannot be written reports it, keeps the old file whole and leaves no
    // temporary; the list (or the settings) in memory is kept and saved once it can be.
    void diskFault_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<bool>("full");
        QTest::newRow("items, disk full") << "items" << true;
        QTest::newRow("items, read-only") << "items" << false;
        QTest::newRow("settings, disk full") << "settings" << true;
        QTest::newRow("settings, read-only") << "settings" << false;
    }
    void diskFault()
    {
        QFETCH(QString, kind);
        QFETCH(bool, full);
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        TmpfsMount mount(dir.path());
        if (!mount.mounted)
            QSKIP(qPrintable(
                QStringLiteral("cannot mount a tmpfs here (%1); needs root or CAP_SYS_ADMIN").arg(mount.error)));
        QKSetDocumentsDirectory(dir.path());
        const QString path = dir.filePath(fileName(kind));
        const bool items = kind == QLatin1String("items");
        const QString name = "Name";
        QKFeedback *feedback = QKFeedback::sharedInstance();
        // Declared after the mount: it saves once more when destroyed, before the unmount.
        std::unique_ptr<QKLocalFeedbackSource> source;
        if (items)
            source = std::make_unique<QKLocalFeedbackSource>();
        // The same steps for either archive: a change in memory, a save, what the file holds.
        const auto change = [&](const QString &text) {
            if (!items)
                return void(feedback->settings()[name] = text);
            auto item = QKFeedbackItem::create();
            item->setText(text);
            std::optional<QKError> error{QKError()};
            source->addFeedback(item, [&](std::optional<QKError> e) { error = e; });
            QVERIFY(!error); // silent, as the source promises
        };
        const auto save = [&] { return items ? source->save() : feedback->saveSettings(); };
        const auto stored = [&] {
            const QVariant root = QKKeyedUnarchiver::unarchiveObjectWithFile(path);
            QStringList texts{root.toMap().value(name).toString()};
            for (const QVariant &v : root.toList())
                texts.append(v.value<QKCodingPtr>().dynamicCast<QKFeedbackItem>()->text());
            return texts.join(u' ').trimmed();
        };
        change("a");
        QVERIFY(save());
        const QByteArray before = contents(path);
        QCOMPARE(stored(), "a");

        const QString fillerPath = dir.filePath("filler");
        if (full) {
            const int fd = ::open(QFile::encodeName(fillerPath).constData(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
            QVERIFY(fd >= 0);
            const QByteArray page(4096, 'x');
            while (::write(fd, page.constData(), size_t(page.size())) > 0) {
            }
            const int fillError = errno;
            ::close(fd);
            QCOMPARE(fillError, ENOSPC);
        } else {
            QVERIFY2(mount.setReadOnly(true), std::strerror(errno));
        }
        for (int i = 0; items && i < 2; ++i) // each failed save says so
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression("could not be saved to "));
        change("b");
        QVERIFY(!save());
        QCOMPARE(contents(path), before);
        QCOMPARE(temporaries(kind, dir.path()), QStringList());
        QCOMPARE(items ? source->items().size() : 2, 2);

        if (full)
            QVERIFY(QFile::remove(fillerPath));
        else
            QVERIFY2(mount.setReadOnly(false), std::strerror(errno));
        QVERIFY(save());
        if (!items)
            feedback->loadSettings();
        QCOMPARE(stored(), items ? "a b" : "b");
        QCOMPARE(temporaries(kind, dir.path()), QStringList());
        source.reset();
    }

private:
    quint32 m_seed = 0;
};

int main(int argc, char **argv)
{
    if (argc > 3 && std::strcmp(argv[1], "--save-loop") == 0)
        return saveLoop(argc, argv);
    QApplication app(argc, argv);
    TestDurability test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_qkdurability.moc"
