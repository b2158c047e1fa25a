#include "QKActionSheet.h"

#include "QKActionSheetDelegate.h"
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
const QColor Destructive(255, 59, 48);
const QColor TitleGrey(142, 142, 147);
const QColor Hairline(60, 60, 67, 74);
const qreal Margin = 8;
const qreal MaxWidth = 414;
const qreal Radius = 13;
const qreal ButtonHeight = 57;
const qreal TitlePadding = 14;
const double SlideUp = 0.3;
const double SlideDown = 0.25;

// The dim and the sliding panel; the panel's place follows the progress.
class SheetOverlay : public QKModalOverlay
{
public:
    SheetOverlay(const QString &title, const QStringList &buttons, int cancelIndex, int destructiveIndex)
        : QKModalOverlay(buttons, cancelIndex), m_title(title), m_destructiveIndex(destructiveIndex)
    {}

    QRectF buttonRect(int index) const override
    {
        if (index < 0 || index >= m_buttons.size())
            return QRectF();
        const Layout layout = layoutFor();
        if (index == m_cancelIndex)
            return layout.cancel;
        return QRectF(layout.group.left(), layout.group.top() + layout.titleHeight + index * ButtonHeight,
                      layout.group.width(), ButtonHeight);
    }

    void drawRect(QPainter &painter, const QRectF &rect) override
    {
        painter.fillRect(rect, QColor(0, 0, 0, qRound(255 * 0.4 * progress())));
        const Layout layout = layoutFor();
        const qreal hairline = 1.0 / painter.device()->devicePixelRatioF();
        painter.save();
        painter.translate(0, std::round((1 - progress()) * layout.travel));

        if (!layout.group.isEmpty()) {
            QPainterPath group;
            group.addRoundedRect(layout.group, Radius, Radius);
            painter.fillPath(group, Qt::white);
            painter.save();
            painter.setClipPath(group);
            const QRectF title(layout.group.left() + 16, layout.group.top(), layout.group.width() - 32,
                               layout.titleHeight);
            QKTextMetrics::drawText(painter, title, m_title, titleFont(), TitleGrey, Qt::AlignHCenter, 0);
            for (int i = 0; i < m_buttons.size(); ++i) {
                if (i == m_cancelIndex)
                    continue;
                const QRectF button = buttonRect(i);
                if (i == pressedIndex())
                    painter.fillRect(button, QColor(0, 0, 0, 20));
                if (button.top() > layout.group.top())
                    painter.fillRect(QRectF(button.left(), button.top(), button.width(), hairline), Hairline);
                drawTitle(painter, button, i);
            }
            painter.restore();
        }
        if (!layout.cancel.isEmpty()) {
            QPainterPath cancel;
            cancel.addRoundedRect(layout.cancel, Radius, Radius);
            painter.fillPath(cancel, pressedIndex() == m_cancelIndex ? QColor(235, 235, 235) : QColor(Qt::white));
            drawTitle(painter, layout.cancel, m_cancelIndex);
        }
        painter.restore();
    }

protected:
    // Off the panel is on the dim, which stands for cancel; the title or the gap is nothing.
    void tappedOffButtons(const QPointF &location) override
    {
        const Layout layout = layoutFor();
        if (!layout.group.united(layout.cancel).contains(location))
            tap(m_cancelIndex);
    }

private:
    struct Layout
    {
        QRectF group;
        QRectF cancel;
        qreal titleHeight = 0;
        qreal travel = 0;
    };

    static QFont titleFont() { return QKFont::boldSystem(13); }

    void drawTitle(QPainter &painter, const QRectF &button, int index) const
    {
        const QFont font = index == m_cancelIndex ? QKFont::boldSystem(20) : QKFont::system(20);
        const QColor color = index == m_destructiveIndex ? Destructive : Tint;
        QKTextMetrics::drawText(painter, button.adjusted(16, 0, -16, 0), m_buttons[index], font, color,
                                Qt::AlignHCenter, 1);
    }

