#include "QKTextMetrics.h"

#include "QKFont.h"

#include <QFontMetricsF>
#include <QPainter>
#include <QTextLayout>

#include <cmath>

namespace {

// Line breaking counts on QTextLayout seeing newlines as line separators.
QString prepared(const QString &text)
{
    QString result = text;
    result.replace(QLatin1String("\r\n"), QStringLiteral("\n"));
    result.replace(QLatin1Char('\n'), QChar::LineSeparator);
    result.replace(QLatin1Char('\r'), QChar::LineSeparator);
    return result;
}

// Text layout works in 26.6 fixed point: "unlimited" has to stay well inside it.
constexpr qreal unlimited = 1e6;

qreal usableWidth(qreal width)
{
    return (width <= 0 || width >= unlimited) ? unlimited : width;
}

// Lays out up to `maxLines` lines (0: all) of `width`; answers whether text was left over.
bool layoutLines(QTextLayout &layout, qreal width, int maxLines, bool wrap)
{
    QTextOption option;
    option.setWrapMode(wrap ? QTextOption::WrapAtWordBoundaryOrAnywhere : QTextOption::NoWrap);
    layout.setTextOption(option);
    layout.beginLayout();
    QTextLine last;
    for (int count = 0; maxLines == 0 || count < maxLines; ++count) {
        QTextLine line = layout.createLine();
        if (!line.isValid())
            break;
        line.setLineWidth(wrap ? usableWidth(width) : unlimited);
        last = line;
    }
    layout.endLayout();
    if (!last.isValid())
        return false;
    const int end = last.textStart() + last.textLength();
    return !QStringView(layout.text()).mid(end).trimmed().isEmpty();
}

} // namespace

qreal QKTextMetrics::lineHeight(const QFont &font)
{
    return QFontMetricsF(font).lineSpacing();
}

QFont QKTextMetrics::defaultFont()
{
    return QKFont::system(17);
}

QSizeF QKTextMetrics::sizeWithFont(const QString &text, const QFont &font)
{
    if (text.isEmpty())
        return QSizeF(0, lineHeight(font));
    QString line = text;
    line.replace(QLatin1Char('\n'), QLatin1Char(' '));
    return QSizeF(boundingRect(line, font, QSizeF(), false).width(), lineHeight(font));
}

QRectF QKTextMetrics::boundingRect(const QString &text, const QFont &font, const QSizeF &limit,
                                   bool usesLineFragmentOrigin)
{
    if (text.isNull())
        return QRectF();
    QTextLayout layout(prepared(text), font);
    layoutLines(layout, limit.width(), usesLineFragmentOrigin ? 0 : 1, usesLineFragmentOrigin);
    qreal width = 0;
    for (int i = 0; i < layout.lineCount(); ++i)
        width = qMax(width, layout.lineAt(i).naturalTextWidth());
    if (usesLineFragmentOrigin && limit.width() > 0)
        width = qMin(width, limit.width());
    return QRectF(0, 0, width, qMax(1, layout.lineCount()) * lineHeight(font));
}

void QKTextMetrics::drawText(QPainter &painter, const QRectF &rect, const QString &text, const QFont &font,
                             const QColor &color, Qt::Alignment alignment, int maxLines)
{
    if (text.isEmpty() || rect.isEmpty())
        return;
    const qreal height = lineHeight(font);
    // A line that is nearly in still counts, so that rounding doesn't drop one.
    const int fitting = qMax(1, int(std::floor(rect.height() / height + 0.05)));
    maxLines = maxLines > 0 ? qMin(maxLines, fitting) : fitting;

    QTextLayout layout(prepared(text), font);
    // A text measured to exactly this width must not wrap on rounding.
    const bool leftOver = layoutLines(layout, rect.width() + 0.01, maxLines, true);
    const int count = layout.lineCount();
    const QFontMetricsF metrics(font);
    const qreal top = rect.top() + (rect.height() - count * height) / 2;

    auto xFor = [&](qreal lineWidth) {
        if (alignment & Qt::AlignHCenter)
            return rect.left() + (rect.width() - lineWidth) / 2;
        if (alignment & Qt::AlignRight)
            return rect.right() - lineWidth;
        return rect.left();
    };

    painter.save();
    painter.setClipRect(rect, Qt::IntersectClip);
    painter.setPen(color);
    painter.setFont(font);
    for (int i = 0; i < count; ++i) {
        QTextLine line = layout.lineAt(i);
        const qreal y = top + i * height;
        if (leftOver && i == count - 1) {
            QString rest = layout.text().mid(line.textStart());
            rest.replace(QChar::LineSeparator, QLatin1Char(' '));
            const QString elided = metrics.elidedText(rest.trimmed(), Qt::ElideRight, rect.width());
            painter.drawText(QPointF(xFor(metrics.horizontalAdvance(elided)), y + metrics.ascent()), elided);
            break;
        }
        line.setPosition(QPointF(0, 0));
        line.draw(&painter, QPointF(xFor(line.naturalTextWidth()), y + metrics.ascent() - line.ascent()));
    }
    painter.restore();
}
