#pragma once

#include "QKControl.h"

#include <QFont>

#include <functional>

class QLineEdit;

/// One line of editable text in the platform's manner: editing sends
/// EditingDidBegin, EditingChanged for each edit by the user (not for setText),
/// EditingDidEnd when the focus leaves, and EditingDidEndOnExit on return.
class MURMORA_EXPORT QKTextField : public QKControl
{
    Q_OBJECT
public:
    enum BorderStyle { BorderNone = 0, BorderLine = 1, BorderBezel = 2, BorderRoundedRect = 3 };
    enum AutocorrectionType { AutocorrectionDefault = 0, AutocorrectionNo = 1, AutocorrectionYes = 2 };

    explicit QKTextField(const QRectF &frame = QRectF(), QWidget *parent = nullptr);
    ~QKTextField() override;

    QString text() const;
    /// Sends no event.
    void setText(const QString &text);
    QString placeholder() const;
    void setPlaceholder(const QString &placeholder);
    /// System 17 unless set.
    QFont font() const { return m_font; }
    void setFont(const QFont &font);
    QColor textColor() const { return m_textColor; }
    void setTextColor(const QColor &color);
    /// Colours the caret and the selection; the system blue unless set.
    QColor tintColor() const { return m_tintColor; }
    void setTintColor(const QColor &color);
    BorderStyle borderStyle() const { return m_borderStyle; }
    void setBorderStyle(BorderStyle style);
    /// No turns off the input method's predictions.
    AutocorrectionType autocorrectionType() const { return m_autocorrection; }
    void setAutocorrectionType(AutocorrectionType type);

    /// Takes the keyboard focus; answers whether it has it.
    bool becomeFirstResponder();
    bool resignFirstResponder();
    bool isFirstResponder() const;

    /// Called after EditingDidEnd, like the delegate's textFieldDidEndEditing.
    void setDidEndEditing(std::function<void(QKTextField *)> callback) { m_didEndEditing = std::move(callback); }

    /// The width given (100 when 0); one line of the font plus room for the border.
    QSizeF sizeThatFits(const QSizeF &size) const override;
    void layoutSubviews() override;
    void drawRect(QPainter &painter, const QRectF &rect) override;

    /// The editor inside, for hosts and tests.
    QLineEdit *lineEdit() const { return m_edit; }

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
    void enabledChanged() override;
    void mousePressEvent(QMouseEvent *event) override;

private:
    void applyPalette();
    qreal horizontalInset() const;

    QLineEdit *m_edit;
    QFont m_font;
    QColor m_textColor = Qt::black;
    QColor m_tintColor{0, 122, 255};
    BorderStyle m_borderStyle = BorderNone;
    AutocorrectionType m_autocorrection = AutocorrectionDefault;
    bool m_editing = false;
    std::function<void(QKTextField *)> m_didEndEditing;
};
