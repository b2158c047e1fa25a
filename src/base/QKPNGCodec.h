#pragma once

#include "QKGlobal.h"

#include <QByteArray>
#include <QImage>

/// The one way the library turns images into bytes and back.
class MURMORA_DATA_EXPORT QKPNGCodec
{
public:
    /// The image's pixels as a PNG file (RGB when the image has no alpha channel,
    /// RGBA otherwise; 8 bits; every row "Up"-filtered; deflated with libdeflate, many
    /// times faster than QImage::save); a null image gives a null array.
    static QByteArray encode(const QImage &image);
    /// libdeflate's level for encode(): fast, and still close to QImage::save's size.
    static constexpr int CompressionLevel = 4;

    /// Decodes image bytes of any format Qt reads (PNG first of all). Undecodable bytes,
    /// and images whose pixels would take more than `allocationLimitMB()`, give a null image.
    /// The image's device pixel ratio is 1.
    static QImage decode(const QByteArray &data);

    /// The most memory, in megabytes, that one decoded image may take.
    static int allocationLimitMB();
};
