#pragma once

#include "../kit/QKImageView.h"
#include "../kit/QKTableViewCell.h"

/// The item's screenshot on the details screen, 20 points in from every side at
/// its own aspect ratio. The screen puts the picture into image() itself.
class MURMORA_EXPORT QKFeedbackItemImageTableViewCell : public QKTableViewCell
{
    Q_OBJECT
public:
    explicit QKFeedbackItemImageTableViewCell(const QString &reuseIdentifier = QString(), QWidget *parent = nullptr);
    ~QKFeedbackItemImageTableViewCell() override;

    /// The image view, named as the platform's property is.
    QKImageView *image() const { return m_image; }

    /// Sizes the image view to the picture; with no picture the frame stays as it was.
    void layoutSubviews() override;

    /// The row height for `image`: 0 without one.
    static qreal heightForImage(const QImage &image, qreal tableWidth);

private:
    QKImageView *m_image = nullptr;
};
