#pragma once

#include "../kit/QKActivityIndicatorView.h"
#include "../kit/QKTableViewCell.h"

/// The "loading more" row at the end of the list: a grey spinner in the middle.
class MURMORA_EXPORT QKFeedbackIndicatorTableViewCell : public QKTableViewCell
{
    Q_OBJECT
public:
    explicit QKFeedbackIndicatorTableViewCell(const QString &reuseIdentifier = QString(), QWidget *parent = nullptr);
    ~QKFeedbackIndicatorTableViewCell() override;

    QKActivityIndicatorView *activityIndicator() const { return m_activityIndicator; }

    /// Centres the spinner on the content view.
    void layoutSubviews() override;

private:
    QKActivityIndicatorView *m_activityIndicator = nullptr;
};
