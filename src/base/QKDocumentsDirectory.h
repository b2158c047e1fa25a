#pragma once

#include "QKGlobal.h"

#include <QString>

/// The directory in which the library keeps its files. A host may set it (an
/// empty string restores the default, QStandardPaths::AppDataLocation). It is
/// not created here; writers create it on their first write. Thread-safe.
MURMORA_DATA_EXPORT QString QKDocumentsDirectory();
MURMORA_DATA_EXPORT void QKSetDocumentsDirectory(const QString &path);
