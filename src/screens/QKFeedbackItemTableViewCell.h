#pragma once

#include "../data/QKFeedbackItem.h"
#include "../kit/QKLabel.h"
#include "../kit/QKTableViewCell.h"

#include <QWeakPointer>

/// The details screen's first row: the item's date and state on one line, its
/// text wrapped below.
class MURMORA_EXPORT QKFeedbackItemTableViewCell : public QKTableViewCell
{
    Q_OBJECT
public:
    explicit QKFeedbackItemTableViewCell(const QString &reuseIdentifier = QString(), QWidget *parent = nullptr);
    ~QKFeedbackItemTableViewCell() override;

    QKLabel *titleLabel() const { return m_titleLabel; }
    QKLabel *dateLabel() const { return m_dateLabel; }
    QKLabel *stateLabel() const { return m_stateLabel; }
    /// Held weakly: the screen owns the item.
    QKFeedbackItemPtr feedbackItem() const { return m_feedbackItem.toStrongRef(); }
    void setFeedbackItem(const QKFeedbackItemPtr &item) { m_feedbackItem = item; }

    /// Fills the labels from `item` and keeps it (weakly).
    void initWithItem(const QKFeedbackItemPtr &item);
    void layoutSubviews() override;

    /// The row height the cell's layout fills for `item` in a table of that size.
    static qreal heightForItem(const QKFeedbackItemPtr &item, qreal tableWidth,
                               qreal tableHeight = 3.4028234663852886e38);

private:
    QKLabel *m_titleLabel = nullptr;
    QKLabel *m_dateLabel = nullptr;
    QKLabel *m_stateLabel = nullptr;
    QWeakPointer<QKFeedbackItem> m_feedbackItem;
};
