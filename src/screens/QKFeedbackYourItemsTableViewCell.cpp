#include "QKFeedbackYourItemsTableViewCell.h"

#include "../base/QKLocalizedString.h"
#include "../kit/QKDateFormatter.h"
#include "../kit/QKFont.h"
#include "../kit/QKTextMetrics.h"

#include <QRegularExpression>

#include <cmath>
#include <limits>

static const QColor darkGrey(85, 85, 85);
static const QColor stateBlue(0, 122, 255);
static constexpr qreal unlimitedHeight = 3.4028234663852886e38;

// The platform's integer value of a number or text: fractions cut off, a text read
// up to its first non-digit, anything else 0.
static qint64 integerValue(const QVariant &value)
{
    if (value.typeId() == QMetaType::QString) {
        static const QRegularExpression leading(QStringLiteral("^\\s*[+-]?\\d+"));
        const QRegularExpressionMatch match = leading.match(value.toString());
        return match.hasMatch() ? match.captured().trimmed().toLongLong() : 0;
    }
    bool ok = false;
    const double number = value.toDouble(&ok);
    if (!ok || !(std::fabs(number) < 9.2e18))
        return 0;
    return qint64(std::trunc(number));
}

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
    m_titleLabel->setTextColor(darkGrey);
    contentView()->addSubview(m_titleLabel);

    m_commentLabel = new QKLabel;
    m_commentLabel->setTextColor(darkGrey);
    m_commentLabel->setFont(QKFont::system(12));
    contentView()->addSubview(m_commentLabel);

    m_stateLabel = new QKLabel;
    m_stateLabel->setTextColor(stateBlue);
    m_stateLabel->setTextAlignment(Qt::AlignRight);
    m_stateLabel->setFont(QKFont::system(12));
    contentView()->addSubview(m_stateLabel);
    // After the labels: making the text label runs a layout pass that uses them.
    textLabel()->setTextColor(Qt::white);
}

QKFeedbackYourItemsTableViewCell::~QKFeedbackYourItemsTableViewCell() = default;

void QKFeedbackYourItemsTableViewCell::initWithItem(const QKFeedbackItemPtr &item)
{
    m_item = item;
    m_titleLabel->setText(item ? item->text() : QString());
    m_stateLabel->setText(item ? item->state() : QString());
    m_dateLabel->setText(QKDateFormatter::mediumDateShortTime(item ? item->createdAt() : QDateTime()));

    // The server's count includes the item itself.
    qint64 count = item ? qMax<qint64>(0, integerValue(item->params().value(QStringLiteral("CommentsCount"))) - 1) : 0;
    QString last = QStringLiteral("");
    if (item && item->subItems() && !item->subItems()->isEmpty()) {
        count = item->subItems()->size();
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
