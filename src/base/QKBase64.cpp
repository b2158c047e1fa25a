#include "QKBase64.h"

#include <cstring>

namespace {
constexpr qsizetype LineLength = 64;

bool isBase64Letter(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/';
}
} // namespace

QString QKBase64::encodeWithLineBreaks(const QByteArray &data)
{
    if (data.isNull())
        return QString();
    const QByteArray ascii = encodeWithLineBreaksToASCII(data);
    return ascii.isEmpty() ? QLatin1String("") : QString::fromLatin1(ascii);
}

QByteArray QKBase64::encodeWithLineBreaksToASCII(const QByteArray &data)
{
    if (data.isNull())
        return QByteArray();
    const QByteArray plain = data.toBase64();
    const qsizetype lines = (plain.size() + LineLength - 1) / LineLength;
    QByteArray text(plain.size() + qMax<qsizetype>(0, lines - 1) * 2, Qt::Uninitialized);
    char *out = text.data();
    for (qsizetype at = 0; at < plain.size(); at += LineLength) {
        if (at > 0) {
            *out++ = '\r';
            *out++ = '\n';
        }
        const qsizetype n = qMin(LineLength, plain.size() - at);
        std::memcpy(out, plain.constData() + at, size_t(n));
        out += n;
    }
    if (text.isNull())
        text = QByteArray("");
    return text;
}

QByteArray QKBase64::decodeIgnoringUnknownCharacters(const QString &text)
{
    if (text.isNull())
        return QByteArray();
    // Characters outside Latin-1 are not of the alphabet: any stand-in is skipped too.
    QByteArray ascii(text.size(), Qt::Uninitialized);
    for (qsizetype i = 0; i < text.size(); ++i) {
        const char16_t c = text.at(i).unicode();
        ascii[i] = c < 0x80 ? char(c) : '\x80';
    }
    if (ascii.isNull())
        ascii = QByteArray("");
    return decodeASCIIIgnoringUnknownCharacters(ascii);
}

QByteArray QKBase64::decodeASCIIIgnoringUnknownCharacters(QByteArrayView text)
{
    if (text.isNull())
        return QByteArray();
    QByteArray letters(text.size(), Qt::Uninitialized);
    qsizetype count = 0;
    qsizetype padding = 0;
    for (const char c : text) {
        if (c == '=') {
            ++padding;
        } else if (isBase64Letter(c)) {
            if (padding > 0)
                return QByteArray(); // letters after the padding
            letters[count++] = c;
        }
    }
    letters.truncate(count);
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

bool QKBase64::isASCII(QByteArrayView bytes)
{
    // One pass without an early exit, so that it vectorises: archives hold hundreds of
    // megabytes of Base64 text.
    uchar bits = 0;
    for (const char c : bytes)
        bits |= uchar(c);
    return bits < 0x80;
}
