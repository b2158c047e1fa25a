#pragma once

#include "QKGlobalKit.h"

#include <QFont>
#include <QString>

/// Fonts sized in points as the platform means them: one point is one
/// device-independent pixel, so a 14-point font has a 14-pixel em whatever the
/// screen's DPI, and draws at 42 device pixels on a 3x screen. Qt's font database
/// makes engines of whole pixel sizes only, so a fractional size rounds to the
/// nearest whole one (16.5 is 17), the same for measuring and drawing.
class MURMORA_EXPORT QKFont
{
public:
    /// The platform's system font: Liberation Sans, else DejaVu Sans, else Qt's sans serif.
    static QFont system(qreal size);
    static QFont boldSystem(qreal size);
    /// A font by its platform name; "HelveticaNeue-Bold" style suffixes set the weight.
    /// A family that is not installed falls back through fontconfig, then to the system font.
    static QFont named(const QString &family, qreal size);

    /// The family system() uses.
    static QString systemFamily();
    /// Sets `font`'s size by the rule above.
    static void setSize(QFont &font, qreal size);
};
