#pragma once

#include <QDateTime>
#include <QStringList>

// What the archiver and the unarchiver agree on.

inline constexpr quint64 QKKeyedArchiveVersion = 100000;
// Object nesting either side accepts; records nest a handful of levels.
inline constexpr int QKKeyedArchiveMaxDepth = 256;
// Dates are seconds since 2001-01-01 00:00:00 UTC.
inline constexpr qint64 QKKeyedArchiveEpochOffsetSecs = 978307200;

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
