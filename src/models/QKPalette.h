#pragma once

#include <QColor>

/// The colours of the screens and the marker, in one place. The values are the ones the
/// screens were designed with; a restyle starts here.
namespace QKPalette {
/// Screens, bars and the comment bar.
inline QColor background()
{
    return QColor(255, 255, 255);
}
/// Titles and the text being typed, and the caret.
inline QColor text()
{
    return QColor(0, 0, 0);
}
/// Dates, placeholders, the empty-list message: two thirds grey.
inline QColor secondaryText()
{
    return QColor(170, 170, 170);
}
/// Comment texts in a list row and the details' item text: one third grey.
inline QColor darkText()
{
    return QColor(85, 85, 85);
}
/// Buttons and the state badge.
inline QColor tint()
{
    return QColor(0, 122, 255);
}
/// Text on the state badge.
inline QColor onTint()
{
    return QColor(255, 255, 255);
}
/// The navigation bar's buttons on the screens opened from the menu.
inline QColor navigationTint()
{
    return QColor(10, 96, 255);
}
/// The frame around a screenshot in the details.
inline QColor imageBorder()
{
    return QColor(190, 190, 190);
}
/// A marker's dot, and the ring around it.
inline QColor marker()
{
    return QColor(255, 0, 0);
}
inline QColor markerRing()
{
    return QColor(255, 255, 255);
}
/// The shadow under the screenshot on the send screen.
inline QColor shadow()
{
    return QColor(0, 0, 0);
}
} // namespace QKPalette
