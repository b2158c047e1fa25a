#include "QKFeedbackItemCommentTableViewCell.h"

#include "../base/QKLocalizedString.h"
#include "../kit/QKDateFormatter.h"
#include "../kit/QKFont.h"
#include "../kit/QKTextMetrics.h"

#include <QPainter>
#include "../models/QKPalette.h"

static constexpr qreal unlimitedHeight = 3.4028234663852886e38;

static QFont commentFont()
{
    return QKFont::system(14);
}

static qreal lineHeightOf(const QKFeedbackItemPtr &item)
{
    return QKTextMetrics::sizeWithFont(item ? item->text() : QString(), commentFont()).height();
}

static qreal textHeight(const QKFeedbackItemPtr &comment, qreal width)
{
    const QString text = comment ? comment->text() : QString();
    return QKTextMetrics::boundingRect(text, commentFont(), QSizeF(width - 10, unlimitedHeight)).height();
}

static QKLabel *makeLabel(const QColor &color)
{
    auto *label = new QKLabel;
    label->setFont(commentFont());
    label->setTextColor(color);
    return label;
}

QKFeedbackItemCommentTableViewCell::QKFeedbackItemCommentTableViewCell(const QString &reuseIdentifier, QWidget *parent)
    : QKTableViewCell(reuseIdentifier, parent)
{
    setSelectionStyle(SelectionStyleNone);

    m_authorLabel = makeLabel(QKPalette::secondaryText());
    contentView()->addSubview(m_authorLabel);
    m_titleLabel = makeLabel(QKPalette::text());
    m_titleLabel->setNumberOfLines(0);
    contentView()->addSubview(m_titleLabel);
    m_dateLabel = makeLabel(QKPalette::secondaryText());
    contentView()->addSubview(m_dateLabel);
    m_lineView = new QKView;
    m_lineView->setBackgroundColor(QKPalette::secondaryText());
    // Views show at whole points, which rounds a half-point line away or up to a full
    // point; the cell draws it where the view says instead.
    m_lineView->setViewHidden(true);
    contentView()->addSubview(m_lineView);
    // After the labels: making the text label runs a layout pass that uses them.
    textLabel()->setTextColor(QKPalette::onTint());
}

QKFeedbackItemCommentTableViewCell::~QKFeedbackItemCommentTableViewCell() = default;

void QKFeedbackItemCommentTableViewCell::initWithItem(const QKFeedbackItemPtr &comment)
{
    m_feedbackItem = comment;
    m_titleLabel->setText(comment ? comment->text() : QString());
    const QString author = comment ? comment->author() : QString();
    m_authorLabel->setText(author.isEmpty() ? QKLocalizedString("Anonymous") : author);
    m_dateLabel->setText(QKDateFormatter::mediumDateShortTime(comment ? comment->createdAt() : QDateTime()));
    // A reused cell of the same size gets no layout pass from the table.
    setNeedsLayout();
}

void QKFeedbackItemCommentTableViewCell::layoutSubviews()
{
    QKTableViewCell::layoutSubviews();
    const qreal width = bounds().width();
    const QKFeedbackItemPtr comment = feedbackItem();
    const qreal a = lineHeightOf(comment);
    const qreal h = textHeight(comment, width);

    m_authorLabel->setFrame(QRectF(10, 5, width - 10, a));
    m_titleLabel->setFrame(QRectF(10, a + 2, width - 10, h + 10));
    m_dateLabel->setFrame(QRectF(10, a + h + 10, width - 10, a));
    m_lineView->setFrame(QRectF(10, 2 * a + h + 9.5, width - 20, 0.5));
    update();
}

void QKFeedbackItemCommentTableViewCell::drawRect(QPainter &painter, const QRectF &rect)
{
    QKTableViewCell::drawRect(painter, rect);
    QRectF line = m_lineView->frame().translated(contentView()->frame().topLeft());
    // A row shown rounded down to whole points would cut the line off: keep it in.
    line.moveBottom(qMin(line.bottom(), qreal(height())));
    painter.fillRect(line, m_lineView->backgroundColor());
}

qreal QKFeedbackItemCommentTableViewCell::heightForComment(const QKFeedbackItemPtr &parentItem,
                                                           const QKFeedbackItemPtr &comment, qreal tableWidth)
{
    return 2 * lineHeightOf(parentItem) + 10 + textHeight(comment, tableWidth);
}
