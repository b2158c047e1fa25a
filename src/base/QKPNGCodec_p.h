#pragma once

#include "QKGlobal.h"

/// Makes every PNG encoding go through QImage::save instead: the baseline that
/// benchmarks measure the library's own encoder against.
MURMORA_DATA_EXPORT void QKPNGCodecUseQtEncoder(bool qt);

/// Makes the encoder use its portable byte loops even where vector instructions are
/// available, so tests check both.
MURMORA_DATA_EXPORT void QKPNGCodecUsePortablePaths(bool portable);
