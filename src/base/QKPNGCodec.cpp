#include "QKPNGCodec.h"
#include "QKPNGCodec_p.h"

#include <QBuffer>
#include <QImageReader>
#include <QPainter>
#include <QThread>
#include <QtEndian>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <isa-l/igzip_lib.h>
#include <libdeflate.h>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#if defined(__SSE2__) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define SIMD_PATHS 1
#else
#define SIMD_PATHS 0
#endif

namespace {

std::atomic<bool> useQtEncoder{false};
std::atomic<bool> portableOnly{false};

// Bands of about 64 KB of filtered bytes: small enough that a marker touches few of
// them, large enough that each band's Huffman tables cost little.
constexpr qsizetype BandBytes = 64 * 1024;
constexpr quint32 AdlerModulus = 65521;

QByteArray qtEncode(const QImage &image)
{
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    return image.save(&buffer, "PNG") ? png : QByteArray();
}

void appendBigEndian(QByteArray &out, quint32 value)
{
    const quint32 big = qToBigEndian(value);
    out.append(reinterpret_cast<const char *>(&big), 4);
}

void appendChunk(QByteArray &out, const char type[4], const char *data, qsizetype size)
{
    appendBigEndian(out, quint32(size));
    const qsizetype start = out.size();
    out.append(type, 4);
    out.append(data, size);
    const auto *checked = reinterpret_cast<const uchar *>(out.constData() + start);
    appendBigEndian(out, quint32(libdeflate_crc32(0, checked, size_t(out.size() - start))));
}

// The Adler-32 of two pieces joined, from the checksums of each: the zlib stream of
// the whole picture is checked over bands compressed apart.
quint32 adlerCombine(quint32 first, quint32 second, quint64 secondLength)
{
    const quint64 a1 = first & 0xffff, b1 = first >> 16;
    const quint64 a2 = second & 0xffff, b2 = second >> 16;
    const quint64 n = secondLength % AdlerModulus;
    const quint64 a = (a1 + a2 + AdlerModulus - 1) % AdlerModulus;
    const quint64 b = (b1 + b2 + n * ((a1 + AdlerModulus - 1) % AdlerModulus)) % AdlerModulus;
    return quint32((b << 16) | a);
}

// One band as a whole IDAT chunk, ready to be copied into any PNG that has these rows.
struct Band
{
    QByteArray chunk;
    quint32 adler = 1;
    quint64 rawLength = 0;
};

// The pixels as the encoder reads them: 32-bit rows of RGB32 (opaque) or ARGB32.
struct Pixels
{
    QImage image;
    bool opaque = true;
    int bandRows = 1;

