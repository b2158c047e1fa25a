#pragma once

#include "QKGlobal.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QString>

/// Base64 as the records store images: lines of 64 characters joined by CR LF,
/// and a decoder that skips whatever is not of the alphabet (so line breaks too).
class MURMORA_DATA_EXPORT QKBase64
{
public:
    /// Base64 of `data`, broken every 64 characters with CR LF (none after the last line).
    /// A null array gives a null string.
    static QString encodeWithLineBreaks(const QByteArray &data);

    /// The bytes of `text`, skipping characters outside the Base64 alphabet. Padding
    /// ('=') may only end the text and must make its length a multiple of four; text that
    /// breaks that rule, or a null string, gives a null array.
    static QByteArray decodeIgnoringUnknownCharacters(const QString &text);

    /// The same two as ASCII bytes, without going through UTF-16: large images.
    static QByteArray encodeWithLineBreaksToASCII(const QByteArray &data);
    static QByteArray decodeASCIIIgnoringUnknownCharacters(QByteArrayView ascii);
    /// Whether every byte is below 0x80.
    static bool isASCII(QByteArrayView bytes);
};
