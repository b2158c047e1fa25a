#pragma once

#include "../kit/QKGlobalKit.h"

#include <QString>

/// The library's version information.
class MURMORA_EXPORT WendaxMurmora
{
public:
    /// The version as text, e.g. "1.0.0".
    static QString versionString();
};

extern "C" {
/// The version as a number, for the host's build tools.
MURMORA_EXPORT extern const double WendaxMurmoraVersionNumber;
/// The version as a C string, for the host's build tools.
MURMORA_EXPORT extern const unsigned char WendaxMurmoraVersionString[];
}
