#pragma once

#include "QKGlobal.h"

#include <QDateTime>
#include <QString>

/// Dates as the feedback service writes them: "2026-11-21T20:34:14.123+0000"
/// (four-digit year, 'T', 24-hour time, exactly three fractional digits, a numeric
/// offset of sign, hours and minutes).
class MURMORA_DATA_EXPORT QKServiceDate
{
public:
    /// The instant, in UTC; an invalid date for anything that does not match exactly,
    /// including out-of-range fields. Independent of the locale.
    static QDateTime parse(const QString &text);
    /// `date` in the same form, with the offset +0000.
    static QString format(const QDateTime &date);
};
