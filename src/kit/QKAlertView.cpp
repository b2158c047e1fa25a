#include "QKAlertView.h"

#include "QKAnimation.h"
#include "QKFont.h"
#include "QKTextMetrics.h"
#include "QKWindow.h"

#include <QMouseEvent>
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

QList<QKAlertView *> &shownAlerts()
{
    static QList<QKAlertView *> alerts;
    return alerts;
}

// The dim and the card, all drawn here: one view, so taps anywhere on the window land on it.
class AlertOverlay : public QKView
{
public:
    AlertOverlay(const QString &title, const QString &message, const QStringList &buttons, int cancelIndex,
                 std::function<void(int)> tapped)
        : m_title(title), m_message(message), m_buttons(buttons), m_cancelIndex(cancelIndex),
          m_tapped(std::move(tapped))
    {
        // QKView fills with its background colour, and an unset QColor reads as opaque black.
        setBackgroundColor(Qt::transparent);
    }

    void setTapsEnabled(bool enabled) { m_tapsEnabled = enabled; }

    // Inside an animation block the shown progress follows over time.
    void animateProgress(qreal to)
    {
        m_appearing = to > m_progress;
        if (!QKAnimation::animateValue(this, m_progress, to,
                                       [this](const QVariant &value) { setProgress(value.toReal()); }))
            setProgress(to);
    }

    QRectF buttonRect(int index) const
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
        painter.fillRect(rect, QColor(0, 0, 0, qRound(255 * 0.3 * m_progress)));
        const Layout layout = layoutFor();
        const QRectF card = layout.card;
        painter.save();
        painter.setOpacity(m_progress);
        if (m_appearing) {
            // Grows into place as it fades in, as the platform's does.
            const qreal scale = 1.1 - 0.1 * m_progress;
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
            if (i == m_pressed)
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

    void touchesEnded(const QPointF &location) override
    {
        // Taps off the buttons do nothing: an alert wants an answer.
        const int index = buttonAt(location);
        if (m_tapsEnabled && index >= 0)
            m_tapped(index);
    }

protected:
    void mousePressEvent(QMouseEvent *event) override
    {
        m_pressing = event->button() == Qt::LeftButton;
        setPressed(m_pressing ? buttonAt(event->position()) : -1);
        QKView::mousePressEvent(event);
    }
    void mouseMoveEvent(QMouseEvent *event) override
    {
        if (m_pressing)
            setPressed(buttonAt(event->position()));
        QKView::mouseMoveEvent(event);
    }
    void mouseReleaseEvent(QMouseEvent *event) override
    {
        m_pressing = false;
        setPressed(-1);
        QKView::mouseReleaseEvent(event);
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

    int buttonAt(const QPointF &point) const
    {
        for (int i = 0; i < m_buttons.size(); ++i)
            if (buttonRect(i).contains(point))
                return i;
        return -1;
    }

    void setProgress(qreal progress)
    {
        m_progress = progress;
        update();
    }

    void setPressed(int index)
    {
        if (m_pressed != index) {
            m_pressed = index;
            update();
        }
    }

    QString m_title;
    QString m_message;
    QStringList m_buttons;
    int m_cancelIndex;
    std::function<void(int)> m_tapped;
    qreal m_progress = 0;
    bool m_appearing = true;
    bool m_tapsEnabled = true;
    bool m_pressing = false;
    int m_pressed = -1;
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

QKAlertView::~QKAlertView()
{
    shownAlerts().removeOne(this);
    if (m_view) {
        m_view->removeFromSuperview();
        m_view->deleteLater();
    }
}

void QKAlertView::show()
{
    if (m_state != Idle)
        return;
    m_state = Shown;
    shownAlerts().append(this);
    QKWindow *window = QKWindow::keyWindow();
    if (!window)
        return;
    QPointer<QKAlertView> self(this);
    auto *overlay = new AlertOverlay(m_title, m_message, m_buttons, m_cancelIndex, [self](int index) {
        if (self)
            self->dismissWithClickedButtonIndex(index, true);
    });
    overlay->setFrame(window->bounds());
    overlay->setAutoresizingMask(QKView::FlexibleWidth | QKView::FlexibleHeight);
    m_view = overlay;
    // Gone with its window: nobody is left to answer, so the alert goes quietly.
    connect(overlay, &QObject::destroyed, this, [this] {
        shownAlerts().removeOne(this);
        m_state = Dismissing;
        deleteLater();
    });
    window->presentView(overlay);
    QKAnimation::animate(FadeIn, 0, QKAnimation::CurveEaseOut, [overlay] { overlay->animateProgress(1); });
}

void QKAlertView::dismissWithClickedButtonIndex(int buttonIndex, bool animated)
{
    if (m_state == Dismissing)
        return;
    m_state = Dismissing;
    shownAlerts().removeOne(this);
    if (!animated) {
        finishDismissal(buttonIndex);
        return;
    }
    QPointer<QKAlertView> self(this);
    QPointer<AlertOverlay> overlay = static_cast<AlertOverlay *>(m_view.data());
    if (overlay)
        overlay->setTapsEnabled(false);
    QKAnimation::animate(
        FadeOut, 0, QKAnimation::CurveEaseIn,
        [overlay] {
            if (overlay)
                overlay->animateProgress(0);
        },
        [self, buttonIndex](bool) {
            if (self)
                self->finishDismissal(buttonIndex);
        });
}

void QKAlertView::finishDismissal(int buttonIndex)
{
    if (m_view) {
        disconnect(m_view, nullptr, this, nullptr);
        m_view->removeFromSuperview();
        m_view->deleteLater();
        m_view = nullptr;
    }
    QPointer<QKAlertView> self(this);
    emit dismissed(buttonIndex);
    if (self && m_handler) {
        const auto handler = std::move(m_handler);
        m_handler = nullptr;
        handler(buttonIndex);
    }
    if (self)
        deleteLater();
}

QRectF QKAlertView::rectForButtonAtIndex(int index) const
{
    if (!m_view)
        return QRectF();
    const QRectF rect = static_cast<AlertOverlay *>(m_view.data())->buttonRect(index);
    if (rect.isEmpty())
        return rect;
    return rect.translated(m_view->convertPointToView(QPointF(0, 0), nullptr));
}

QKView *QKAlertView::view() const
{
    return m_view;
}

QList<QKAlertView *> QKAlertView::visibleAlerts()
{
    return shownAlerts();
}
