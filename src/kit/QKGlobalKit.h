#pragma once

#include <QtCore/qglobal.h>

#if defined(MURMORA_LIBRARY)
#define MURMORA_EXPORT Q_DECL_EXPORT
#else
#define MURMORA_EXPORT Q_DECL_IMPORT
#endif
