#pragma once

#include "QKControl.h"

#include <QFont>
#include <QHash>

/// A tappable title. System buttons are plain tinted text; custom ones show
/// what they are given (white text by default, on a background the caller sets).
class MURMORA_EXPORT QKButton : public QKControl
{
    Q_OBJECT
public:
    enum Type { Custom = 0, System = 1 };
    enum State { Normal = 0, Highlighted = 1, Disabled = 2 };

    explicit QKButton(Type type = Custom, const QRectF &frame = QRectF(), QWidget *parent = nullptr);
    ~QKButton() override;

    Type buttonType() const { return m_type; }

    /// A state without a title or colour of its own uses the Normal one.
    QString titleForState(State state) const;
    void setTitle(const QString &title, State state = Normal);
    QColor titleColorForState(State state) const;
    void setTitleColor(const QColor &color, State state = Normal);
    /// System 15 for system buttons, system 17 for custom ones unless set.
    QFont titleFont() const { return m_font; }
    void setTitleFont(const QFont &font);

    /// For the state the button is in now: disabled wins over highlighted.
    QString currentTitle() const;
    /// Dimmed while highlighted unless the Highlighted state has a colour of its own.
    QColor currentTitleColor() const;

    /// The title's width, and its height plus 12 but at least 30.
    QSizeF sizeThatFits(const QSizeF &size) const override;
    void drawRect(QPainter &painter, const QRectF &rect) override;

private:
    State currentState() const;

    Type m_type;
    QHash<int, QString> m_titles;
    QHash<int, QColor> m_colors;
    QFont m_font;
};
