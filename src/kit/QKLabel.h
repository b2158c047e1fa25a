#pragma once

#include "QKView.h"

#include <QFont>

/// A read-only piece of text, drawn and measured through QKTextMetrics: one line
/// by default, centred vertically in the bounds like the platform's label, cut
/// short with an ellipsis when it doesn't fit.
class MURMORA_EXPORT QKLabel : public QKView
{
    Q_OBJECT
public:
    explicit QKLabel(const QRectF &frame = QRectF(), QWidget *parent = nullptr);
    ~QKLabel() override;

    QString text() const { return m_text; }
    void setText(const QString &text);
    /// QKTextMetrics::defaultFont() unless set.
    QFont font() const { return m_font; }
    void setFont(const QFont &font);
    /// Black unless set.
    QColor textColor() const { return m_textColor; }
    void setTextColor(const QColor &color);
    /// Qt::AlignLeft (the default), Qt::AlignHCenter or Qt::AlignRight.
    Qt::Alignment textAlignment() const { return m_alignment; }
    void setTextAlignment(Qt::Alignment alignment);
    /// 1 by default; 0 for as many as the text needs.
    int numberOfLines() const { return m_numberOfLines; }
    void setNumberOfLines(int lines);

    /// One line: the text's size, no wider than size.width when that is above 0.
    /// Several: the text wrapped within size.width (unlimited when 0), up to numberOfLines.
    QSizeF sizeThatFits(const QSizeF &size) const override;
    void drawRect(QPainter &painter, const QRectF &rect) override;

private:
    QString m_text;
    QFont m_font;
    QColor m_textColor = Qt::black;
    Qt::Alignment m_alignment = Qt::AlignLeft;
    int m_numberOfLines = 1;
};
