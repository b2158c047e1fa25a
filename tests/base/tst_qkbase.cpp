// The base layer: Base64 with line breaks, atomic writes, the dispatch queues, the
// documents directory and the PNG codec (checked against libpng and libdeflate).

#include "base/QKAtomicFile.h"
#include "base/QKBase64.h"
#include "base/QKDispatch.h"
#include "base/QKDocumentsDirectory.h"
#include "base/QKPNGCodec.h"
#include "base/QKPNGCodec_p.h"

#include <QDir>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QThread>
#include <QtEndian>
#include <QtTest>

#include <atomic>
#include <libdeflate.h>
#include <memory>
#include <png.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {
QByteArray sampleBytes(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = char((quint32(i) * 131u + 7) ^ (quint32(i) >> 3));
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

QImage randomImage(QSize size, QImage::Format format, quint32 seed)
{
    QRandomGenerator random(seed);
    QImage image(size, QImage::Format_ARGB32);
    for (int y = 0; y < size.height(); ++y) {
        auto *row = reinterpret_cast<QRgb *>(image.scanLine(y));
        for (int x = 0; x < size.width(); ++x)
            row[x] = random.generate();
    }
    return image.convertToFormat(format);
}

// Pixels as a decoder hands them back: 8-bit, unpremultiplied, no ratio.
QImage expected(const QImage &image)
{
    QImage plain = image.convertToFormat(QImage::Format_ARGB32);
    plain.setDevicePixelRatio(1.0);
    return plain;
}

// Decodes with libpng's own simplified reader, independent of Qt's image plugins.
QImage libpngDecode(const QByteArray &png)
{
    png_image reader{};
    reader.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_memory(&reader, png.constData(), size_t(png.size())))
        return QImage();
    reader.format = PNG_FORMAT_BGRA; // QImage::Format_ARGB32's bytes on little-endian machines
    QImage image(int(reader.width), int(reader.height), QImage::Format_ARGB32);
    if (!png_image_finish_read(&reader, nullptr, image.bits(), int(image.bytesPerLine()), nullptr))
        return QImage();
    return image;
}

