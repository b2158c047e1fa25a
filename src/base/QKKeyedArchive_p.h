#pragma once

#include "QKGlobal.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QDateTime>
#include <QStringList>

#include <memory>

class QFile;
class QKKeyedArchiver;
class QKKeyedUnarchiver;

// What the archiver and the unarchiver agree on. The writer refuses whatever the
// reader would refuse, so a save never leaves a file that cannot be opened again.

inline constexpr quint64 QKKeyedArchiveVersion = 100000;
// Object nesting either side accepts; records nest a handful of levels.
inline constexpr int QKKeyedArchiveMaxDepth = 256;
// Dates are seconds since 2001-01-01 00:00:00 UTC.
inline constexpr qint64 QKKeyedArchiveEpochOffsetSecs = 978307200;
// QDateTime spans far more than this; the bound keeps the arithmetic exact.
inline constexpr qint64 QKKeyedArchiveMaxDateSecs = 100'000'000'000'000;
// A keyed archive larger than this is not one of ours.
inline constexpr qint64 QKKeyedArchiveDefaultMaxSize = qint64(1) << 31;

// The largest archive either side takes: QKKeyedArchiveDefaultMaxSize unless a test
// sets a smaller one (0 restores the default), so that the limit is tried without
// writing gigabytes.
qint64 QKKeyedArchiveMaxSize();
MURMORA_DATA_EXPORT void QKKeyedArchiveUseMaxSize(qint64 bytes);

inline double QKKeyedArchiveTimeFromDate(const QDateTime &date)
{
    return double(date.toMSecsSinceEpoch() - QKKeyedArchiveEpochOffsetSecs * 1000) / 1000.0;
}

inline QStringList QKKeyedArchiveMutableArrayChain()
{
    return {QStringLiteral("NSMutableArray"), QStringLiteral("NSArray"), QStringLiteral("NSObject")};
}

inline QStringList QKKeyedArchiveMutableDictionaryChain()
{
    return {QStringLiteral("NSMutableDictionary"), QStringLiteral("NSDictionary"), QStringLiteral("NSObject")};
}

// Keys of a coded object that start with '$' would meet the archive's own ("$class");
// they get one more '$', as the platform's archiver does.
inline QString QKKeyedArchiveEscapedKey(const QString &key)
{
    return key.startsWith(QLatin1Char('$')) ? QLatin1Char('$') + key : key;
}

// The bytes an archive is read from: a file's mapping, or an array of its own when
// the file cannot be mapped. Shared by everything read from the archive that points
// into it, and released with the last of them, on whichever thread that is.
class QKArchiveBytes
{
public:
    // Keeps `bytes`; an array that does not own its bytes (fromRawData) is copied.
    explicit QKArchiveBytes(const QByteArray &bytes);
    // Takes over `file` and its mapping of `size` bytes at `mapped`.
    QKArchiveBytes(std::unique_ptr<QFile> file, const uchar *mapped, qint64 size);
    ~QKArchiveBytes();
    QKArchiveBytes(const QKArchiveBytes &) = delete;
    QKArchiveBytes &operator=(const QKArchiveBytes &) = delete;

    QByteArrayView view() const { return m_view; }
    // Whether `text`, a part of view(), is ASCII. A mapped file is read through its
    // handle: on virtual machines that shadow page tables, first touching each mapped
    // page costs several times more than the kernel copying it.
    bool isASCII(QByteArrayView text) const;

private:
    std::unique_ptr<QFile> m_file;
    QByteArray m_bytes;
    QByteArrayView m_view;
};

// Text inside an archive that was read, kept alive by whoever holds the slice: an
// archived screenshot's Base64 stays in the mapping until it is used.
struct QKArchiveSlice
{
    std::shared_ptr<const QKArchiveBytes> bytes; // null: no text
    QByteArrayView text;
};

// The coders' ways to pass large text through without copying it.
struct QKKeyedArchiveAccess
{
    // The ASCII string under `key` in place (a string stored as UTF-16 comes as UTF-8
    // bytes of its own); no bytes when the key is absent or nil.
    static QKArchiveSlice decodeText(QKKeyedUnarchiver &coder, const QString &key);
    // Writes `text` as an ASCII string from where it is; the archiver keeps the slice
    // alive until the archive is written. The caller checks that it is ASCII.
    static void encodeText(QKKeyedArchiver &coder, const QKArchiveSlice &text, const QString &key);
};
