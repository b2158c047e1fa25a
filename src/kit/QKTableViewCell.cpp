#include "QKTableViewCell.h"

#include "QKAnimation.h"
#include "QKLabel.h"

#include <QMouseEvent>
#include <QPainter>
#include <QVariantAnimation>

namespace {

constexpr qreal SideInset = 15;
const QColor SelectedBackground(217, 217, 217);
const QColor SeparatorColor(200, 199, 204);

} // namespace

QKTableViewCell::QKTableViewCell(const QString &reuseIdentifier, QWidget *parent)
    : QKView(QRectF(0, 0, 320, 44), parent), m_reuseIdentifier(reuseIdentifier)
{
    setBackgroundColor(Qt::white);
    m_contentView = new QKView(bounds());
    m_contentView->setAutoresizingMask(FlexibleWidth | FlexibleHeight);
    addSubview(m_contentView);
}

QKTableViewCell::~QKTableViewCell() = default;

QKLabel *QKTableViewCell::textLabel()
{
    if (!m_textLabel) {
        m_textLabel = new QKLabel;
        m_contentView->addSubview(m_textLabel);
        layoutSubviews();
    }
    return m_textLabel;
}

void QKTableViewCell::setSelectionStyle(int style)
{
    m_selectionStyle = style;
    updateSelectionLook(false);
}

void QKTableViewCell::setSelected(bool selected, bool animated)
{
    if (m_selected == selected)
        return;
    m_selected = selected;
    updateSelectionLook(animated);
}

void QKTableViewCell::setHighlighted(bool highlighted, bool animated)
{
    if (m_highlighted == highlighted)
        return;
    m_highlighted = highlighted;
    updateSelectionLook(animated);
}

void QKTableViewCell::updateSelectionLook(bool animated)
{
    const qreal target = (m_selected || m_highlighted) && m_selectionStyle != SelectionStyleNone ? 1 : 0;
    if (m_selectionAnimation)
        m_selectionAnimation->stop();
    if (!animated || !QKAnimation::animationsEnabled() || target == m_selectionLevel) {
        m_selectionLevel = target;
        update();
        return;
    }
    auto *animation = new QVariantAnimation(this);
    animation->setStartValue(m_selectionLevel);
    animation->setEndValue(target);
    animation->setDuration(300);
    connect(animation, &QVariantAnimation::valueChanged, this, [this](const QVariant &value) {
        m_selectionLevel = value.toReal();
        update();
    });
    m_selectionAnimation = animation;
    animation->start(QAbstractAnimation::DeleteWhenStopped);
}

void QKTableViewCell::prepareForReuse()
{
    setHighlighted(false);
    setSelected(false);
}

void QKTableViewCell::layoutSubviews()
{
    m_contentView->setFrame(bounds());
    if (m_textLabel) {
        const QRectF content = m_contentView->bounds();
        m_textLabel->setFrame(QRectF(SideInset, 0, qMax<qreal>(0, content.width() - 2 * SideInset), content.height()));
    }
}

void QKTableViewCell::drawRect(QPainter &painter, const QRectF &rect)
{
    if (m_selectionLevel > 0) {
        QColor color = SelectedBackground;
        color.setAlphaF(m_selectionLevel);
        painter.fillRect(rect, color);
    }
    // A selected row's grey covers its separator.
    if (m_separatorShown && rect.width() > SideInset && m_selectionLevel < 1) {
        // One device pixel, as thin as the screen can show.
        const qreal hairline = 1.0 / painter.device()->devicePixelRatioF();
        QColor color = SeparatorColor;
        color.setAlphaF(1 - m_selectionLevel);
        painter.fillRect(QRectF(SideInset, rect.height() - hairline, rect.width() - SideInset, hairline), color);
    }
}

void QKTableViewCell::setSeparatorShown(bool shown)
{
    if (m_separatorShown == shown)
        return;
    m_separatorShown = shown;
    update();
}

void QKTableViewCell::mousePressEvent(QMouseEvent *event)
{
    if (event->button() == Qt::LeftButton)
        setHighlighted(true);
    QKView::mousePressEvent(event);
}

void QKTableViewCell::mouseReleaseEvent(QMouseEvent *event)
{
    setHighlighted(false);
    QKView::mouseReleaseEvent(event);
}
