#pragma once

#include "../data/QKFeedbackItem.h"
#include "../kit/QKLabel.h"
#include "../kit/QKTableViewCell.h"

#include <QWeakPointer>

/// One sent item in the "Your feedback" list: its date, its text wrapped, then a
/// line with the comment count on the left and the state on the right.
class MURMORA_EXPORT QKFeedbackYourItemsTableViewCell : public QKTableViewCell
{
    Q_OBJECT
public:
    explicit QKFeedbackYourItemsTableViewCell(const QString &reuseIdentifier = QString(), QWidget *parent = nullptr);
    ~QKFeedbackYourItemsTableViewCell() override;

    QKLabel *dateLabel() const { return m_dateLabel; }
    QKLabel *titleLabel() const { return m_titleLabel; }
    QKLabel *commentLabel() const { return m_commentLabel; }
    QKLabel *stateLabel() const { return m_stateLabel; }
    /// Held weakly: the list screen owns its items.
    QKFeedbackItemPtr item() const { return m_item.toStrongRef(); }
    void setItem(const QKFeedbackItemPtr &item) { m_item = item; }

    /// Fills the labels from `item` and keeps it (weakly).
    void initWithItem(const QKFeedbackItemPtr &item);
    void layoutSubviews() override;

    /// The row height the cell's layout fills for `item` in a table that wide.
    static qreal heightForItem(const QKFeedbackItemPtr &item, qreal tableWidth);

private:
    QKLabel *m_dateLabel = nullptr;
    QKLabel *m_titleLabel = nullptr;
    QKLabel *m_commentLabel = nullptr;
    QKLabel *m_stateLabel = nullptr;
    QWeakPointer<QKFeedbackItem> m_item;
};