    int bandCount() const { return (image.height() + bandRows - 1) / bandRows; }
    qsizetype rowBytes() const { return qsizetype(image.width()) * (opaque ? 3 : 4); }
};

bool allOpaque(const QImage &image)
{
    const int width = image.width(), height = image.height();
    for (int y = 0; y < height; ++y) {
        const auto *row = reinterpret_cast<const quint32 *>(image.constScanLine(y));
        quint32 alpha = 0xff000000u;
        for (int x = 0; x < width; ++x)
            alpha &= row[x];
        if (alpha != 0xff000000u)
            return false;
    }
    return true;
}

// RGB32 and opaque ARGB32 (premultiplied or not) are read as they are; everything
// else is converted once.
Pixels normalised(const QImage &image)
{
    Pixels pixels;
    switch (image.format()) {
    case QImage::Format_RGB32:
        pixels.image = image;
        break;
    case QImage::Format_ARGB32:
    case QImage::Format_ARGB32_Premultiplied:
        pixels.opaque = allOpaque(image);
        if (pixels.opaque || image.format() == QImage::Format_ARGB32)
            pixels.image = image;
        else
            pixels.image = image.convertToFormat(QImage::Format_ARGB32);
        break;
    default:
        if (image.hasAlphaChannel()) {
            pixels.image = image.convertToFormat(QImage::Format_ARGB32);
            pixels.opaque = allOpaque(pixels.image);
        } else {
            pixels.image = image.convertToFormat(QImage::Format_RGB32);
        }
        break;
    }
    pixels.bandRows = int(qBound<qsizetype>(1, BandBytes / (pixels.rowBytes() + 1), qsizetype(pixels.image.height())));
    return pixels;
}

// Scratch memory kept per thread: encoding allocates nothing large per band.
struct Scratch
{
    std::vector<quint32> composed[2], up, sub;
    std::vector<uchar> filtered, compressed, levelBuffer;
};

Scratch &scratch()
{
    thread_local Scratch s;
    return s;
}

// Packs one row of 32-bit words to PNG byte order: R G B (opaque) or R G B A. Writes
// up to 16 bytes past the row, hence the slack in the buffers.
void packRowPortable(const quint32 *row, int width, bool opaque, uchar *out)
{
    if (opaque) {
        for (int x = 0; x < width; ++x) {
            const quint32 v = qToBigEndian(row[x] << 8);
            std::memcpy(out + 3 * qsizetype(x), &v, 4);
        }
    } else {
        for (int x = 0; x < width; ++x) {
            const quint32 v = qToBigEndian((row[x] << 8) | (row[x] >> 24));
            std::memcpy(out + 4 * qsizetype(x), &v, 4);
        }
    }
}

// The "Up" and "Sub" residues of a row's pixels from `from` on, computed on the 32-bit
// words before packing (packing only moves bytes, and an opaque alpha byte leaves
// residues of 0), with the sums of their distances from zero added to the costs.
void residuesPortable(const quint32 *row, const quint32 *above, int width, quint32 *up, quint32 *sub, quint64 &upCost,
                      quint64 &subCost, int from = 0)
{
    const auto *c = reinterpret_cast<const uchar *>(row);
    const auto *a = reinterpret_cast<const uchar *>(above);
    auto *u = reinterpret_cast<uchar *>(up);
    auto *s = reinterpret_cast<uchar *>(sub);
    const qsizetype n = qsizetype(width) * 4;
    for (qsizetype i = qsizetype(from) * 4; i < n; ++i) {
        u[i] = uchar(c[i] - a[i]);
        s[i] = uchar(c[i] - (i >= 4 ? c[i - 4] : 0));
        upCost += quint64(std::abs(int(qint8(u[i]))));
        subCost += quint64(std::abs(int(qint8(s[i]))));
    }
}

#if SIMD_PATHS
// Four pixels at a time; |(qint8)r| is min(r, -r) on unsigned bytes, summed by psadbw.
void residuesSSE2(const quint32 *row, const quint32 *above, int width, quint32 *up, quint32 *sub, quint64 &upCost,
                  quint64 &subCost)
{
    const __m128i zero = _mm_setzero_si128();
    __m128i costU = zero, costS = zero, last = zero;
    int x = 0;
    for (; x + 4 <= width; x += 4) {
        const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i *>(row + x));
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(above + x));
        const __m128i left = _mm_or_si128(_mm_slli_si128(c, 4), last);
        last = _mm_srli_si128(c, 12);
        const __m128i u = _mm_sub_epi8(c, a);
        const __m128i s = _mm_sub_epi8(c, left);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(up + x), u);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(sub + x), s);
        costU = _mm_add_epi64(costU, _mm_sad_epu8(_mm_min_epu8(u, _mm_sub_epi8(zero, u)), zero));
        costS = _mm_add_epi64(costS, _mm_sad_epu8(_mm_min_epu8(s, _mm_sub_epi8(zero, s)), zero));
    }
    upCost = quint64(_mm_cvtsi128_si64(costU)) + quint64(_mm_cvtsi128_si64(_mm_unpackhi_epi64(costU, costU)));
    subCost = quint64(_mm_cvtsi128_si64(costS)) + quint64(_mm_cvtsi128_si64(_mm_unpackhi_epi64(costS, costS)));
    residuesPortable(row, above, width, up, sub, upCost, subCost, x);
}

__attribute__((target("ssse3"))) void packRowSSSE3(const quint32 *row, int width, bool opaque, uchar *out)
{
    int x = 0;
    if (opaque) {
        const __m128i order = _mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
        for (; x + 4 <= width; x += 4)
            _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 3 * qsizetype(x)),
                             _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(row + x)), order));
        packRowPortable(row + x, width - x, true, out + 3 * qsizetype(x));
    } else {
        const __m128i order = _mm_setr_epi8(2, 1, 0, 3, 6, 5, 4, 7, 10, 9, 8, 11, 14, 13, 12, 15);
        for (; x + 4 <= width; x += 4)
            _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 4 * qsizetype(x)),
                             _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(row + x)), order));
        packRowPortable(row + x, width - x, false, out + 4 * qsizetype(x));
    }
}
#endif

