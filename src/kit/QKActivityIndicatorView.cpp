#include "QKActivityIndicatorView.h"

#include <QPainter>

#include <cmath>

namespace {

constexpr int spokes = 12;

QColor colorFor(QKActivityIndicatorView::Style style)
{
    return style == QKActivityIndicatorView::Gray ? QColor(128, 128, 128) : QColor(Qt::white);
}

} // namespace

QKActivityIndicatorView::QKActivityIndicatorView(Style style, QWidget *parent)
    : QKView(QRectF(), parent), m_style(style), m_color(colorFor(style))
{
    m_timer.setInterval(60);
    connect(&m_timer, &QTimer::timeout, this, [this] {
        m_step = (m_step + 1) % spokes;
        update();
    });
    setFrame(QRectF(QPointF(0, 0), sizeThatFits(QSizeF())));
    setViewHidden(true);
}

QKActivityIndicatorView::~QKActivityIndicatorView() = default;

void QKActivityIndicatorView::setStyle(Style style)
{
    const bool defaultColor = m_color == colorFor(m_style);
    m_style = style;
    if (defaultColor)
        m_color = colorFor(style);
    setBounds(QRectF(QPointF(0, 0), sizeThatFits(QSizeF())));
    update();
}

void QKActivityIndicatorView::setColor(const QColor &color)
{
    m_color = color;
    update();
}

void QKActivityIndicatorView::startAnimating()
{
    m_animating = true;
    if (isViewHidden())
        setViewHidden(false);
    updateTimer();
}

void QKActivityIndicatorView::stopAnimating()
{
    m_animating = false;
    if (m_hidesWhenStopped)
        setViewHidden(true);
    updateTimer();
    update();
}

void QKActivityIndicatorView::setHidesWhenStopped(bool hides)
{
    m_hidesWhenStopped = hides;
    if (hides && !m_animating)
        setViewHidden(true);
}

void QKActivityIndicatorView::updateTimer()
{
    // Nothing to turn while stopped or not on screen.
    if (m_animating && isVisible())
        m_timer.start();
    else
        m_timer.stop();
}

QSizeF QKActivityIndicatorView::sizeThatFits(const QSizeF &) const
{
    return m_style == WhiteLarge ? QSizeF(37, 37) : QSizeF(20, 20);
}

void QKActivityIndicatorView::drawRect(QPainter &painter, const QRectF &rect)
{
    const qreal side = qMin(rect.width(), rect.height());
    if (side <= 0)
        return;
    const qreal outer = side / 2;
    const qreal inner = outer * 0.48;
    const qreal thickness = side * (m_style == WhiteLarge ? 0.085 : 0.1);
    painter.save();
    painter.translate(rect.center());
    for (int i = 0; i < spokes; ++i) {
        // The spoke at the current step is brightest; those behind it fade.
        const int age = (m_step - i + spokes) % spokes;
        QColor color = m_color;
        color.setAlphaF(m_color.alphaF() * (m_animating ? qMax(0.25, 1.0 - age / qreal(spokes)) : 0.6));
        painter.setPen(QPen(color, thickness, Qt::SolidLine, Qt::RoundCap));
        const qreal angle = 2 * M_PI * i / spokes - M_PI / 2;
        const QPointF direction(std::cos(angle), std::sin(angle));
        painter.drawLine(direction * (inner + thickness / 2), direction * (outer - thickness / 2));
    }
    painter.restore();
}

void QKActivityIndicatorView::showEvent(QShowEvent *event)
{
    QKView::showEvent(event);
    updateTimer();
}

void QKActivityIndicatorView::hideEvent(QHideEvent *event)
{
    QKView::hideEvent(event);
    updateTimer();
}
