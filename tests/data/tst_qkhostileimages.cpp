// Images built to exhaust memory: a header that declares 10^10 pixels, and a small
// valid PNG that inflates to 400 MB. Decoding them, directly or from an item in an
// archive, gives no image and costs no memory worth the name.

#include "base/QKDocumentsDirectory.h"
#include "base/QKKeyedArchiver.h"
#include "base/QKPNGCodec.h"
#include "data/QKLocalFeedbackSource.h"
#include "support/ServiceClient.h"

#include <QTemporaryDir>
#include <QtTest>

#include <cstdlib>
#include <memory>
#include <libdeflate.h>

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool MemoryMeasurable = false; // its quarantine keeps freed memory resident
#else
constexpr bool MemoryMeasurable = true;
#endif

// A PNG of 8-bit grey pixels, all zero (each row: filter byte 0, then the pixels),
// with its zlib stream made from `rows` rows: all of them gives a valid file.
QByteArray zeroGreyPNG(quint32 width, quint32 height, quint32 rows)
{
    const size_t raw = size_t(rows) * (width + 1);
    // calloc maps the kernel's zero page: 400 MB that are read, never resident.
    std::unique_ptr<void, decltype(&std::free)> zeros(std::calloc(raw, 1), &std::free);
    libdeflate_compressor *compressor = libdeflate_alloc_compressor(1);
    QByteArray idat(qsizetype(raw / 500 + 4096), Qt::Uninitialized);
    const size_t size = libdeflate_zlib_compress(compressor, zeros.get(), raw, idat.data(), size_t(idat.size()));
    libdeflate_free_compressor(compressor);
    idat.truncate(qsizetype(size));

    QByteArray header;
    QDataStream(&header, QIODevice::WriteOnly) << width << height;
    header.append("\x08\x00\x00\x00\x00", 5); // 8 bits, grey, deflate, adaptive filters, no interlace
    const QByteArray png =
        QByteArray("\x89PNG\r\n\x1a\n", 8) + chunk("IHDR", header) + chunk("IDAT", idat) + chunk("IEND", {});
    return size ? png : QByteArray();
}

// An item as another writer may archive it: any bytes as its screenshot.
struct ForeignItem : QKCoding
{
    QByteArray png;
    QStringList archiveClassChain() const override { return {"QKFeedbackItem", "NSObject"}; }
    void encodeWithCoder(QKKeyedArchiver &coder) const override
    {
        coder.encodeObject("hostile", "key");
        coder.encodeObject("Open", "state");
        coder.encodeObject(QString::fromLatin1(png.toBase64()), "image");
    }
};

QKFeedbackItemList loadItems(const QString &dir, const QByteArray &png)
{
    auto item = QSharedPointer<ForeignItem>::create();
    item->png = png;
    QKSetDocumentsDirectory(dir);
    if (!QKKeyedArchiver::archiveRootObject(QVariantList{QVariant::fromValue(item.staticCast<QKCoding>())},
                                            QKLocalFeedbackSource::archivePath()))
        return {};
    return QKLocalFeedbackSource().items();
}

} // namespace

class TestHostileImages : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        m_huge = zeroGreyPNG(100000, 100000, 16);
        m_bomb = zeroGreyPNG(20000, 20000, 20000);
        QVERIFY(!m_huge.isEmpty());
        QVERIFY(!m_bomb.isEmpty());
        QVERIFY2(m_bomb.size() < 1024 * 1024, QByteArray::number(m_bomb.size()).constData());
        qInfo("the 20000 x 20000 PNG is %lld bytes", qint64(m_bomb.size()));
        // The same construction at a size that fits the limit decodes: the files are valid.
        const QImage small = QKPNGCodec::decode(zeroGreyPNG(300, 200, 200));
        QCOMPARE(small.size(), QSize(300, 200));
        QCOMPARE(small.pixelColor(150, 100), QColor(Qt::black));
    }

    void decodingGivesNoImageAndNoMemory()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        // Warm-up: the code a first load and its first image run, and the heap that
        // archives of this size take, are in place before the measurement.
        {
            const QKFeedbackItemList warm = loadItems(dir.path(), m_bomb);
            QCOMPARE(warm.size(), 1);
            QVERIFY(warm.first()->image().isNull());
        }

        const bool peakKnown = resetPeakMemory();
        const qint64 resident = statusKiB("VmRSS:") * 1024, peak = statusKiB("VmHWM:") * 1024;
        QVERIFY(resident > 0);
        for (int round = 0; round < 3; ++round) {
            QVERIFY(QKPNGCodec::decode(m_huge).isNull());
            QVERIFY(QKPNGCodec::decode(m_bomb).isNull());
            for (const QByteArray &png : {m_huge, m_bomb}) {
                const QKFeedbackItemList items = loadItems(dir.path(), png);
                QCOMPARE(items.size(), 1);
                QCOMPARE(items.first()->key(), "hostile");
                QVERIFY(items.first()->image().isNull());
            }
        }

        const qint64 grown = statusKiB("VmRSS:") * 1024 - resident;
        const qint64 peakGrown = peakKnown ? statusKiB("VmHWM:") * 1024 - peak : -1;
        qInfo("resident memory grew by %lld bytes, its peak by %lld bytes", grown, peakGrown);
        if (!MemoryMeasurable)
            QSKIP("no memory figures under AddressSanitizer");
        QVERIFY2(grown < 1024 * 1024, QByteArray::number(grown).constData());
        // The archives carry the PNGs as text, so a few copies of them are held at once.
        if (peakKnown)
            QVERIFY2(peakGrown < 8 * 1024 * 1024, QByteArray::number(peakGrown).constData());
    }

private:
    QByteArray m_huge, m_bomb;
};

QTEST_MAIN(TestHostileImages)
#include "tst_qkhostileimages.moc"
