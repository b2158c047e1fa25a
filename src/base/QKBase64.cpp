#include "QKBase64.h"

#include <array>
#include <cstring>

namespace {
constexpr qsizetype LineLength = 64;

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
    // Latin-1 keeps the alphabet and turns everything else into bytes outside it ('?' or
    // 0x80 and up), which the decoder skips.
    QByteArray latin1 = text.toLatin1();
    if (latin1.isNull())
        latin1 = QByteArray("");
    return decodeASCIIIgnoringUnknownCharacters(latin1);
}

QByteArray QKBase64::decodeASCIIIgnoringUnknownCharacters(QByteArrayView text)
{
    if (text.isNull())
        return QByteArray();
    // Filtering and decoding in one pass: screenshots are megabytes of text.
    static constexpr auto values = [] {
        std::array<signed char, 256> table{};
        table.fill(-1);
        for (int i = 0; i < 26; ++i) {
            table['A' + i] = char(i);
            table['a' + i] = char(26 + i);
        }
        for (int i = 0; i < 10; ++i)
            table['0' + i] = char(52 + i);
        table['+'] = 62;
        table['/'] = 63;
        return table;
    }();
    QByteArray bytes(text.size() / 4 * 3 + 3, Qt::Uninitialized);
    char *out = bytes.data();
    quint32 group = 0;
    int pending = 0;
    qsizetype letters = 0;
    qsizetype padding = 0;
    for (const char c : text) {
        if (c == '=') {
            ++padding;
            continue;
        }
        const int value = values[uchar(c)];
        if (value < 0)
            continue;
        if (padding > 0)
            return QByteArray(); // letters after the padding
        group = group << 6 | quint32(value);
        ++letters;
        if (++pending == 4) {
            *out++ = char(group >> 16);
            *out++ = char(group >> 8);
            *out++ = char(group);
            group = 0;
            pending = 0;
        }
    }
    if (padding > 2 || (letters + padding) % 4 != 0)
        return QByteArray();
    if (pending == 2) {
        *out++ = char(group >> 4);
    } else if (pending == 3) {
        *out++ = char(group >> 10);
        *out++ = char(group >> 2);
    }
    bytes.truncate(out - bytes.constData());
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
