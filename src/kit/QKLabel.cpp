#include "QKLabel.h"

#include "QKTextMetrics.h"

#include <cfloat>

QKLabel::QKLabel(const QRectF &frame, QWidget *parent) : QKView(frame, parent), m_font(QKTextMetrics::defaultFont())
{
    // Taps on a label belong to what it sits on.
    setUserInteractionEnabled(false);
}

QKLabel::~QKLabel() = default;

void QKLabel::setText(const QString &text)
{
    if (m_text == text && m_text.isNull() == text.isNull())
        return;
    m_text = text;
    update();
}

void QKLabel::setFont(const QFont &font)
{
    m_font = font;
    update();
}

void QKLabel::setTextColor(const QColor &color)
{
    m_textColor = color;
    update();
}

void QKLabel::setTextAlignment(Qt::Alignment alignment)
{
    m_alignment = alignment;
    update();
}

void QKLabel::setNumberOfLines(int lines)
{
    m_numberOfLines = qMax(0, lines);
    update();
}

QSizeF QKLabel::sizeThatFits(const QSizeF &size) const
{
    if (m_text.isEmpty())
        return QSizeF(0, 0);
    if (m_numberOfLines == 1) {
        const QSizeF needed = QKTextMetrics::sizeWithFont(m_text, m_font);
        return QSizeF(size.width() > 0 ? qMin(needed.width(), size.width()) : needed.width(), needed.height());
    }
    const QSizeF limit(size.width() > 0 ? size.width() : qreal(FLT_MAX), qreal(FLT_MAX));
    const QRectF rect = QKTextMetrics::boundingRect(m_text, m_font, limit);
    qreal height = rect.height();
    if (m_numberOfLines > 0)
        height = qMin(height, m_numberOfLines * QKTextMetrics::lineHeight(m_font));
    return QSizeF(rect.width(), height);
}

void QKLabel::drawRect(QPainter &painter, const QRectF &rect)
{
    QKTextMetrics::drawText(painter, rect, m_text, m_font, m_textColor, m_alignment, m_numberOfLines);
}
