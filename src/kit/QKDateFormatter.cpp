#include "QKDateFormatter.h"

#include <QLocale>

#include <mutex>
#include <string>

#include <unicode/udat.h>
#include <unicode/ustring.h>

namespace {

std::mutex lock;
QString localeOverride;
QByteArray openLocale;
UDateFormat *format = nullptr;

QByteArray currentLocale()
{
    if (!localeOverride.isEmpty())
        return localeOverride.toUtf8();
    const QString name = QLocale::system().name();
    // Qt's "C" is ICU's POSIX English, not the root locale's ISO-like forms.
    return name == QLatin1String("C") ? QByteArrayLiteral("en_US_POSIX") : name.toUtf8();
}

} // namespace

QString QKDateFormatter::mediumDateShortTime(const QDateTime &date)
{
    if (!date.isValid())
        return QString();
    std::lock_guard guard(lock);
    const QByteArray locale = currentLocale();
    if (!format || locale != openLocale) {
        if (format)
            udat_close(format);
        UErrorCode status = U_ZERO_ERROR;
        format = udat_open(UDAT_SHORT, UDAT_MEDIUM, locale.constData(), nullptr, -1, nullptr, -1, &status);
        if (U_FAILURE(status)) {
            format = nullptr;
            return QString();
        }
        openLocale = locale;
    }
    std::u16string buffer(64, u'\0');
    UErrorCode status = U_ZERO_ERROR;
    int32_t length =
        udat_format(format, UDate(date.toMSecsSinceEpoch()), buffer.data(), int32_t(buffer.size()), nullptr, &status);
    if (status == U_BUFFER_OVERFLOW_ERROR) {
        buffer.resize(size_t(length) + 1);
        status = U_ZERO_ERROR;
        length = udat_format(format, UDate(date.toMSecsSinceEpoch()), buffer.data(), int32_t(buffer.size()), nullptr,
                             &status);
    }
    if (U_FAILURE(status))
        return QString();
    QString result = QString::fromUtf16(buffer.data(), length);
    // Newer CLDR puts a narrow no-break space before AM/PM; the platform shows a plain one.
    result.replace(QChar(0x202F), QLatin1Char(' '));
    return result;
}

void QKDateFormatter::setLocaleForTesting(const QString &icuLocale)
{
    std::lock_guard guard(lock);
    localeOverride = icuLocale;
}
