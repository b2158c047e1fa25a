#include "QKServiceDate.h"

#include <QDate>
#include <QTime>

namespace {

// The value of `count` ASCII digits at `at`, or -1.
int digits(const QString &text, qsizetype at, int count)
{
    int value = 0;
    for (int i = 0; i < count; ++i) {
        const char16_t c = text.at(at + i).unicode();
        if (c < u'0' || c > u'9')
            return -1;
        value = value * 10 + int(c - u'0');
    }
    return value;
}

bool literal(const QString &text, qsizetype at, char16_t c)
{
    return text.at(at).unicode() == c;
}

} // namespace

QDateTime QKServiceDate::parse(const QString &text)
{
    // yyyy-MM-ddTHH:mm:ss.SSS+HHMM
    if (text.size() != 28)
        return QDateTime();
    if (!literal(text, 4, u'-') || !literal(text, 7, u'-') || !literal(text, 10, u'T') || !literal(text, 13, u':') ||
        !literal(text, 16, u':') || !literal(text, 19, u'.'))
        return QDateTime();
    const char16_t sign = text.at(23).unicode();
    if (sign != u'+' && sign != u'-')
        return QDateTime();
    const int year = digits(text, 0, 4), month = digits(text, 5, 2), day = digits(text, 8, 2);
    const int hour = digits(text, 11, 2), minute = digits(text, 14, 2), second = digits(text, 17, 2);
    const int millis = digits(text, 20, 3), offsetHours = digits(text, 24, 2), offsetMinutes = digits(text, 26, 2);
    if (year < 0 || month < 0 || day < 0 || hour < 0 || minute < 0 || second < 0 || millis < 0 || offsetHours < 0 ||
        offsetMinutes < 0 || offsetHours > 23 || offsetMinutes > 59)
        return QDateTime();
    const QDate date(year, month, day);
    const QTime time(hour, minute, second, millis);
    if (!date.isValid() || !time.isValid())
        return QDateTime();
    const int offset = (offsetHours * 3600 + offsetMinutes * 60) * (sign == u'-' ? -1 : 1);
    const QDateTime instant = QDateTime(date, time, Qt::UTC).addSecs(-offset);
    // An offset can carry the instant out of four-digit years, where no date of this
    // form could name it again.
    if (instant.date().year() < 1 || instant.date().year() > 9999)
        return QDateTime();
    return instant;
}

QString QKServiceDate::format(const QDateTime &date)
{
    return date.toUTC().toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss.zzz")) + QStringLiteral("+0000");
}
