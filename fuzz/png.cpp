// Image bytes as screenshots come from archives and the service: decoding must
// refuse or give a bounded image, and a decoded image must survive our PNG encoder.
#include "FuzzSupport.h"

#include "base/QKPNGCodec.h"

#include <cstdint>

MURMORA_FUZZ_INITIALIZE

namespace {

// Fully transparent pixels may keep any colour.
bool samePixels(const QImage &a, const QImage &b)
{
    const QImage x = a.convertToFormat(QImage::Format_ARGB32), y = b.convertToFormat(QImage::Format_ARGB32);
    for (int row = 0; row < x.height(); ++row) {
        const auto *p = reinterpret_cast<const QRgb *>(x.constScanLine(row));
        const auto *q = reinterpret_cast<const QRgb *>(y.constScanLine(row));
        for (int column = 0; column < x.width(); ++column)
            if (p[column] != q[column] && (qAlpha(p[column]) != 0 || qAlpha(q[column]) != 0))
                return false;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using FuzzSupport::check;
    const QByteArray input(reinterpret_cast<const char *>(data), qsizetype(size));
    const QImage image = QKPNGCodec::decode(input);
    if (image.isNull())
        return 0;
    check(image.devicePixelRatio() == 1.0, "decoded image with another pixel ratio");
    check(image.sizeInBytes() <= qsizetype(QKPNGCodec::allocationLimitMB()) * 1024 * 1024,
          "decoded image over the allocation limit");
    // Re-encoding every large picture would only slow the search down.
    if (qint64(image.width()) * image.height() > 256 * 256)
        return 0;
    const QByteArray png = QKPNGCodec::encode(image);
    check(png.startsWith("\x89PNG\r\n\x1a\n"), "encoder wrote no PNG");
    const QImage again = QKPNGCodec::decode(png);
    check(again.size() == image.size(), "re-encoded image has another size");
    check(samePixels(image, again), "re-encoded image has other pixels");
    return 0;
}
