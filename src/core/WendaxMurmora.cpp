#include "WendaxMurmora.h"

QString WendaxMurmora::versionString()
{
    return QStringLiteral("2017.2.914");
}

extern "C" {
const double WendaxMurmoraVersionNumber = 1.0;
const unsigned char WendaxMurmoraVersionString[] = "@(#)PROGRAM:WendaxMurmora  PROJECT:Murmora-1\n";
}
