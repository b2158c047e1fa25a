// Base64 as images travel in archives and answers: whatever decodes must encode
// (with its line breaks) and decode back to the same bytes, and any bytes must
// survive encoding.
#include "FuzzSupport.h"

#include "base/QKBase64.h"

#include <cstdint>

MURMORA_FUZZ_INITIALIZE

namespace {

void checkRoundTrip(const QByteArray &bytes)
{
    using FuzzSupport::check;
    const QString text = QKBase64::encodeWithLineBreaks(bytes);
    check(!text.isNull(), "bytes encode to a null text");
    if (!text.isEmpty())
        for (const QString &line : text.split(QLatin1String("\r\n")))
            check(line.size() <= 64 && !line.isEmpty(), "a line of the wrong length", text);
    check(!text.contains(QLatin1Char('\n')) || text.count(QLatin1String("\r\n")) == text.count(QLatin1Char('\n')),
          "a bare line feed", text);
    check(QKBase64::decodeIgnoringUnknownCharacters(text) == bytes, "encoded bytes decode differently", text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray input(reinterpret_cast<const char *>(data), qsizetype(size));
    const QByteArray decoded = QKBase64::decodeIgnoringUnknownCharacters(QString::fromUtf8(input));
    if (!decoded.isNull())
        checkRoundTrip(decoded);
    checkRoundTrip(input);
    return 0;
}
