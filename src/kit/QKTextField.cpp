#include "QKTextField.h"

#include "QKKeyboard.h"

#include "QKFont.h"
#include "QKTextMetrics.h"

#include <QApplication>
#include <QFocusEvent>
#include <QLineEdit>
#include <QPainter>
#include <QProxyStyle>
#include <QScreen>
#include <QTimer>

namespace {

// Qt's caret takes the text colour; ours takes the tint, so Qt's is made zero wide.
class NoCaretStyle : public QProxyStyle
{
public:
    int pixelMetric(PixelMetric metric, const QStyleOption *option, const QWidget *widget) const override
    {
        if (metric == PM_TextCursorWidth)
            return 0;
        return QProxyStyle::pixelMetric(metric, option, widget);
    }
};

class TintedLineEdit : public QLineEdit
{
public:
    explicit TintedLineEdit(QWidget *parent) : QLineEdit(parent)
    {
        auto *style = new NoCaretStyle;
        style->setParent(this);
        setStyle(style);
        const int flash = QApplication::cursorFlashTime();
        m_blink.setInterval(flash > 0 ? flash / 2 : 0);
        connect(&m_blink, &QTimer::timeout, this, [this] {
            m_caretShown = !m_caretShown;
            update();
        });
        connect(this, &QLineEdit::cursorPositionChanged, this, [this] { restartBlink(); });
        connect(this, &QLineEdit::textChanged, this, [this] { restartBlink(); });
    }

    QColor tint;

protected:
    void focusInEvent(QFocusEvent *event) override
    {
        QLineEdit::focusInEvent(event);
        restartBlink();
    }
    void focusOutEvent(QFocusEvent *event) override
    {
        QLineEdit::focusOutEvent(event);
        m_blink.stop();
        update();
    }
    void paintEvent(QPaintEvent *event) override
    {
        QLineEdit::paintEvent(event);
        if (!hasFocus() || !m_caretShown || isReadOnly() || hasSelectedText())
            return;
        // cursorRect() reaches 5 pixels left of the caret position and one below the line.
        const QRect area = cursorRect();
        QPainter painter(this);
        painter.fillRect(QRectF(area.left() + 5 - 1, area.top(), 2, area.height() - 1), tint);
    }

private:
    void restartBlink()
    {
        m_caretShown = true;
        if (hasFocus() && m_blink.interval() > 0)
            m_blink.start();
        update();
    }

    QTimer m_blink;
    bool m_caretShown = true;
};

bool endsEditing(Qt::FocusReason reason)
{
    // A context menu or another window taking over leaves the field editing.
    return reason != Qt::PopupFocusReason && reason != Qt::ActiveWindowFocusReason;
}

} // namespace

QKTextField::QKTextField(const QRectF &frame, QWidget *parent)
    : QKControl(frame, parent), m_edit(new TintedLineEdit(this)), m_font(QKFont::system(17))
{
    // Screens follow the on-screen keyboard once there is something to type into.
    QKKeyboard::startTracking();
    m_edit->setFrame(false);
    // Nothing edits until tapped or asked to, not even the first field of a new window.
    m_edit->setFocusPolicy(Qt::ClickFocus);
    m_edit->setAttribute(Qt::WA_MacShowFocusRect, false);
    m_edit->setTextMargins(0, 0, 0, 0);
    m_edit->setFont(m_font);
    m_edit->installEventFilter(this);
    connect(m_edit, &QLineEdit::textEdited, this, [this] { sendActions(EditingChanged); });
    connect(m_edit, &QLineEdit::returnPressed, this, [this] { sendActions(EditingDidEndOnExit); });
    applyPalette();
    layoutSubviews();
}

QKTextField::~QKTextField()
{
    // The editor's focus-out during destruction must not reach a half-destroyed field.
    m_edit->removeEventFilter(this);
}

QString QKTextField::text() const
{
    return m_edit->text();
}

void QKTextField::setText(const QString &text)
{
    m_edit->setText(text);
}

QString QKTextField::placeholder() const
{
    return m_edit->placeholderText();
}

void QKTextField::setPlaceholder(const QString &placeholder)
{
    m_edit->setPlaceholderText(placeholder);
}

void QKTextField::setFont(const QFont &font)
{
    m_font = font;
    m_edit->setFont(font);
}

void QKTextField::setTextColor(const QColor &color)
{
    m_textColor = color;
    applyPalette();
}

void QKTextField::setTintColor(const QColor &color)
{
    m_tintColor = color;
    applyPalette();
}

void QKTextField::setBorderStyle(BorderStyle style)
{
    m_borderStyle = style;
    layoutSubviews();
    update();
}

void QKTextField::setAutocorrectionType(AutocorrectionType type)
{
    m_autocorrection = type;
    Qt::InputMethodHints hints = m_edit->inputMethodHints();
    hints.setFlag(Qt::ImhNoPredictiveText, type == AutocorrectionNo);
    m_edit->setInputMethodHints(hints);
}

