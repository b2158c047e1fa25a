// The service's date parser, fed any text: what it accepts must format back to a
// text it reads as the same instant.
#include "FuzzSupport.h"

#include "base/QKServiceDate.h"

#include <cstdint>

MURMORA_FUZZ_INITIALIZE

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using FuzzSupport::check;
    const QString text = QString::fromUtf8(reinterpret_cast<const char *>(data), qsizetype(size));
    const QDateTime date = QKServiceDate::parse(text);
    if (!date.isValid())
        return 0;
    check(text.size() == 28, "accepted a date of another length", text);
    check(date.timeSpec() == Qt::UTC, "parsed date not in UTC", text);
    const QString formatted = QKServiceDate::format(date);
    const QDateTime again = QKServiceDate::parse(formatted);
    check(again.isValid() && again == date, "formatted date does not read back",
          text + QLatin1String(" -> ") + formatted);
    if (text.endsWith(QLatin1String("+0000")))
        check(formatted == text, "a UTC date formats differently", text + QLatin1String(" -> ") + formatted);
    return 0;
}
