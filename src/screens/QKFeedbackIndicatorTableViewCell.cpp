#include "QKFeedbackIndicatorTableViewCell.h"

QKFeedbackIndicatorTableViewCell::QKFeedbackIndicatorTableViewCell(const QString &reuseIdentifier, QWidget *parent)
    : QKTableViewCell(reuseIdentifier, parent)
{
    m_activityIndicator = new QKActivityIndicatorView(QKActivityIndicatorView::Gray);
    addSubview(m_activityIndicator);
}

QKFeedbackIndicatorTableViewCell::~QKFeedbackIndicatorTableViewCell() = default;

void QKFeedbackIndicatorTableViewCell::layoutSubviews()
{
    QKTableViewCell::layoutSubviews();
    m_activityIndicator->setCenter(contentView()->center());
}