bool simdPaths()
{
#if SIMD_PATHS
    static const bool ssse3 = __builtin_cpu_supports("ssse3");
    return ssse3 && !portableOnly;
#else
    return false;
#endif
}

// Filters and compresses rows [first, last) into an independent run of deflate blocks
// that ends on a byte boundary, not marked final, so bands can follow each other.
// `rowAt(y, buffer)` gives row y's 32-bit pixels (possibly composed into `buffer`,
// which stays untouched until the row after next).
Band encodeBand(const Pixels &pixels, int first, int last,
                const std::function<const quint32 *(int y, quint32 *buffer)> &rowAt)
{
    Scratch &s = scratch();
    const int width = pixels.image.width();
    const qsizetype rowBytes = pixels.rowBytes();
    const qsizetype rawLength = qsizetype(last - first) * (rowBytes + 1);
    for (auto *words : {&s.composed[0], &s.composed[1], &s.up, &s.sub})
        words->resize(size_t(width) + 1);
    s.filtered.resize(size_t(rawLength + 16));
    const bool simd = simdPaths();

    const quint32 *above = nullptr;
    for (int y = first; y < last; ++y) {
        const quint32 *row = rowAt(y, s.composed[(y - first) & 1].data());
        uchar *out = s.filtered.data() + qsizetype(y - first) * (rowBytes + 1);
        // Each row takes "Sub" or "Up", whichever leaves the smaller residues: "Up"
        // for interface rows that repeat, "Sub" for photographs and gradients. The
        // band's first row has no row above within the band.
        quint64 upCost = 0, subCost = 0;
#if SIMD_PATHS
        if (simd) {
            residuesSSE2(row, above ? above : row, width, s.up.data(), s.sub.data(), upCost, subCost);
            const bool up = above && upCost <= subCost;
            out[0] = up ? 2 : 1;
            packRowSSSE3(up ? s.up.data() : s.sub.data(), width, pixels.opaque, out + 1);
            above = row;
            continue;
        }
#endif
        residuesPortable(row, above ? above : row, width, s.up.data(), s.sub.data(), upCost, subCost);
        const bool up = above && upCost <= subCost;
        out[0] = up ? 2 : 1;
        packRowPortable(up ? s.up.data() : s.sub.data(), width, pixels.opaque, out + 1);
        above = row;
    }

    Band band;
    band.rawLength = quint64(rawLength);
    band.adler = quint32(libdeflate_adler32(1, s.filtered.data(), size_t(rawLength)));
    s.compressed.resize(size_t(rawLength + rawLength / 16 + 1024));
    s.levelBuffer.resize(ISAL_DEF_LVL1_DEFAULT);
    isal_zstream stream{}; // the stateless init leaves some fields as they were
    isal_deflate_stateless_init(&stream);
    stream.level = 1;
    stream.level_buf = s.levelBuffer.data();
    stream.level_buf_size = quint32(s.levelBuffer.size());
    stream.next_in = s.filtered.data();
    stream.avail_in = quint32(rawLength);
    stream.next_out = s.compressed.data();
    stream.avail_out = quint32(s.compressed.size());
    stream.end_of_stream = 0;
    stream.flush = FULL_FLUSH;
    if (isal_deflate_stateless(&stream) != COMP_OK)
        throw std::runtime_error("band compression failed");
    band.chunk.reserve(qsizetype(stream.total_out) + 12);
    appendChunk(band.chunk, "IDAT", reinterpret_cast<const char *>(s.compressed.data()), qsizetype(stream.total_out));
    return band;
}

// A few threads that stay for the process's life, so encoding spreads bands over the
// cores without paying for thread start-up each time. The caller works too.
class BandWorkers
{
public:
    BandWorkers()
    {
        const int helpers = std::max(0, QThread::idealThreadCount() - 1);
        for (int i = 0; i < helpers; ++i)
            std::thread([this] { run(); }).detach();
        m_helpers = helpers;
    }

    // Runs job(i) for every i in [0, count); returns when all have finished.
    void forEach(int count, const std::function<void(int)> &job)
    {
        auto batch = std::make_shared<Batch>();
        batch->count = count;
        batch->job = job;
        const int wanted = std::min(m_helpers, count - 1);
        if (wanted > 0) {
            std::lock_guard lock(m_mutex);
            for (int i = 0; i < wanted; ++i)
                m_queue.push_back(batch);
        }
        m_wake.notify_all();
        batch->work();
        std::unique_lock lock(batch->mutex);
        batch->finishedAll.wait(lock, [&] { return batch->finished == batch->count; });
        if (batch->failure)
            std::rethrow_exception(batch->failure);
    }

private:
    struct Batch
    {
        std::atomic<int> next{0};
        int count = 0;
        std::function<void(int)> job;
        std::mutex mutex;
        std::condition_variable finishedAll;
        int finished = 0;
        std::exception_ptr failure;

