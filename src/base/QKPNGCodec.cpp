#include "QKPNGCodec.h"

#include <QBuffer>
#include <QImageReader>

#include <cstring>
#include <libdeflate.h>
#include <memory>

namespace {

void appendBigEndian(QByteArray &out, quint32 value)
{
    const char bytes[4] = {char(value >> 24), char(value >> 16), char(value >> 8), char(value)};
    out.append(bytes, 4);
}

void appendChunk(QByteArray &out, const char type[4], const QByteArray &data)
{
    appendBigEndian(out, quint32(data.size()));
    const qsizetype start = out.size();
    out.append(type, 4);
    out.append(data);
    const auto *checked = reinterpret_cast<const uchar *>(out.constData() + start);
    appendBigEndian(out, quint32(libdeflate_crc32(0, checked, size_t(out.size() - start))));
}

struct CompressorDeleter
{
    void operator()(libdeflate_compressor *compressor) const { libdeflate_free_compressor(compressor); }
};

} // namespace

QByteArray QKPNGCodec::encode(const QImage &image)
{
    if (image.isNull())
        return QByteArray();
    // Opaque pictures (screenshots) go as RGB: a quarter less to compress and store.
    const bool opaque = !image.hasAlphaChannel();
    const QImage pixels = image.convertToFormat(opaque ? QImage::Format_RGB888 : QImage::Format_RGBA8888);
    const qsizetype rowBytes = qsizetype(pixels.width()) * (opaque ? 3 : 4);

    // Every row with the "Up" filter: flat interface pictures repeat from row to row.
    QByteArray filtered(qsizetype(pixels.height()) * (rowBytes + 1), Qt::Uninitialized);
    auto *out = reinterpret_cast<uchar *>(filtered.data());
    for (int y = 0; y < pixels.height(); ++y) {
        const uchar *row = pixels.constScanLine(y);
        const uchar *above = y > 0 ? pixels.constScanLine(y - 1) : nullptr;
        uchar *target = out + qsizetype(y) * (rowBytes + 1);
        target[0] = above ? 2 : 0;
        if (above)
            for (qsizetype i = 0; i < rowBytes; ++i)
                target[1 + i] = uchar(row[i] - above[i]);
        else
            std::memcpy(target + 1, row, size_t(rowBytes));
    }

    std::unique_ptr<libdeflate_compressor, CompressorDeleter> compressor(libdeflate_alloc_compressor(CompressionLevel));
    if (!compressor)
        return QByteArray();
    QByteArray compressed(qsizetype(libdeflate_zlib_compress_bound(compressor.get(), size_t(filtered.size()))),
                          Qt::Uninitialized);
    const size_t length = libdeflate_zlib_compress(compressor.get(), filtered.constData(), size_t(filtered.size()),
                                                   compressed.data(), size_t(compressed.size()));
    if (length == 0)
        return QByteArray();
    compressed.truncate(qsizetype(length));

    QByteArray header;
    appendBigEndian(header, quint32(pixels.width()));
    appendBigEndian(header, quint32(pixels.height()));
    header.append(char(8));              // bits per sample
    header.append(char(opaque ? 2 : 6)); // RGB or RGBA
    header.append(3, char(0));           // deflate, adaptive filtering, no interlace
    QByteArray png("\x89PNG\r\n\x1a\n", 8);
    png.reserve(png.size() + compressed.size() + 64);
    appendChunk(png, "IHDR", header);
    appendChunk(png, "IDAT", compressed);
    appendChunk(png, "IEND", QByteArray());
    return png;
}

QImage QKPNGCodec::decode(const QByteArray &data)
{
    if (data.isEmpty())
        return QImage();
    QBuffer buffer;
    buffer.setData(data);
    buffer.open(QIODevice::ReadOnly);
    QImageReader reader(&buffer);
    reader.setDecideFormatFromContent(true);
    reader.setAllocationLimit(allocationLimitMB());
    QImage image = reader.read();
    if (!image.isNull())
        image.setDevicePixelRatio(1.0);
    return image;
}

int QKPNGCodec::allocationLimitMB()
{
    // A 2732 x 2048 tablet screenshot is 22 MB; leave room for larger displays.
    return 256;
}