void QKTextField::applyPalette()
{
    QPalette palette = m_edit->palette();
    for (auto group : {QPalette::Active, QPalette::Inactive, QPalette::Disabled}) {
        palette.setColor(group, QPalette::Base, Qt::transparent);
        palette.setColor(group, QPalette::Text, m_textColor);
        palette.setColor(group, QPalette::PlaceholderText, QColor(199, 199, 205));
        QColor selection = m_tintColor;
        selection.setAlphaF(0.25);
        palette.setColor(group, QPalette::Highlight, selection);
        palette.setColor(group, QPalette::HighlightedText, m_textColor);
    }
    m_edit->setPalette(palette);
    static_cast<TintedLineEdit *>(m_edit)->tint = m_tintColor;
    m_edit->update();
}

bool QKTextField::becomeFirstResponder()
{
    if (!isEnabled())
        return false;
    m_edit->setFocus(Qt::OtherFocusReason);
    return isFirstResponder();
}

bool QKTextField::resignFirstResponder()
{
    if (m_edit->hasFocus())
        m_edit->clearFocus();
    return true;
}

bool QKTextField::isFirstResponder() const
{
    return m_edit->hasFocus();
}

qreal QKTextField::horizontalInset() const
{
    return m_borderStyle == BorderNone ? 0 : 7;
}

QSizeF QKTextField::sizeThatFits(const QSizeF &size) const
{
    const qreal line = QKTextMetrics::lineHeight(m_font);
    return QSizeF(size.width() > 0 ? size.width() : 100, m_borderStyle == BorderNone ? line : line + 14);
}

void QKTextField::layoutSubviews()
{
    // QLineEdit keeps 2 pixels between its edge and the text.
    const int inset = qRound(horizontalInset()) - 2;
    m_edit->setGeometry(inset, 0, qMax(0, width() - 2 * inset), height());
}

void QKTextField::drawRect(QPainter &painter, const QRectF &rect)
{
    if (m_borderStyle == BorderNone)
        return;
    const qreal ratio = devicePixelRatioF();
    // A hairline on sharp screens, a whole pixel otherwise.
    const qreal line = ratio >= 2 ? 0.5 : 1.0;
    const QRectF edge = rect.adjusted(line / 2, line / 2, -line / 2, -line / 2);
    painter.save();
    switch (m_borderStyle) {
    case BorderRoundedRect:
        painter.setPen(QPen(QColor(0, 0, 0, 51), line));
        painter.setBrush(Qt::white);
        painter.drawRoundedRect(edge, 5, 5);
        break;
    case BorderLine:
        painter.setPen(QPen(Qt::black, line));
        painter.setBrush(Qt::NoBrush);
        painter.drawRect(edge);
        break;
    case BorderBezel:
        painter.setPen(QPen(QColor(0, 0, 0, 90), line));
        painter.setBrush(Qt::white);
        painter.drawRect(edge);
        // The sunken look: a darker top edge.
        painter.setPen(QPen(QColor(0, 0, 0, 140), line));
        painter.drawLine(edge.topLeft(), edge.topRight());
        break;
    case BorderNone:
        break;
    }
    painter.restore();
}

bool QKTextField::eventFilter(QObject *watched, QEvent *event)
{
    if (watched != m_edit)
        return QKControl::eventFilter(watched, event);
    switch (event->type()) {
    case QEvent::FocusIn:
        if (!m_editing) {
            m_editing = true;
            sendActions(EditingDidBegin);
        }
        break;
    case QEvent::FocusOut:
        if (m_editing && endsEditing(static_cast<QFocusEvent *>(event)->reason())) {
            m_editing = false;
            sendActions(EditingDidEnd);
            if (m_didEndEditing)
                m_didEndEditing(this);
        }
        break;
    case QEvent::MouseButtonPress:
    case QEvent::MouseButtonRelease:
    case QEvent::MouseButtonDblClick:
    case QEvent::MouseMove:
        // Taps on a disabled field go on to what is underneath.
        if (!isEnabled()) {
            event->ignore();
            return true;
        }
        break;
    default:
        break;
    }
    return QKControl::eventFilter(watched, event);
}

void QKTextField::enabledChanged()
{
    m_edit->setReadOnly(!isEnabled());
    m_edit->setFocusPolicy(isEnabled() ? Qt::ClickFocus : Qt::NoFocus);
    if (!isEnabled())
        resignFirstResponder();
    QKControl::enabledChanged();
}

void QKTextField::mousePressEvent(QMouseEvent *event)
{
    // A tap on the border area edits too.
    if (isEnabled())
        m_edit->setFocus(Qt::MouseFocusReason);
    QKControl::mousePressEvent(event);
}