    Layout layoutFor() const
    {
        const QSizeF size = frame().size();
        const qreal width = qMin(MaxWidth, size.width() - 2 * Margin);
        const qreal left = std::round((size.width() - width) / 2);
        Layout layout;
        if (!m_title.isEmpty()) {
            const QRectF text = QKTextMetrics::boundingRect(m_title, titleFont(), QSizeF(width - 32, FLT_MAX));
            layout.titleHeight = std::ceil(text.height()) + 2 * TitlePadding;
        }
        const int grouped = int(m_buttons.size()) - (m_cancelIndex >= 0 ? 1 : 0);
        const qreal groupHeight = layout.titleHeight + grouped * ButtonHeight;
        qreal bottom = std::round(size.height() - Margin);
        if (m_cancelIndex >= 0) {
            layout.cancel = QRectF(left, bottom - ButtonHeight, width, ButtonHeight);
            bottom = layout.cancel.top() - Margin;
        }
        if (groupHeight > 0)
            layout.group = QRectF(left, bottom - groupHeight, width, groupHeight);
        const qreal top = layout.group.isEmpty() ? layout.cancel.top() : layout.group.top();
        layout.travel = size.height() - top;
        return layout;
    }

    QString m_title;
    int m_destructiveIndex;
};

QKWindow *windowOf(QKView *view)
{
    for (QWidget *widget = view; widget; widget = widget->parentWidget())
        if (auto *window = qobject_cast<QKWindow *>(widget))
            return window;
    return QKWindow::keyWindow();
}

} // namespace

QKActionSheet::QKActionSheet(const QString &title, QKActionSheetDelegate *delegate, const QString &cancelButtonTitle,
                             const QString &destructiveButtonTitle, const QStringList &otherButtonTitles)
    : m_title(title)
{
    setDelegate(delegate);
    if (!destructiveButtonTitle.isEmpty()) {
        m_destructiveIndex = 0;
        m_buttons.append(destructiveButtonTitle);
    }
    m_buttons += otherButtonTitles;
    if (!cancelButtonTitle.isEmpty()) {
        m_cancelIndex = int(m_buttons.size());
        m_buttons.append(cancelButtonTitle);
    }
}

QKActionSheetDelegate *QKActionSheet::delegate() const
{
    // A delegate that is a QObject and is gone reads as none.
    if (m_delegateObject.isNull() && dynamic_cast<QObject *>(m_delegate))
        return nullptr;
    return m_delegate;
}

void QKActionSheet::setDelegate(QKActionSheetDelegate *delegate)
{
    m_delegate = delegate;
    m_delegateObject = dynamic_cast<QObject *>(delegate);
}

int QKActionSheet::firstOtherButtonIndex() const
{
    const int first = m_destructiveIndex + 1;
    return first < numberOfButtons() && first != m_cancelIndex ? first : -1;
}

void QKActionSheet::showInView(QKView *view)
{
    showInWindow(windowOf(view));
}

QKModalOverlay *QKActionSheet::createOverlay() const
{
    return new SheetOverlay(m_title, m_buttons, m_cancelIndex, m_destructiveIndex);
}

void QKActionSheet::buttonTapped(int buttonIndex)
{
    QPointer<QKActionSheet> self(this);
    if (buttonIndex >= 0)
        if (QKActionSheetDelegate *target = delegate())
            target->actionSheetClickedButtonAtIndex(this, buttonIndex);
    if (self)
        dismissWithClickedButtonIndex(buttonIndex, true);
}

void QKActionSheet::reportDismissal(int buttonIndex)
{
    QPointer<QKActionSheet> self(this);
    if (QKActionSheetDelegate *target = delegate())
        target->actionSheetDidDismissWithButtonIndex(this, buttonIndex);
    if (self)
        emit dismissed(buttonIndex);
}

double QKActionSheet::appearDuration() const
{
    return SlideUp;
}

double QKActionSheet::disappearDuration() const
{
    return SlideDown;
}

QList<QKActionSheet *> QKActionSheet::visibleSheets()
{
    return visiblePanels<QKActionSheet>();
}
