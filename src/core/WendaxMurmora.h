#pragma once

#include "../kit/QKGlobalKit.h"

#include <QString>

/// The library's version information.
class MURMORA_EXPORT WendaxMurmora
{
public:
    static QString versionString();
};

extern "C" {
/// Plain data for the host's build tools.
MURMORA_EXPORT extern const double WendaxMurmoraVersionNumber;
MURMORA_EXPORT extern const unsigned char WendaxMurmoraVersionString[];
}
