#include "QKPNGCodec.h"

#include <QBuffer>
#include <QImageReader>

QByteArray QKPNGCodec::encode(const QImage &image)
{
    if (image.isNull())
        return QByteArray();
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    if (!image.save(&buffer, "PNG"))
        return QByteArray();
    return bytes;
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
