#include "QKFeedbackItemTableViewCell.h"

#include "../kit/QKDateFormatter.h"
#include "../kit/QKFont.h"
#include "../kit/QKTextMetrics.h"
#include "../models/QKPalette.h"

static constexpr qreal unlimitedHeight = 3.4028234663852886e38;

static QFont titleFont()
{
    return QKFont::named(QStringLiteral("HelveticaNeue"), 16.5);
}

// 0 for a missing item or nil text, as the text's measure.
static qreal textHeight(const QKFeedbackItemPtr &item, qreal width)
{
    const QString text = item ? item->text() : QString();
    return QKTextMetrics::boundingRect(text, titleFont(), QSizeF(width - 20, unlimitedHeight)).height();
}

QKFeedbackItemTableViewCell::QKFeedbackItemTableViewCell(const QString &reuseIdentifier, QWidget *parent)
    : QKTableViewCell(reuseIdentifier, parent)
{
    setSelectionStyle(SelectionStyleNone);

    m_dateLabel = new QKLabel;
    m_dateLabel->setTextColor(QKPalette::secondaryText());
    contentView()->addSubview(m_dateLabel);

    m_stateLabel = new QKLabel;
    m_stateLabel->setTextColor(QKPalette::tint());
    m_stateLabel->setTextAlignment(Qt::AlignRight);
    m_stateLabel->setAutoresizingMask(FlexibleRightMargin);
    contentView()->addSubview(m_stateLabel);

    m_titleLabel = new QKLabel;
    m_titleLabel->setNumberOfLines(0);
    m_titleLabel->setFont(titleFont());
    contentView()->addSubview(m_titleLabel);
    // After the labels: making the text label runs a layout pass that uses them.
    textLabel()->setTextColor(QKPalette::onTint());
}

QKFeedbackItemTableViewCell::~QKFeedbackItemTableViewCell() = default;

void QKFeedbackItemTableViewCell::initWithItem(const QKFeedbackItemPtr &item)
{
    m_feedbackItem = item;
    m_titleLabel->setText(item ? item->text() : QString());
    m_stateLabel->setText(item ? item->state() : QString());
    m_dateLabel->setText(QKDateFormatter::mediumDateShortTime(item ? item->createdAt() : QDateTime()));
    // A reused cell of the same size gets no layout pass from the table.
    setNeedsLayout();
}

void QKFeedbackItemTableViewCell::layoutSubviews()
{
    QKTableViewCell::layoutSubviews();
    const qreal width = bounds().width();
    const qreal h = textHeight(feedbackItem(), width);

    // The fitted size of the whole date, not limited by the frame of an earlier one.
    const QSizeF date = m_dateLabel->sizeThatFits(QSizeF());
    m_dateLabel->setFrame(QRectF(10, 5, date.width(), date.height()));
    m_stateLabel->setFrame(QRectF(date.width() + 10, 5, qMax<qreal>(0, width - (date.width() + 20)), date.height()));
    m_titleLabel->setFrame(QRectF(11, date.height() + 10, width - 20, h));
}

qreal QKFeedbackItemTableViewCell::heightForItem(const QKFeedbackItemPtr &item, qreal tableWidth, qreal tableHeight)
{
    const QString date = QKDateFormatter::mediumDateShortTime(item ? item->createdAt() : QDateTime());
    const qreal dh =
        QKTextMetrics::boundingRect(date, QKTextMetrics::defaultFont(), QSizeF(tableWidth, tableHeight), false)
            .height();
    return textHeight(item, tableWidth) + dh + 20;
}
