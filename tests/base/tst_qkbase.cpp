#include "base/QKAtomicFile.h"
#include "base/QKBase64.h"
#include "base/QKDispatch.h"
#include "base/QKDocumentsDirectory.h"
#include "base/QKPNGCodec.h"

#include <QDir>
#include <QTemporaryDir>
#include <QThread>
#include <QtEndian>
#include <QtTest>

#include <atomic>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {
const QByteArray PNGSignature("\x89PNG\r\n\x1a\n", 8);

QByteArray sampleBytes(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = char((i * 131 + 7) ^ (i >> 3));
    return bytes;
}

QImage sampleImage(QSize size, QImage::Format format)
{
    QImage image(size, format);
    for (int y = 0; y < size.height(); ++y)
        for (int x = 0; x < size.width(); ++x)
            image.setPixel(x, y, qRgba(x * 19 % 256, y * 37 % 256, (x + y) * 11 % 256, (x * y * 7) % 255 + 1));
    return image;
}

QByteArray bigEndian(quint32 value)
{
    QByteArray bytes(4, '\0');
    qToBigEndian(value, bytes.data());
    return bytes;
}

// A PNG chunk: length, type, data and the CRC-32 of type and data.
QByteArray pngChunk(const char *type, const QByteArray &data)
{
    const QByteArray body = QByteArray(type) + data;
    quint32 crc = 0xFFFFFFFFu;
    for (const char byte : body) {
        crc ^= quint8(byte);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return bigEndian(quint32(data.size())) + body + bigEndian(~crc);
}

// An 8-bit RGBA PNG declaring `width` x `height` whose pixel data is one opaque red pixel.
QByteArray handMadePNG(quint32 width, quint32 height)
{
    const QByteArray header = bigEndian(width) + bigEndian(height) + QByteArray("\x08\x06\x00\x00\x00", 5);
    return PNGSignature + pngChunk("IHDR", header) +
           pngChunk("IDAT", qCompress(QByteArray("\x00\xff\x00\x00\xff", 5)).mid(4)) + pngChunk("IEND", {});
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

    void pngRoundTrip_data()
    {
        QTest::addColumn<QImage::Format>("format");
        QTest::addColumn<QSize>("size");
        QTest::addColumn<qreal>("ratio");
        QTest::newRow("ARGB32 with alpha") << QImage::Format_ARGB32 << QSize(40, 30) << 1.0;
        QTest::newRow("RGB32 opaque") << QImage::Format_RGB32 << QSize(32, 32) << 1.0;
        QTest::newRow("1x1") << QImage::Format_ARGB32 << QSize(1, 1) << 1.0;
        QTest::newRow("13x7, ratio 3") << QImage::Format_ARGB32 << QSize(13, 7) << 3.0;
        QTest::newRow("1x5000 opaque") << QImage::Format_RGB32 << QSize(1, 5000) << 1.0;
        QTest::newRow("4097x3 with alpha") << QImage::Format_ARGB32 << QSize(4097, 3) << 1.0;
    }
    void pngRoundTrip()
    {
        QFETCH(QImage::Format, format);
        QFETCH(QSize, size);
        QFETCH(qreal, ratio);
        QImage image = sampleImage(size, format);
        image.setDevicePixelRatio(ratio);
        const QByteArray png = QKPNGCodec::encode(image);
        QVERIFY(png.startsWith(PNGSignature));
        const QImage decoded = QKPNGCodec::decode(png);
        QCOMPARE(decoded.size(), size);
        QCOMPARE(decoded.devicePixelRatio(), 1.0);
        image.setDevicePixelRatio(1.0);
        QCOMPARE(decoded.convertToFormat(QImage::Format_ARGB32), image.convertToFormat(QImage::Format_ARGB32));
        QVERIFY(QKPNGCodec::encode(QImage()).isNull());
    }

    void pngDecode_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QSize>("size"); // invalid: a null image
        QTest::addColumn<QString>("warning");
        const QByteArray png = QKPNGCodec::encode(sampleImage(QSize(64, 64), QImage::Format_RGB32));
        QTest::newRow("empty") << QByteArray() << QSize() << QString();
        QTest::newRow("garbage") << sampleBytes(500) << QSize() << QString();
        QTest::newRow("truncated") << png.left(png.size() / 2) << QSize() << QString();
        QTest::newRow("hand-made 1x1") << handMadePNG(1, 1) << QSize(1, 1) << QString();
        // Refused from the header, before the pixels' memory is taken.
        QTest::newRow("declares 100000x100000") << handMadePNG(100000, 100000) << QSize() << "allocation limit";
    }
    void pngDecode()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QSize, size);
        QFETCH(QString, warning);
        if (!warning.isEmpty())
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(warning));
        const QImage image = QKPNGCodec::decode(bytes);
        QCOMPARE(image.size(), size.isValid() ? size : QSize(0, 0));
        if (size.isValid())
            QCOMPARE(image.pixel(0, 0), qRgba(255, 0, 0, 255));
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