        void work()
        {
            for (int i = next++; i < count; i = next++) {
                std::exception_ptr error;
                try {
                    job(i);
                } catch (...) {
                    error = std::current_exception();
                }
                std::lock_guard lock(mutex);
                if (error && !failure)
                    failure = error;
                if (++finished == count)
                    finishedAll.notify_all();
            }
        }
    };

    void run()
    {
        for (;;) {
            std::shared_ptr<Batch> batch;
            {
                std::unique_lock lock(m_mutex);
                m_wake.wait(lock, [this] { return !m_queue.empty(); });
                batch = std::move(m_queue.front());
                m_queue.pop_front();
            }
            batch->work();
        }
    }

    int m_helpers = 0;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<std::shared_ptr<Batch>> m_queue;
};

BandWorkers &workers()
{
    // Never destroyed: its threads may still be waiting when the process exits.
    static BandWorkers *instance = new BandWorkers;
    return *instance;
}

std::vector<Band> encodeBands(const Pixels &pixels, const std::vector<int> &which,
                              const std::function<const quint32 *(int y, quint32 *buffer)> &rowAt)
{
    std::vector<Band> bands(which.size());
    workers().forEach(int(which.size()), [&](int i) {
        const int first = which[size_t(i)] * pixels.bandRows;
        const int last = std::min(pixels.image.height(), first + pixels.bandRows);
        bands[size_t(i)] = encodeBand(pixels, first, last, rowAt);
    });
    return bands;
}

std::vector<Band> encodeAllBands(const Pixels &pixels)
{
    std::vector<int> all(size_t(pixels.bandCount()));
    for (int i = 0; i < pixels.bandCount(); ++i)
        all[size_t(i)] = i;
    return encodeBands(pixels, all, [&](int y, quint32 *) {
        return reinterpret_cast<const quint32 *>(pixels.image.constScanLine(y));
    });
}

// Signature, header, the zlib header, every band's chunk, the end of the stream with
// the checksum of all bands, and the end chunk.
QByteArray assemble(const Pixels &pixels, const std::vector<const Band *> &bands)
{
    qsizetype size = 8 + 25 + 14 + 18 + 12;
    quint32 adler = 1;
    for (const Band *band : bands) {
        size += band->chunk.size();
        adler = adlerCombine(adler, band->adler, band->rawLength);
    }
    QByteArray png;
    png.reserve(size);
    png.append("\x89PNG\r\n\x1a\n", 8);
    QByteArray header;
    appendBigEndian(header, quint32(pixels.image.width()));
    appendBigEndian(header, quint32(pixels.image.height()));
    header.append(char(8));                     // bits per sample
    header.append(char(pixels.opaque ? 2 : 6)); // RGB or RGBA
    header.append(3, char(0));                  // deflate, adaptive filtering, no interlace
    appendChunk(png, "IHDR", header.constData(), header.size());
    appendChunk(png, "IDAT", "\x78\x01", 2);
    for (const Band *band : bands)
        png.append(band->chunk);
    // An empty final block with fixed codes closes the stream of non-final bands.
    QByteArray end("\x03\x00", 2);
    appendBigEndian(end, adler);
    appendChunk(png, "IDAT", end.constData(), end.size());
    appendChunk(png, "IEND", nullptr, 0);
    return png;
}

QByteArray encodePixels(const Pixels &pixels, const std::vector<Band> &bands)
{
    std::vector<const Band *> order;
    order.reserve(bands.size());
    for (const Band &band : bands)
        order.push_back(&band);
    return assemble(pixels, order);
}

} // namespace

void QKPNGCodecUseQtEncoder(bool qt)
{
    useQtEncoder = qt;
}

void QKPNGCodecUsePortablePaths(bool portable)
{
    portableOnly = portable;
}

