#include "base/QKAtomicFile.h"
#include "base/QKBase64.h"
#include "base/QKDispatch.h"
#include "base/QKDocumentsDirectory.h"

#include <QDir>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <atomic>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {
QByteArray sampleBytes(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = char((i * 131 + 7) ^ (i >> 3));
    return bytes;
}

QStringList entries(const QString &path)
{
    return QDir(path).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
}

QByteArray contents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
} // namespace

class TestQKBase : public QObject
{
    Q_OBJECT

private slots:
    void base64LineBreaks_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<int>("lines");
        QTest::newRow("0 bytes") << 0 << 0;
        QTest::newRow("47 bytes") << 47 << 1;
        QTest::newRow("48 bytes, one full line") << 48 << 1;
        QTest::newRow("49 bytes") << 49 << 2;
        QTest::newRow("96 bytes, two full lines") << 96 << 2;
        QTest::newRow("1000 bytes") << 1000 << 21;
    }
    void base64LineBreaks()
    {
        QFETCH(int, size);
        QFETCH(int, lines);
        const QByteArray data = sampleBytes(size);
        const QString text = QKBase64::encodeWithLineBreaks(data);
        const QStringList split = text.split(QStringLiteral("\r\n"), Qt::SkipEmptyParts);
        QCOMPARE(split.size(), lines);
        QCOMPARE(text.size(), data.toBase64().size() + 2 * qMax(0, lines - 1)); // no break at either end
        for (qsizetype i = 0; i + 1 < split.size(); ++i)
            QCOMPARE(split[i].size(), 64);
        QCOMPARE(split.join(QString()).toLatin1(), data.toBase64());
        QCOMPARE(QKBase64::decodeIgnoringUnknownCharacters(text), data);
    }

    void base64NullAndEmpty()
    {
        QVERIFY(QKBase64::encodeWithLineBreaks(QByteArray()).isNull());
        const QString empty = QKBase64::encodeWithLineBreaks(QByteArray(""));
        QVERIFY(empty.isEmpty() && !empty.isNull());
        QVERIFY(QKBase64::decodeIgnoringUnknownCharacters(QString()).isNull());
    }

    void base64Decode_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QByteArray>("bytes"); // null: rejected
        const QByteArray hello("Hello, world!");
        QTest::newRow("CR LF") << QStringLiteral("SGVs\r\nbG8s\r\nIHdv\r\ncmxk\r\nIQ==") << hello;
        QTest::newRow("spaces and stars") << QStringLiteral(" *SGVsbG8s* IHdvcmxkIQ = = ") << hello;
        // U+0141 and U+4E2B have a Base64 letter ('A', '+') as their low byte.
        QTest::newRow("non-ASCII") << QStringLiteral("SGVsbG8s\u00e9IHdv\u0141cmxk\u4e2bIQ==\u00a0") << hello;
        QTest::newRow("letters after padding") << QStringLiteral("SGVsbG8=\r\nSGVsbG8=") << QByteArray();
        QTest::newRow("padding in the middle") << QStringLiteral("SG==bG8=") << QByteArray();
        QTest::newRow("three '='") << QStringLiteral("SGVsb===") << QByteArray();
        QTest::newRow("length 7") << QStringLiteral("SGVsbG8") << QByteArray();
        QTest::newRow("length 9 with padding") << QStringLiteral("SGVsbG8==") << QByteArray();
    }
    void base64Decode()
    {
        QFETCH(QString, text);
        QFETCH(QByteArray, bytes);
        const QByteArray decoded = QKBase64::decodeIgnoringUnknownCharacters(text);
        QCOMPARE(decoded.isNull(), bytes.isNull());
        QCOMPARE(decoded, bytes);
    }

    void atomicWrite_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<int>("size");
        QTest::newRow("0640") << 0640 << 100;
        QTest::newRow("0755, 3 MB") << 0755 << (3 << 20);
    }
    void atomicWrite()
    {
        QFETCH(int, mode);
        QFETCH(int, size);
        QTemporaryDir dir;
        const QString directory = dir.filePath(QStringLiteral("a/b")), path = directory + QStringLiteral("/f.bin");
        QVERIFY(QKAtomicFile::write(path, "first"));
        QCOMPARE(contents(path), QByteArray("first"));
        QCOMPARE(::chmod(QFile::encodeName(path).constData(), mode_t(mode)), 0);
        const QByteArray data = sampleBytes(size);
        QString error;
        QVERIFY2(QKAtomicFile::write(path, data, &error), qPrintable(error));
        QCOMPARE(contents(path), data);
        struct stat info;
        QCOMPARE(::stat(QFile::encodeName(path).constData(), &info), 0);
        QCOMPARE(int(info.st_mode & 07777), mode);
        QCOMPARE(entries(directory), QStringList{QStringLiteral("f.bin")});
    }

    void atomicWriteFailure_data()
    {
        QTest::addColumn<bool>("readOnlyDirectory");
        QTest::newRow("parent is a regular file") << false;
        QTest::newRow("read-only directory") << true;
    }
    void atomicWriteFailure()
    {
        QFETCH(bool, readOnlyDirectory);
        QTemporaryDir dir;
        const QString old = dir.filePath(QStringLiteral("old.bin"));
        QVERIFY(QKAtomicFile::write(old, "old content"));
        QString target = old + QStringLiteral("/new.bin");
        const QByteArray dirPath = QFile::encodeName(dir.path());
        if (readOnlyDirectory) {
            if (::geteuid() == 0)
                QSKIP("root may write into a read-only directory");
            target = old;
            QCOMPARE(::chmod(dirPath.constData(), 0555), 0);
        }
        QString error;
        const bool written = QKAtomicFile::write(target, "new content", &error);
        ::chmod(dirPath.constData(), 0700);
        QVERIFY(!written);
        QVERIFY(!error.isEmpty());
        QCOMPARE(contents(old), QByteArray("old content"));
        QCOMPARE(entries(dir.path()), QStringList{QStringLiteral("old.bin")});
    }

    void dispatchMainQueueFromGlobalThread()
    {
        struct State
        {
            std::atomic<QThread *> globalThread{nullptr}, mainThread{nullptr};
            std::atomic<bool> globalOnMain{true}, onMain{false};
        };
        auto state = std::make_shared<State>();
        QKDispatch::async(QKDispatch::globalQueue(), [state] {
            state->globalOnMain = QKDispatch::isMainThread();
            state->globalThread = QThread::currentThread();
            QKDispatch::async(QKDispatch::mainQueue(), [state] {
                state->onMain = QKDispatch::isMainThread();
                state->mainThread = QThread::currentThread();
            });
        });
        QTRY_VERIFY(state->mainThread.load());
        QVERIFY(state->onMain);
        QCOMPARE(state->mainThread.load(), qApp->thread());
        QVERIFY(!state->globalOnMain);
        QVERIFY(state->globalThread.load() != qApp->thread());
    }

    void dispatchMainQueueOrder()
    {
        QVERIFY(QKDispatch::isMainThread());
        auto order = std::make_shared<QList<int>>();
        for (int i = 0; i < 100; ++i)
            QKDispatch::async(QKDispatch::mainQueue(), [order, i] { order->append(i); });
        QVERIFY(order->isEmpty()); // queued, not run in place
        QTRY_COMPARE(order->size(), 100);
        for (int i = 0; i < 100; ++i)
            QCOMPARE(order->at(i), i);
    }

    void documentsDirectory()
    {
        const QString original = QKDocumentsDirectory();
        QVERIFY(!original.isEmpty());
        QTemporaryDir dir;
        QKSetDocumentsDirectory(dir.path());
        QCOMPARE(QKDocumentsDirectory(), dir.path());
        QKSetDocumentsDirectory(QStringLiteral(""));
        QCOMPARE(QKDocumentsDirectory(), original);
    }
};

QTEST_MAIN(TestQKBase)
#include "tst_qkbase.moc"
