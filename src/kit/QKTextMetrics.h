#pragma once

#include "QKGlobalKit.h"

#include <QColor>
#include <QFont>
#include <QRectF>
#include <QSizeF>
#include <QString>

class QPainter;

/// The one place text is measured, and drawn as measured: lines break at word
/// boundaries (anywhere inside a word too long for a line), each line is one
/// line height (the font's line spacing) tall.
class MURMORA_EXPORT QKTextMetrics
{
public:
    /// One line: the text's width and one line's height, also for a null or empty text.
    static QSizeF sizeWithFont(const QString &text, const QFont &font);
    /// The text wrapped within limit.width (limit.height may be FLT_MAX), at the origin;
    /// the width is the widest line's. Without usesLineFragmentOrigin: one line, no
    /// wrapping. A null text is 0 high, an empty one a line high.
    static QRectF boundingRect(const QString &text, const QFont &font, const QSizeF &limit,
                               bool usesLineFragmentOrigin = true);
    /// Line height of `font` as boundingRect counts it.
    static qreal lineHeight(const QFont &font);
    static QFont defaultFont();

    /// Draws `text` broken into lines as boundingRect measures it for rect's width,
    /// at most `maxLines` (0: as many as fit in rect's height), the block centred
    /// vertically in `rect`, each line placed by `alignment`; the last line shown
    /// ends in an ellipsis when text is left over.
    static void drawText(QPainter &painter, const QRectF &rect, const QString &text, const QFont &font,
                         const QColor &color, Qt::Alignment alignment, int maxLines);
};
