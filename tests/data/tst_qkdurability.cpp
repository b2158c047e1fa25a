// The two archives the library writes (the local source's items, the façade's
// settings) against a writer killed at random moments, the system calls of one save,
// a full disk and a read-only one.

#include "base/QKArchiveException.h"
#include "base/QKAtomicFile.h"
#include "base/QKDocumentsDirectory.h"
#include "base/QKKeyedUnarchiver.h"
#include "core/QKFeedback.h"
#include "data/QKLocalFeedbackSource.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
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
    return kind == QLatin1String("items") ? QStringLiteral("qkfeedback.plist")
                                          : QStringLiteral("qkfeedback.settings.plist");
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
            return v < 0 ? Found{-1, QStringLiteral("no version in the settings")} : Found{v, {}};
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
            return {-1, QStringLiteral("the screenshot is lost")};
        return {version, {}};
    } catch (const QKArchiveException &e) {
        return {-1, e.reason()};
    }
}

QStringList temporaries(const QString &kind, const QString &dir)
{
    return QDir(dir).entryList({QLatin1Char('.') + fileName(kind) + QStringLiteral(".*")},
                               QDir::Files | QDir::Hidden | QDir::System);
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

} // namespace

class TestDurability : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY2(QFileInfo(QStringLiteral(MURMORA_SAVE_LOOP)).isExecutable(), MURMORA_SAVE_LOOP);
        const QByteArray seed = qgetenv("MURMORA_DURABILITY_SEED");
        m_seed = seed.isEmpty() ? QRandomGenerator::system()->generate() : seed.toUInt();
        qInfo("seed %u (MURMORA_DURABILITY_SEED repeats a run)", m_seed);
    }

    // Every file a killed writer leaves behind is the last version it reported, or the
    // one it was reporting (renamed, not yet printed): whole, never older, never torn.
    void killedWriter_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::newRow("items") << QStringLiteral("items");
        QTest::newRow("settings") << QStringLiteral("settings");
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
        int torn = 0, wrongVersion = 0, renamedUnreported = 0, left = 0, maxDelay = 0;
        QString firstFault;
        for (int kill = 0; kill < kills && torn == 0; ++kill) {
            QProcess writer;
            writer.start(QStringLiteral(MURMORA_SAVE_LOOP), {kind, dir.path()});
            QByteArray out;
            while (!out.contains('\n') && writer.waitForReadyRead(10000))
                out += writer.readAllStandardOutput();
            QVERIFY2(out.startsWith("running " + QByteArray::number(onDisk) + '\n'), out.constData());

            // A save takes a few milliseconds: a kill within the next dozen lands anywhere
            // in one (the wait has millisecond steps; the scheduler adds the rest).
            const int delay = int(random.bounded(12000)); // microseconds
            maxDelay = qMax(maxDelay, delay);
            const QDeadlineTimer deadline(std::chrono::microseconds(delay), Qt::PreciseTimer);
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
            if (found.version < 0) {
                ++torn;
                firstFault = found.fault;
                continue;
            }
            wrongVersion += found.version < reported || found.version > reported + 1;
            renamedUnreported += found.version == reported + 1;
            left = int(temporaries(kind, dir.path()).size());
            onDisk = found.version;
        }
        QCOMPARE(firstFault, QString());
        QCOMPARE(torn, 0);
        QCOMPARE(wrongVersion, 0);

        // One clean save after the last kill.
        QProcess writer;
        writer.start(QStringLiteral(MURMORA_SAVE_LOOP), {kind, dir.path(), QStringLiteral("1")});
        QVERIFY(writer.waitForFinished(10000));
        QCOMPARE(writer.exitCode(), 0);
        QCOMPARE(readVersion(kind, dir.path()).version, onDisk + 1);
        const QStringList stale = temporaries(kind, dir.path());
        qInfo("%s: %d kills in %lld ms (delays up to %d us), %lld versions, %d torn, %d of a wrong version, %d renamed "
              "but not reported, %d temporaries left after the kills, %lld after a clean save",
              qPrintable(kind), kills, clock.elapsed(), maxDelay, onDisk + 1, torn, wrongVersion, renamedUnreported,
              left, qsizetype(stale.size()));
        // Leftovers of killed writers go with the next save.
        QCOMPARE(stale, QStringList());
    }

    // One save, as the kernel sees it: temporary in the same directory, its data, its
    // fsync, the rename over the archive, then the directory's fsync.
    void systemCallsOfOneSave_data() { killedWriter_data(); }
    void systemCallsOfOneSave()
    {
        QFETCH(QString, kind);
        const QString strace = QStandardPaths::findExecutable(QStringLiteral("strace"));
        if (strace.isEmpty())
            QSKIP("strace is not installed");
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QString log = dir.filePath(QStringLiteral("strace.log"));
        const QString docs = dir.filePath(QStringLiteral("docs"));
        QVERIFY(QDir().mkpath(docs));
        QProcess traced;
        // LeakSanitizer cannot run under ptrace and would fail the traced helper.
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("ASAN_OPTIONS"),
                   env.value(QStringLiteral("ASAN_OPTIONS")) + QStringLiteral(":detect_leaks=0"));
        traced.setProcessEnvironment(env);
        traced.start(strace, {QStringLiteral("-f"), QStringLiteral("-o"), log, QStringLiteral("-e"),
                              QStringLiteral("trace=openat,write,fsync,fdatasync,rename,renameat,renameat2"),
                              QStringLiteral(MURMORA_SAVE_LOOP), kind, docs, QStringLiteral("1")});
        QVERIFY(traced.waitForFinished(30000));
        if (traced.exitCode() != 0 && contents(log).isEmpty())
            QSKIP(qPrintable(QStringLiteral("strace cannot trace here: ") + traced.readAllStandardError()));
        QCOMPARE(traced.exitCode(), 0);

        // Calls split by another thread ("<unfinished ...>" and "<... resumed>") are joined.
        QStringList calls;
        QHash<QString, QString> unfinished;
        static const QRegularExpression split(QStringLiteral("^(\\d+) +(?:<\\.\\.\\. \\w+ resumed>)?(.*)$"));
        for (const QString &line : QString::fromUtf8(contents(log)).split(QLatin1Char('\n'))) {
            const auto m = split.match(line);
            if (!m.hasMatch())
                continue;
            if (line.endsWith(QLatin1String("<unfinished ...>")))
                unfinished[m.captured(1)] = m.captured(2).chopped(16);
            else
                calls.append(unfinished.take(m.captured(1)) + m.captured(2));
        }

        const QString target = docs + QLatin1Char('/') + fileName(kind);
        const QString tempPrefix = docs + QStringLiteral("/.") + fileName(kind) + QLatin1Char('.');
        static const QRegularExpression call(QStringLiteral("^(\\w+)\\((.*)\\) += (-?\\d+)"));
        QStringList steps;
        QString temp, tempFd, dirFd;
        for (const QString &line : std::as_const(calls)) {
            const auto m = call.match(line);
            if (!m.hasMatch())
                continue;
            const QString name = m.captured(1), args = m.captured(2), result = m.captured(3);
            const auto arg = [&](int i) { return args.section(QStringLiteral(", "), i, i).remove(QLatin1Char('"')); };
            if (name == QLatin1String("openat") && arg(1).startsWith(tempPrefix) && args.contains("O_CREAT")) {
                temp = arg(1), tempFd = result, steps.append(QStringLiteral("create temporary"));
            } else if (name == QLatin1String("write") && !tempFd.isEmpty() && arg(0) == tempFd) {
                if (steps.last() != QLatin1String("write"))
                    steps.append(QStringLiteral("write"));
            } else if ((name == QLatin1String("fsync") || name == QLatin1String("fdatasync")) && !tempFd.isEmpty() &&
                       arg(0) == tempFd) {
                steps.append(QStringLiteral("sync temporary")), tempFd.clear();
            } else if (name.startsWith(QLatin1String("rename")) && args.contains(temp) && args.contains(target)) {
                steps.append(QStringLiteral("rename")), temp = QStringLiteral("\x01");
            } else if (name == QLatin1String("openat") && arg(1) == docs && args.contains("O_DIRECTORY")) {
                dirFd = result;
            } else if (name == QLatin1String("fsync") && !dirFd.isEmpty() && arg(0) == dirFd) {
                steps.append(QStringLiteral("sync directory")), dirFd.clear();
            }
            if (steps.size() == 5)
                break;
        }
        QCOMPARE(steps, QStringList({QStringLiteral("create temporary"), QStringLiteral("write"),
                                     QStringLiteral("sync temporary"), QStringLiteral("rename"),
                                     QStringLiteral("sync directory")}));
    }

    // A save that cannot be written reports it, keeps the old file whole and leaves no
    // temporary; the list (or the settings) in memory is kept and saved once it can be.
    void diskFault_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<bool>("full");
        QTest::newRow("items, disk full") << QStringLiteral("items") << true;
        QTest::newRow("items, read-only") << QStringLiteral("items") << false;
        QTest::newRow("settings, disk full") << QStringLiteral("settings") << true;
        QTest::newRow("settings, read-only") << QStringLiteral("settings") << false;
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
        QKFeedback *feedback = QKFeedback::sharedInstance();
        const auto itemTexts = [&] {
            QStringList texts;
            for (const QVariant &v : QKKeyedUnarchiver::unarchiveObjectWithFile(path).toList())
                texts.append(v.value<QKCodingPtr>().dynamicCast<QKFeedbackItem>()->text());
            return texts;
        };
        const auto item = [](const QString &text) {
            auto made = QKFeedbackItem::create();
            made->setKey(text);
            made->setText(text);
            return made;
        };

        // Declared after the mount: it saves once more when destroyed, before the unmount.
        std::unique_ptr<QKLocalFeedbackSource> source;
        if (items) {
            source = std::make_unique<QKLocalFeedbackSource>();
            source->addFeedbackItems({item(QStringLiteral("a")), item(QStringLiteral("b"))}, [](auto) {});
        } else {
            feedback->settings()[QStringLiteral("Name")] = QStringLiteral("before");
            QVERIFY(feedback->saveSettings());
        }
        const QByteArray before = contents(path);
        QVERIFY(!before.isEmpty());

        const QString fillerPath = dir.filePath(QStringLiteral("filler"));
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

        if (items) {
            std::optional<QKError> error{QKError{}};
            source->addFeedback(item(QStringLiteral("c")), [&](std::optional<QKError> e) { error = e; });
            QVERIFY(!error);
            QCOMPARE(source->items().size(), 3);
            QVERIFY(!source->save());
            QCOMPARE(itemTexts(), QStringList({QStringLiteral("a"), QStringLiteral("b")}));
        } else {
            feedback->settings()[QStringLiteral("Name")] = QStringLiteral("after");
            QVERIFY(!feedback->saveSettings());
            QCOMPARE(feedback->settings().value(QStringLiteral("Name")).toString(), QStringLiteral("after"));
        }
        QCOMPARE(contents(path), before);
        QCOMPARE(temporaries(kind, dir.path()), QStringList());

        if (full)
            QVERIFY(QFile::remove(fillerPath));
        else
            QVERIFY2(mount.setReadOnly(false), std::strerror(errno));
        if (items) {
            QVERIFY(source->save());
            QCOMPARE(itemTexts(), QStringList({QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("c")}));
        } else {
            QVERIFY(feedback->saveSettings());
            feedback->loadSettings();
            QCOMPARE(feedback->settings().value(QStringLiteral("Name")).toString(), QStringLiteral("after"));
        }
        QCOMPARE(temporaries(kind, dir.path()), QStringList());
        source.reset();
    }

    // A large file's old version is let go after the rename, apart from the save: the
    // new content is in place at once, and no second name outlives the release.
    void largeFileReplaced()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("large.bin"));
        const QByteArray first(20 << 20, 'a'), second(17 << 20, 'b');
        QVERIFY(QKAtomicFile::write(path, first));
        QFile held(path);
        QVERIFY(held.open(QIODevice::ReadOnly)); // a reader of the old version keeps it
        QVERIFY(QKAtomicFile::write(path, {second.left(1 << 20), second.mid(1 << 20)}));
        QCOMPARE(contents(path), second);
        QCOMPARE(held.read(4), QByteArray("aaaa"));
        const auto leftovers = [&] {
            return QDir(dir.path()).entryList({QStringLiteral(".large.bin.*")}, QDir::Files | QDir::Hidden);
        };
        QTRY_COMPARE(leftovers(), QStringList());
        QVERIFY(QKAtomicFile::write(path, first));
        QCOMPARE(contents(path), first);
        QTRY_COMPARE(leftovers(), QStringList());
    }

private:
    quint32 m_seed = 0;
};

QTEST_MAIN(TestDurability)
#include "tst_qkdurability.moc"
