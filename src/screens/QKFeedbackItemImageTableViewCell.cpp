#include "QKFeedbackItemImageTableViewCell.h"

#include <cmath>
#include "../models/QKPalette.h"

// Height over width in points; NaN for no image.
static qreal aspectRatio(const QImage &image)
{
    if (image.isNull())
        return std::nan("");
    const QSizeF size = image.deviceIndependentSize();
    return size.height() / size.width();
}

QKFeedbackItemImageTableViewCell::QKFeedbackItemImageTableViewCell(const QString &reuseIdentifier, QWidget *parent)
    : QKTableViewCell(reuseIdentifier, parent)
{
    setSelectionStyle(SelectionStyleNone);
    m_image = new QKImageView;
    m_image->setBackgroundColor(Qt::transparent);
    m_image->setContentMode(QKImageView::ScaleAspectFit);
    m_image->setAutoresizingMask(FlexibleLeftMargin | FlexibleWidth | FlexibleRightMargin);
    m_image->setBorderColor(QKPalette::imageBorder());
    m_image->setBorderWidth(1.0);
    contentView()->addSubview(m_image);
}

QKFeedbackItemImageTableViewCell::~QKFeedbackItemImageTableViewCell() = default;

void QKFeedbackItemImageTableViewCell::layoutSubviews()
{
    QKTableViewCell::layoutSubviews();
    const qreal r = aspectRatio(m_image->image());
    if (std::isnan(r))
        return;
    const qreal width = bounds().width() - 40;
    m_image->setFrame(QRectF(20, 20, width, r * width));
}

qreal QKFeedbackItemImageTableViewCell::heightForImage(const QImage &image, qreal tableWidth)
{
    const qreal r = aspectRatio(image);
    return std::isnan(r) ? 0 : r * (tableWidth - 40) + 40;
}
