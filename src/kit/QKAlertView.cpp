#include "QKAlertView.h"

#include "QKFont.h"
#include "QKModalOverlay_p.h"
#include "QKTextMetrics.h"
#include "QKWindow.h"

#include <QPainter>
#include <QPainterPath>

#include <cfloat>
#include <cmath>

namespace {

const QColor Tint(0, 122, 255);
const QColor Hairline(60, 60, 67, 74);
const qreal CardWidth = 270;
const qreal Radius = 14;
const qreal Inset = 16;
const qreal TextMargin = 20;
const qreal TitleGap = 4;
const qreal ButtonHeight = 44;
const double FadeIn = 0.25;
const double FadeOut = 0.2;

// The dim and the card. Taps off the buttons do nothing: an alert wants an answer.
class AlertOverlay : public QKModalOverlay
{
public:
    AlertOverlay(const QString &title, const QString &message, const QStringList &buttons, int cancelIndex)
        : QKModalOverlay(buttons, cancelIndex), m_title(title), m_message(message)
    {}

    QRectF buttonRect(int index) const override
    {
        if (index < 0 || index >= m_buttons.size())
            return QRectF();
        const Layout layout = layoutFor();
        const QRectF &card = layout.card;
        if (sideBySide()) {
            const qreal half = card.width() / 2;
            return QRectF(card.left() + index * half, layout.buttonsTop, half, ButtonHeight);
        }
        // Stacked, the cancel button goes to the bottom.
        int row = index;
        if (m_cancelIndex == 0)
            row = index == 0 ? int(m_buttons.size()) - 1 : index - 1;
        return QRectF(card.left(), layout.buttonsTop + row * ButtonHeight, card.width(), ButtonHeight);
    }

    void drawRect(QPainter &painter, const QRectF &rect) override
    {
        painter.fillRect(rect, QColor(0, 0, 0, qRound(255 * 0.3 * progress())));
        const Layout layout = layoutFor();
        const QRectF card = layout.card;
        painter.save();
        painter.setOpacity(progress());
        if (isAppearing()) {
            // Grows into place as it fades in, as the platform's does.
            const qreal scale = 1.1 - 0.1 * progress();
            painter.translate(card.center());
            painter.scale(scale, scale);
            painter.translate(-card.center());
        }
        QPainterPath shape;
        shape.addRoundedRect(card, Radius, Radius);
        painter.fillPath(shape, Qt::white);
        painter.setClipPath(shape);

        QKTextMetrics::drawText(painter, layout.title, m_title, titleFont(), Qt::black, Qt::AlignHCenter, 0);
        QKTextMetrics::drawText(painter, layout.message, m_message, messageFont(), Qt::black, Qt::AlignHCenter, 0);

        const qreal hairline = 1.0 / painter.device()->devicePixelRatioF();
        for (int i = 0; i < m_buttons.size(); ++i) {
            const QRectF button = buttonRect(i);
            if (i == pressedIndex())
                painter.fillRect(button, QColor(0, 0, 0, 20));
            if (button.top() > card.top())
                painter.fillRect(QRectF(button.left(), button.top(), button.width(), hairline), Hairline);
            if (sideBySide() && i == 1)
                painter.fillRect(QRectF(button.left(), button.top(), hairline, button.height()), Hairline);
            const QFont font = i == m_cancelIndex ? titleFont() : buttonFont();
            QKTextMetrics::drawText(painter, button.adjusted(8, 0, -8, 0), m_buttons[i], font, Tint, Qt::AlignHCenter,
                                    1);
        }
        painter.restore();
    }

private:
    struct Layout
    {
        QRectF card;
        QRectF title;
        QRectF message;
        qreal buttonsTop = 0;
    };

    static QFont titleFont() { return QKFont::boldSystem(17); }
    static QFont messageFont() { return QKFont::system(13); }
    static QFont buttonFont() { return QKFont::system(17); }

    bool sideBySide() const { return m_buttons.size() == 2; }

    static qreal textHeight(const QString &text, const QFont &font, qreal width)
    {
        if (text.isEmpty())
            return 0;
        return std::ceil(QKTextMetrics::boundingRect(text, font, QSizeF(width, FLT_MAX)).height());
    }

    Layout layoutFor() const
    {
        const QSizeF size = frame().size();
        const qreal width = qMin(CardWidth, size.width() - 2 * Inset);
        const qreal textWidth = width - 2 * Inset;
        const qreal titleHeight = textHeight(m_title, titleFont(), textWidth);
        qreal messageHeight = textHeight(m_message, messageFont(), textWidth);
        const qreal gap = titleHeight > 0 && messageHeight > 0 ? TitleGap : 0;
        const qreal buttonsHeight = sideBySide() ? ButtonHeight : m_buttons.size() * ButtonHeight;
        const bool hasText = titleHeight > 0 || messageHeight > 0;
        const qreal margins = hasText ? 2 * TextMargin : 0;
        // A message too long for the window is cut short (drawText ends it in an ellipsis).
        const qreal room = size.height() - 2 * Inset - buttonsHeight - margins - titleHeight - gap;
        messageHeight = qMax(0.0, qMin(messageHeight, room));
        const qreal height = margins + titleHeight + gap + messageHeight + buttonsHeight;

        Layout layout;
        // Whole points keep the hairlines on whole pixels.
        layout.card =
            QRectF(std::round((size.width() - width) / 2), std::round((size.height() - height) / 2), width, height);
        layout.title = QRectF(layout.card.left() + Inset, layout.card.top() + TextMargin, textWidth, titleHeight);
        layout.message = QRectF(layout.title.left(), layout.title.bottom() + gap, textWidth, messageHeight);
        layout.buttonsTop = layout.card.bottom() - buttonsHeight;
        return layout;
    }

    QString m_title;
    QString m_message;
};

} // namespace

QKAlertView::QKAlertView(const QString &title, const QString &message, const QString &cancelButtonTitle,
                         const QStringList &otherButtonTitles)
    : m_title(title), m_message(message)
{
    if (!cancelButtonTitle.isEmpty()) {
        m_cancelIndex = 0;
        m_buttons.append(cancelButtonTitle);
    }
    m_buttons += otherButtonTitles;
}

void QKAlertView::show()
{
    showInWindow(QKWindow::keyWindow());
}

QKModalOverlay *QKAlertView::createOverlay() const
{
    return new AlertOverlay(m_title, m_message, m_buttons, m_cancelIndex);
}

void QKAlertView::reportDismissal(int buttonIndex)
{
    QPointer<QKAlertView> self(this);
    emit dismissed(buttonIndex);
    if (self && m_handler) {
        const auto handler = std::move(m_handler);
        m_handler = nullptr;
        handler(buttonIndex);
    }
}

double QKAlertView::appearDuration() const
{
    return FadeIn;
}

double QKAlertView::disappearDuration() const
{
    return FadeOut;
}

QList<QKAlertView *> QKAlertView::visibleAlerts()
{
    return visiblePanels<QKAlertView>();
}
