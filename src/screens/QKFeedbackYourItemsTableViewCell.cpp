#include "QKFeedbackYourItemsTableViewCell.h"

#include "../base/QKLocalizedString.h"
#include "../kit/QKDateFormatter.h"
#include "../kit/QKFont.h"
#include "../kit/QKTextMetrics.h"
#include "../models/QKFeedbackListModel.h"

#include <limits>
#include "../models/QKPalette.h"

static constexpr qreal unlimitedHeight = 3.4028234663852886e38;

// One line of the text in `font`, whatever the text.
static qreal lineHeight(const QString &text, qreal size)
{
    return QKTextMetrics::sizeWithFont(text, QKFont::system(size)).height();
}

static qreal textHeight(const QString &text, qreal width)
{
    return QKTextMetrics::boundingRect(text, QKFont::system(12), QSizeF(width - 20, unlimitedHeight)).height();
}

QKFeedbackYourItemsTableViewCell::QKFeedbackYourItemsTableViewCell(const QString &reuseIdentifier, QWidget *parent)
    : QKTableViewCell(reuseIdentifier, parent)
{
    setSelectionStyle(SelectionStyleNone);

    m_dateLabel = new QKLabel;
    m_dateLabel->setFont(QKFont::system(15));
    contentView()->addSubview(m_dateLabel);

    m_titleLabel = new QKLabel;
    m_titleLabel->setNumberOfLines(0);
    m_titleLabel->setFont(QKFont::system(12));
    m_titleLabel->setTextColor(QKPalette::darkText());
    contentView()->addSubview(m_titleLabel);

    m_commentLabel = new QKLabel;
    m_commentLabel->setTextColor(QKPalette::darkText());
    m_commentLabel->setFont(QKFont::system(12));
    contentView()->addSubview(m_commentLabel);

    m_stateLabel = new QKLabel;
    m_stateLabel->setTextColor(QKPalette::tint());
    m_stateLabel->setTextAlignment(Qt::AlignRight);
    m_stateLabel->setFont(QKFont::system(12));
    contentView()->addSubview(m_stateLabel);
    // After the labels: making the text label runs a layout pass that uses them.
    textLabel()->setTextColor(QKPalette::onTint());
}

QKFeedbackYourItemsTableViewCell::~QKFeedbackYourItemsTableViewCell() = default;

void QKFeedbackYourItemsTableViewCell::initWithItem(const QKFeedbackItemPtr &item)
{
    m_item = item;
    m_titleLabel->setText(item ? item->text() : QString());
    m_stateLabel->setText(item ? item->state() : QString());
    m_dateLabel->setText(QKDateFormatter::mediumDateShortTime(item ? item->createdAt() : QDateTime()));

    const qint64 count = QKFeedbackListModel::commentCount(item);
    QString last = QStringLiteral("");
    if (item && item->subItems() && !item->subItems()->isEmpty()) {
        // What the platform prints for a record without a description of its own.
        last = QStringLiteral("<QKFeedbackItem: 0x%1>")
                   .arg(QString::number(quintptr(item->subItems()->constLast().data()), 16));
    }
    m_commentLabel->setText(
        QStringLiteral("%1 %2 %3").arg(QString::number(count), QKLocalizedString("comments"), last));
    // A reused cell of the same size gets no layout pass from the table.
    setNeedsLayout();
}

void QKFeedbackYourItemsTableViewCell::layoutSubviews()
{
    QKTableViewCell::layoutSubviews();
    const qreal width = bounds().width();
    const QKFeedbackItemPtr shown = item();
    const QString text = shown ? shown->text() : QString();
    const qreal h = textHeight(text, width);
    const qreal a = lineHeight(text, 15);
    const qreal b = lineHeight(text, 12);

    m_dateLabel->setFrame(QRectF(10, 7, width - 10, a));
    m_titleLabel->setFrame(QRectF(10, a + 7, width - 10, h));
    m_commentLabel->setFrame(QRectF(10, a + 7 + h, width - 10, b));
    m_commentLabel->sizeToFit();
    const qreal fitted = m_commentLabel->bounds().width();
    m_commentLabel->setFrame(QRectF(10, a + 7 + h, fitted, b));
    m_stateLabel->setFrame(QRectF(fitted + 10, a + 7 + h, qMax<qreal>(0, width - (fitted + 20)), b));
}

qreal QKFeedbackYourItemsTableViewCell::heightForItem(const QKFeedbackItemPtr &item, qreal tableWidth)
{
    const QString text = item ? item->text() : QString();
    return lineHeight(text, 15) + lineHeight(text, 12) + 14 + textHeight(text, tableWidth);
}
