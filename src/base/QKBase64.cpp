#include "QKBase64.h"

namespace {
constexpr qsizetype LineLength = 64;

bool isBase64Letter(char16_t c)
{
    return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z') || (c >= u'0' && c <= u'9') || c == u'+' || c == u'/';
}
} // namespace

QString QKBase64::encodeWithLineBreaks(const QByteArray &data)
{
    if (data.isNull())
        return QString();
    const QByteArray plain = data.toBase64();
    const qsizetype lines = (plain.size() + LineLength - 1) / LineLength;
    QString text;
    text.reserve(plain.size() + qMax<qsizetype>(0, lines - 1) * 2);
    for (qsizetype at = 0; at < plain.size(); at += LineLength) {
        if (at > 0)
            text += QLatin1String("\r\n");
        text += QLatin1String(plain.constData() + at, qMin(LineLength, plain.size() - at));
    }
    if (text.isNull())
        text = QLatin1String("");
    return text;
}

QByteArray QKBase64::decodeIgnoringUnknownCharacters(const QString &text)
{
    if (text.isNull())
        return QByteArray();
    QByteArray letters;
    letters.reserve(text.size());
    qsizetype padding = 0;
    for (const QChar ch : text) {
        const char16_t c = ch.unicode();
        if (c == u'=') {
            ++padding;
        } else if (isBase64Letter(c)) {
            if (padding > 0)
                return QByteArray(); // letters after the padding
            letters.append(char(c));
        }
    }
    if (padding > 2 || (letters.size() + padding) % 4 != 0)
        return QByteArray();
    if (padding > 0)
        letters.append(padding, '=');
    const auto decoded = QByteArray::fromBase64Encoding(letters, QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded)
        return QByteArray();
    QByteArray bytes = *decoded;
    if (bytes.isNull())
        bytes = QByteArray("");
    return bytes;
}
