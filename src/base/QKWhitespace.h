#pragma once

#include "QKGlobal.h"

#include <QString>

/// `text` without the blanks at either end: spaces (every Unicode space separator)
/// and tabs, but not line breaks, as the platform's whitespace set. Null stays null.
MURMORA_DATA_EXPORT QString QKTrimmedWhitespace(const QString &text);
