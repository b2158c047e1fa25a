#include "QKButton.h"

#include "QKFont.h"
#include "QKTextMetrics.h"

#include <QPainter>

namespace {

const QColor systemBlue(0, 122, 255);
const QColor disabledGrey(199, 199, 204);
// How much of the title's colour shows while a finger is down on it.
constexpr qreal highlightedAlpha = 0.25;

} // namespace

QKButton::QKButton(Type type, const QRectF &frame, QWidget *parent)
    : QKControl(frame, parent), m_type(type), m_font(QKFont::system(type == System ? 15 : 17))
{}

QKButton::~QKButton() = default;

QString QKButton::titleForState(State state) const
{
    return m_titles.value(state, m_titles.value(Normal));
}

void QKButton::setTitle(const QString &title, State state)
{
    m_titles.insert(state, title);
    update();
}

QColor QKButton::titleColorForState(State state) const
{
    if (m_colors.contains(state))
        return m_colors.value(state);
    if (m_type == System && state == Disabled)
        return disabledGrey;
    if (m_colors.contains(Normal))
        return m_colors.value(Normal);
    return m_type == System ? systemBlue : QColor(Qt::white);
}

void QKButton::setTitleColor(const QColor &color, State state)
{
    m_colors.insert(state, color);
    update();
}

void QKButton::setTitleFont(const QFont &font)
{
    m_font = font;
    update();
}

QKButton::State QKButton::currentState() const
{
    if (!isEnabled())
        return Disabled;
    return isHighlighted() ? Highlighted : Normal;
}

QString QKButton::currentTitle() const
{
    return titleForState(currentState());
}

QColor QKButton::currentTitleColor() const
{
    const State state = currentState();
    QColor color = titleColorForState(state);
    if (state == Highlighted && !m_colors.contains(Highlighted))
        color.setAlphaF(color.alphaF() * highlightedAlpha);
    return color;
}

QSizeF QKButton::sizeThatFits(const QSizeF &) const
{
    const QSizeF text = QKTextMetrics::sizeWithFont(currentTitle(), m_font);
    return QSizeF(currentTitle().isEmpty() ? 0 : text.width(), qMax(text.height() + 12, qreal(30)));
}

void QKButton::drawRect(QPainter &painter, const QRectF &rect)
{
    QKTextMetrics::drawText(painter, rect, currentTitle(), m_font, currentTitleColor(), Qt::AlignHCenter, 1);
}