// The zlib stream of every IDAT joined, checked for its Adler-32 by libdeflate.
bool zlibStreamIsSound(const QByteArray &png, qsizetype rawSize)
{
    QByteArray stream;
    for (qsizetype at = 8; at + 12 <= png.size();) {
        const quint32 length = qFromBigEndian<quint32>(png.constData() + at);
        if (png.mid(at + 4, 4) == "IDAT")
            stream += png.mid(at + 8, length);
        at += 12 + length;
    }
    QByteArray raw(rawSize, Qt::Uninitialized);
    libdeflate_decompressor *decompressor = libdeflate_alloc_decompressor();
    size_t actual = 0;
    const auto result = libdeflate_zlib_decompress(decompressor, stream.constData(), size_t(stream.size()), raw.data(),
                                                   size_t(raw.size()), &actual);
    libdeflate_free_decompressor(decompressor);
    return result == LIBDEFLATE_SUCCESS && actual == size_t(rawSize);
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
        const QStringList split = text.split("\r\n", Qt::SkipEmptyParts);
        QCOMPARE(split.size(), lines);
        QCOMPARE(text.size(), data.toBase64().size() + 2 * qMax(0, lines - 1)); // no break at either end
        for (qsizetype i = 0; i + 1 < split.size(); ++i)
            QCOMPARE(split[i].size(), 64);
        QCOMPARE(split.join(QString()).toLatin1(), data.toBase64());
        QCOMPARE(QKBase64::decodeIgnoringUnknownCharacters(text), data);
        if (size == 0) { // null stays null, empty stays empty
            QVERIFY(!text.isNull());
            QVERIFY(QKBase64::encodeWithLineBreaks(QByteArray()).isNull());
        }
    }

    void base64Decode_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QByteArray>("bytes"); // null: rejected, or nothing to decode
        const QByteArray hello("Hello, world!");
        QTest::newRow("null") << QString() << QByteArray();
        QTest::newRow("CR LF") << "SGVs\r\nbG8s\r\nIHdv\r\ncmxk\r\nIQ==" << hello;
        QTest::newRow("spaces and stars") << " *SGVsbG8s* IHdvcmxkIQ = = " << hello;
        // U+0141 and U+4E2B have a Base64 letter ('A', '+') as their low byte.
        QTest::newRow("non-ASCII") << "SGVsbG8s\u00e9IHdv\u0141cmxk\u4e2bIQ==\u00a0" << hello;
        QTest::newRow("letters after padding") << "SGVsbG8=\r\nSGVsbG8=" << QByteArray();
        QTest::newRow("padding in the middle") << "SG==bG8=" << QByteArray();
        QTest::newRow("three '='") << "SGVsb===" << QByteArray();
        QTest::newRow("length 7") << "SGVsbG8" << QByteArray();
        QTest::newRow("length 9 with padding") << "SGVsbG8==" << QByteArray();
    }
    void base64Decode()
    {
        QFETCH(QString, text);
        QFETCH(QByteArray, bytes);
        const QByteArray decoded = QKBase64::decodeIgnoringUnknownCharacters(text);
        QCOMPARE(decoded.isNull(), bytes.isNull());
        QCOMPARE(decoded, bytes);
    }

    // A replaced file keeps its mode. A reader keeps the old version, which is let go
    // apart from the save: the new content is in place at once, no second name outlives it.
    void atomicWrite_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<int>("size");
        QTest::newRow("0640, 100 bytes") << 0640 << 100;
        QTest::newRow("0755, 17 MiB") << 0755 << (17 << 20);
    }
    void atomicWrite()
    {
        QFETCH(int, mode);
        QFETCH(int, size);
        QTemporaryDir dir;
        const QString directory = dir.filePath("a/b"), path = directory + "/f.bin";
        const QByteArray first(20 << 20, 'a');
        QVERIFY(QKAtomicFile::write(path, first));
        QCOMPARE(contents(path), first);
        QCOMPARE(::chmod(QFile::encodeName(path).constData(), mode_t(mode)), 0);
        QFile held(path);
        QVERIFY(held.open(QIODevice::ReadOnly));
        const QByteArray data = sampleBytes(size);
        QString error;
        QVERIFY2(QKAtomicFile::write(path, {data.left(size / 3), data.mid(size / 3)}, &error), qPrintable(error));
        QCOMPARE(contents(path), data);
        QCOMPARE(held.read(4), QByteArray("aaaa"));
        struct stat info;
        QCOMPARE(::stat(QFile::encodeName(path).constData(), &info), 0);
        QCOMPARE(int(info.st_mode & 07777), mode);
        QTRY_COMPARE(entries(directory), QStringList{"f.bin"});
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
        const QString old = dir.filePath("old.bin");
        QVERIFY(QKAtomicFile::write(old, "old content"));
        QString target = old + "/new.bin";
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
        QCOMPARE(entries(dir.path()), QStringList{"old.bin"});
    }

    // A global block runs off the main thread; what it sends to the main queue runs there,
    // queued rather than in place, in the order sent.
    void dispatch()
    {
        auto order = std::make_shared<QList<int>>();
        std::atomic<bool> globalOnMain{true};
        std::atomic<QThread *> global{nullptr};
        QKDispatch::async(QKDispatch::globalQueue(), [&, order] {
            globalOnMain = QKDispatch::isMainThread();
            global = QThread::currentThread();
            QKDispatch::async(QKDispatch::mainQueue(), [order] {
                if (QKDispatch::isMainThread() && QThread::currentThread() == qApp->thread())
                    order->append(-1);
            });
        });
        QTRY_COMPARE(*order, QList<int>{-1});
        QVERIFY(!globalOnMain && global.load() != qApp->thread());
        for (int i = 0; i < 100; ++i)
            QKDispatch::async(QKDispatch::mainQueue(), [order, i] { order->append(i); });
        QCOMPARE(order->size(), 1);
        QTRY_COMPARE(order->size(), 101);
        for (int i = 0; i < 100; ++i)
            QCOMPARE(order->at(i + 1), i);
    }

    // A hand-over runs its block on the context's thread, later, and never once the
    // context is gone, whether it went before the call or while the block waited.
    void deliverTo()
    {
        QThread worker;
        worker.start();
        auto onWorker = std::make_unique<QObject>();
        onWorker->moveToThread(&worker);
        std::atomic<QThread *> ranOn{nullptr};
        QKDispatch::deliverTo(onWorker.get())([&] { ranOn = QThread::currentThread(); });
        QTRY_COMPARE(ranOn.load(), &worker);

        int runs = 0;
        auto context = std::make_unique<QObject>();
        auto deliver = QKDispatch::deliverTo(context.get());
        deliver([&] { ++runs; });
        QCOMPARE(runs, 0);
        QTRY_COMPARE(runs, 1);

        deliver = QKDispatch::deliverTo(context.get());
        deliver([&] { ++runs; });
        context.reset();
        deliver = QKDispatch::deliverTo(onWorker.get());
        onWorker.release()->deleteLater();
        worker.quit(); // a finishing thread deletes what waits for it
        worker.wait();
        deliver([&] { ++runs; });
        QTest::qWait(50);
        QCOMPARE(runs, 1);
    }

    void documentsDirectory()
    {
        const QString original = QKDocumentsDirectory();
        QVERIFY(!original.isEmpty());
        QTemporaryDir dir;
        QKSetDocumentsDirectory(dir.path());
        QCOMPARE(QKDocumentsDirectory(), dir.path());
        QKSetDocumentsDirectory("");
        QCOMPARE(QKDocumentsDirectory(), original);
    }
    void roundTrip_data()
    {
        QTest::addColumn<QImage::Format>("format");
        QTest::addColumn<QSize>("size");
        QTest::addColumn<qreal>("ratio");
        QTest::addColumn<int>("channels"); // 3: written as RGB, 4: RGBA
        QTest::newRow("1x1 alpha") << QImage::Format_ARGB32 << QSize(1, 1) << 1.0 << 4;
        QTest::newRow("1x5000 opaque") << QImage::Format_RGB32 << QSize(1, 5000) << 1.0 << 3;
        QTest::newRow("4097x3 alpha") << QImage::Format_ARGB32 << QSize(4097, 3) << 1.0 << 4;
        QTest::newRow("4097x3 opaque") << QImage::Format_RGB32 << QSize(4097, 3) << 1.0 << 3;
        QTest::newRow("premultiplied, ratio 3") << QImage::Format_ARGB32_Premultiplied << QSize(333, 171) << 3.0 << 4;
        QTest::newRow("many bands, ratio 2") << QImage::Format_RGB32 << QSize(701, 613) << 2.0 << 3;
        QTest::newRow("RGB888") << QImage::Format_RGB888 << QSize(99, 101) << 1.0 << 3;
        QTest::newRow("Grayscale8") << QImage::Format_Grayscale8 << QSize(64, 65) << 1.0 << 3;
        QTest::newRow("RGBA8888") << QImage::Format_RGBA8888 << QSize(50, 70) << 1.0 << 4;
        // Rows that repeat in runs, so that both filters get chosen.
        QTest::newRow("repeating rows") << QImage::Format_RGB32 << QSize(203, 300) << 1.0 << 3;
        QTest::newRow("repeating rows, alpha") << QImage::Format_ARGB32 << QSize(203, 300) << 1.0 << 4;
    }
    void roundTrip()
    {
        QFETCH(QImage::Format, format);
        QFETCH(QSize, size);
        QFETCH(qreal, ratio);
        QFETCH(int, channels);
        QImage image = randomImage(size, format, quint32(size.width() * 7919 + size.height()));
        if (QByteArray(QTest::currentDataTag()).startsWith("repeating")) {
            for (int y = 1; y < size.height(); ++y)
                if (y % 7 != 0)
                    std::memcpy(image.scanLine(y), image.constScanLine(y - 1), size_t(image.bytesPerLine()));
        }
        image.setDevicePixelRatio(ratio);
        const QByteArray png = QKPNGCodec::encode(image);
        // The vector paths and the portable byte loops make the same choices.
        QKPNGCodecUsePortablePaths(true);
        const QByteArray portable = QKPNGCodec::encode(image);
        QKPNGCodecUsePortablePaths(false);
        QCOMPARE(portable, png);
        QVERIFY(png.startsWith("\x89PNG\r\n\x1a\n"));
        QCOMPARE(int(png.at(8 + 8 + 9)), channels == 3 ? 2 : 6); // IHDR colour type
        QVERIFY(zlibStreamIsSound(png, qsizetype(size.height()) * (size.width() * channels + 1)));

        const QImage decoded = QKPNGCodec::decode(png);
        QCOMPARE(decoded.size(), size);
        QCOMPARE(decoded.devicePixelRatio(), 1.0);
        QCOMPARE(decoded.convertToFormat(QImage::Format_ARGB32), expected(image));
        QCOMPARE(libpngDecode(png), expected(image));
    }

    void patchedBands_data()
    {
        QTest::addColumn<QRect>("patch"); // where the patch goes, in pixels
        QTest::newRow("inside one band") << QRect(10, 5, 3, 3);
        QTest::newRow("across bands") << QRect(100, 30, 90, 90);
        QTest::newRow("clipped at the bottom right") << QRect(380, 560, 90, 90);
        QTest::newRow("clipped at the top left") << QRect(-40, -40, 90, 90);
        QTest::newRow("outside") << QRect(1000, 1000, 5, 5);
        QTest::newRow("whole picture") << QRect(0, 0, 393, 600);
    }
    void patchedBands()
    {
        QFETCH(QRect, patch);
        QImage screenshot = randomImage(QSize(393, 600), QImage::Format_RGB32, 11);
        screenshot.setDevicePixelRatio(3.0);
        const QKPNGBands bands(screenshot);
        QCOMPARE(libpngDecode(bands.encode()), expected(screenshot));

        const QImage marker = randomImage(patch.size(), QImage::Format_ARGB32_Premultiplied, 12)
                                  .convertToFormat(QImage::Format_RGB32)
                                  .convertToFormat(QImage::Format_ARGB32_Premultiplied);
        QImage composed = screenshot.copy();
        for (int y = 0; y < composed.height(); ++y)
            for (int x = 0; x < composed.width(); ++x)
                if (patch.contains(x, y))
                    composed.setPixel(x, y, marker.pixel(x - patch.x(), y - patch.y()));
        const QImage built = bands.imageWithPatch(marker, patch.topLeft());
        QCOMPARE(built.devicePixelRatio(), 3.0);
        QCOMPARE(expected(built), expected(composed));
        QCOMPARE(libpngDecode(bands.encodeWithPatch(marker, patch.topLeft())), expected(composed));
    }

    void bandsNeverMixPictures()
    {
        // Variants that differ from the base, and from each other, by one pixel in
        // every band: each must decode to its own pixels, in any order, from any thread.
        const QImage base = randomImage(QSize(257, 999), QImage::Format_RGB32, 21);
        const QKPNGBands bands(base);
        QList<QPair<QImage, QPoint>> variants;
        for (int i = 0; i < 6; ++i) {
            QImage dot(1, 1, QImage::Format_RGB32);
            dot.setPixel(0, 0, qRgb(i * 40, 255 - i * 40, i));
            variants.append({dot, QPoint((i * 37) % base.width(), (i * 173 + 50) % base.height())});
        }
        // std::thread, whose joins ThreadSanitizer sees (Qt's are not instrumented).
        std::vector<QByteArray> encoded(size_t(variants.size()));
        std::vector<std::thread> threads;
        for (qsizetype i = 0; i < variants.size(); ++i)
            threads.emplace_back(
                [&, i] { encoded[size_t(i)] = bands.encodeWithPatch(variants.at(i).first, variants.at(i).second); });
        for (std::thread &thread : threads)
            thread.join();
        for (qsizetype i = 0; i < variants.size(); ++i) {
            QImage want = base;
            want.setPixel(variants[i].second, variants[i].first.pixel(0, 0));
            QCOMPARE(libpngDecode(encoded[size_t(i)]), expected(want));
        }
        QCOMPARE(libpngDecode(bands.encode()), expected(base));

        // Changing the caller's image later detaches it: the bands keep the old pixels.
        QImage changing = base.copy();
        const QKPNGBands snapshot(changing);
        changing.fill(Qt::black);
        QCOMPARE(libpngDecode(snapshot.encode()), expected(base));
    }

    // An opaque picture goes as RGB however it is held; a transparent patch on it makes RGBA.
    // Bytes that are no whole PNG give no image.
    void colourTypeAndUndecodableBytes()
    {
        const QImage base =
            randomImage(QSize(64, 64), QImage::Format_RGB32, 31).convertToFormat(QImage::Format_ARGB32_Premultiplied);
        const QByteArray opaque = QKPNGCodec::encode(base);
        QCOMPARE(int(opaque.at(25)), 2);
        QCOMPARE(libpngDecode(opaque), expected(base));
        QImage hole(8, 8, QImage::Format_ARGB32);
        hole.fill(Qt::transparent);
        const QKPNGBands bands(base);
        const QByteArray png = bands.encodeWithPatch(hole, QPoint(4, 4));
        QCOMPARE(int(png.at(25)), 6);
        QCOMPARE(libpngDecode(png), expected(bands.imageWithPatch(hole, QPoint(4, 4))));
        QCOMPARE(libpngDecode(png).pixel(5, 5), 0u);
        QVERIFY(QKPNGCodec::encode(QImage()).isNull());
        for (const QByteArray &bytes : {QByteArray(), opaque.mid(8), opaque.left(opaque.size() / 2)})
            QVERIFY(QKPNGCodec::decode(bytes).isNull());
    }
};

QTEST_MAIN(TestQKBase)
#include "tst_qkbase.moc"
