#pragma once

#include "QKGlobalKit.h"

#include <QDateTime>
#include <QString>

/// Dates as the user reads them: ICU's medium date and short time in the
/// user's locale and the system's time zone.
class MURMORA_EXPORT QKDateFormatter
{
public:
    /// "Nov 21, 2026, 8:34 PM" in en_US; "" for an invalid date.
    static QString mediumDateShortTime(const QDateTime &date);
    /// An ICU locale such as "en_US" instead of the system's; empty for the system's again.
    static void setLocaleForTesting(const QString &icuLocale);
};
