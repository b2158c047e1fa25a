#pragma once

#include "QKGlobal.h"

#include <QString>

/// The translation of `key` in the context "Murmora" from the translators the
/// host installed; the key (the English text) itself when there is none.
MURMORA_DATA_EXPORT QString QKLocalizedString(const char *key);
MURMORA_DATA_EXPORT QString QKLocalizedString(const QString &key);
