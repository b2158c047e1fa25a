#include "QKWhitespace.h"

namespace {
bool isBlank(QChar c)
{
    return c == QLatin1Char('\t') || c.category() == QChar::Separator_Space;
}
} // namespace

QString QKTrimmedWhitespace(const QString &text)
{
    if (text.isNull())
        return QString();
    qsizetype begin = 0, end = text.size();
    while (begin < end && isBlank(text.at(begin)))
        ++begin;
    while (end > begin && isBlank(text.at(end - 1)))
        --end;
    return text.mid(begin, end - begin);
}
