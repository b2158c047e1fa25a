#pragma once

#include <QtCore/qglobal.h>

#if defined(MURMORA_DATA_LIBRARY)
#define MURMORA_DATA_EXPORT Q_DECL_EXPORT
#else
#define MURMORA_DATA_EXPORT Q_DECL_IMPORT
#endif
