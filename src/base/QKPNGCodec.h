#pragma once

#include "QKGlobal.h"

#include <QByteArray>
#include <QImage>
#include <QPoint>

#include <memory>

/// The one way the library turns images into bytes and back.
class MURMORA_DATA_EXPORT QKPNGCodec
{
public:
    /// The image's pixels as a PNG file: 8 bits, RGB when every pixel is opaque and
    /// RGBA otherwise, deflated with ISA-L in horizontal bands on all cores. Decodes
    /// to the same pixels (premultiplied images come back unpremultiplied, 16-bit
    /// formats as 8 bits). A null image gives a null array. Thread-safe.
    static QByteArray encode(const QImage &image);

    /// Decodes image bytes of any format Qt reads (PNG first of all). Undecodable bytes,
    /// and images whose pixels would take more than `allocationLimitMB()`, give a null image.
    /// The image's device pixel ratio is 1.
    static QImage decode(const QByteArray &data);

    /// The most memory, in megabytes, that one decoded image may take.
    static int allocationLimitMB();
};

/// One picture and its compressed bands, for encoding many pictures that differ from
/// it only in a small area (a screenshot with one marker each): the bands outside the
/// changed rows are compressed once and shared by every variant's PNG. Copies share
/// the same state; every member is thread-safe.
class MURMORA_DATA_EXPORT QKPNGBands
{
public:
    /// Shares `image`'s pixels; changes made through any QImage later detach from
    /// them (an image over a buffer written behind QImage's back must be copied first).
    explicit QKPNGBands(const QImage &image);

    QImage image() const;
    /// The PNG of the picture itself.
    QByteArray encode() const;

    /// The picture with `patch`'s pixels put in place of its own from `at` (in
    /// pixels; the patch is clipped to the picture), and its PNG. A patch with
    /// transparent pixels on an opaque picture is encoded whole.
    QImage imageWithPatch(const QImage &patch, const QPoint &at) const;
    QByteArray encodeWithPatch(const QImage &patch, const QPoint &at) const;

private:
    struct State;
    std::shared_ptr<State> d;
};