QByteArray QKPNGCodec::encode(const QImage &image)
{
    if (image.isNull())
        return QByteArray();
    if (useQtEncoder)
        return qtEncode(image);
    try {
        const Pixels pixels = normalised(image);
        return encodePixels(pixels, encodeAllBands(pixels));
    } catch (const std::exception &) {
        return QByteArray();
    }
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
    // An 8K screen's screenshot (7680 x 4320, 127 MB) fits; a small file that claims
    // more pixels than that is refused before the memory is taken.
    return 128;
}

struct QKPNGBands::State
{
    QImage original;
    Pixels pixels;
    std::once_flag encoded;
    std::vector<Band> bands;

    const std::vector<Band> &allBands()
    {
        std::call_once(encoded, [this] { bands = encodeAllBands(pixels); });
        return bands;
    }
};

QKPNGBands::QKPNGBands(const QImage &image) : d(std::make_shared<State>())
{
    d->pixels = normalised(image);
    d->original = image;
}

QImage QKPNGBands::image() const
{
    return d->original;
}

QByteArray QKPNGBands::encode() const
{
    if (d->original.isNull())
        return QByteArray();
    if (useQtEncoder)
        return qtEncode(d->original);
    try {
        return encodePixels(d->pixels, d->allBands());
    } catch (const std::exception &) {
        return QByteArray();
    }
}

QImage QKPNGBands::imageWithPatch(const QImage &patch, const QPoint &at) const
{
    QImage result = d->original.copy();
    const QRect area = QRect(at, patch.size()) & result.rect();
    if (area.isEmpty())
        return result;
    if (result.depth() % 8 != 0) {
        QPainter painter(&result);
        painter.setCompositionMode(QPainter::CompositionMode_Source);
        painter.setClipRect(area);
        painter.resetTransform();
        painter.scale(1.0 / result.devicePixelRatio(), 1.0 / result.devicePixelRatio());
        QImage pixelsOnly = patch;
        pixelsOnly.setDevicePixelRatio(1.0);
        painter.drawImage(at, pixelsOnly);
        return result;
    }
    const QImage source = patch.convertToFormat(result.format());
    const qsizetype bytes = qsizetype(area.width()) * (result.depth() / 8);
    for (int y = area.top(); y <= area.bottom(); ++y)
        std::memcpy(result.scanLine(y) + qsizetype(area.left()) * (result.depth() / 8),
                    source.constScanLine(y - at.y()) + qsizetype(area.left() - at.x()) * (result.depth() / 8),
                    size_t(bytes));
    return result;
}

QByteArray QKPNGBands::encodeWithPatch(const QImage &patch, const QPoint &at) const
{
    const Pixels &pixels = d->pixels;
    const QRect area = QRect(at, patch.size()) & pixels.image.rect();
    if (area.isEmpty())
        return encode();
    if (useQtEncoder)
        return qtEncode(imageWithPatch(patch, at));
    // The patch takes the picture's own format first, as imageWithPatch lays it.
    const QImage laid = patch.convertToFormat(d->original.format());
    const QImage source = laid.convertToFormat(laid.hasAlphaChannel() ? QImage::Format_ARGB32 : QImage::Format_RGB32);
    // A patch that brings transparency into an opaque picture changes every row's layout.
    if (pixels.opaque && source.hasAlphaChannel() && !allOpaque(source.copy(area.translated(-at))))
        return QKPNGCodec::encode(imageWithPatch(patch, at));
    try {
        const std::vector<Band> &base = d->allBands();
        std::vector<int> changed;
        for (int band = area.top() / pixels.bandRows; band <= area.bottom() / pixels.bandRows; ++band)
            changed.push_back(band);
        const std::vector<Band> fresh = encodeBands(pixels, changed, [&](int y, quint32 *buffer) {
            const auto *row = reinterpret_cast<const quint32 *>(pixels.image.constScanLine(y));
            if (y < area.top() || y > area.bottom())
                return row;
            std::memcpy(buffer, row, size_t(pixels.image.width()) * 4);
            const auto *patchRow = reinterpret_cast<const quint32 *>(source.constScanLine(y - at.y()));
            std::memcpy(buffer + area.left(), patchRow + (area.left() - at.x()), size_t(area.width()) * 4);
            return static_cast<const quint32 *>(buffer);
        });
        std::vector<const Band *> order;
        order.reserve(base.size());
        for (const Band &band : base)
            order.push_back(&band);
        for (size_t i = 0; i < changed.size(); ++i)
            order[size_t(changed[i])] = &fresh[i];
        return assemble(pixels, order);
    } catch (const std::exception &) {
        return QByteArray();
    }
}
