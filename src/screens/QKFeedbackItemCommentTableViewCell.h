#pragma once

#include "../data/QKFeedbackItem.h"
#include "../kit/QKLabel.h"
#include "../kit/QKTableViewCell.h"

#include <QWeakPointer>

/// One comment on the details screen: author, text, date, and a hairline under them.
class MURMORA_EXPORT QKFeedbackItemCommentTableViewCell : public QKTableViewCell
{
    Q_OBJECT
public:
    explicit QKFeedbackItemCommentTableViewCell(const QString &reuseIdentifier = QString(), QWidget *parent = nullptr);
    ~QKFeedbackItemCommentTableViewCell() override;

    QKLabel *titleLabel() const { return m_titleLabel; }
    QKLabel *authorLabel() const { return m_authorLabel; }
    QKLabel *dateLabel() const { return m_dateLabel; }
    /// Carries the hairline's frame and colour; the cell draws the line, exactly.
    QKView *lineView() const { return m_lineView; }
    /// The comment shown, held weakly: its parent item owns it.
    QKFeedbackItemPtr feedbackItem() const { return m_feedbackItem.toStrongRef(); }
    void setFeedbackItem(const QKFeedbackItemPtr &item) { m_feedbackItem = item; }

    /// Fills the labels from `comment` and keeps it (weakly); no author reads "Anonymous".
    void initWithItem(const QKFeedbackItemPtr &comment);
    void layoutSubviews() override;
    void drawRect(QPainter &painter, const QRectF &rect) override;

    /// The row height for `comment`. The line height comes from the parent item's
    /// text, which measures the same as the comment's in one font.
    static qreal heightForComment(const QKFeedbackItemPtr &parentItem, const QKFeedbackItemPtr &comment,
                                  qreal tableWidth);

private:
    QKLabel *m_authorLabel = nullptr;
    QKLabel *m_titleLabel = nullptr;
    QKLabel *m_dateLabel = nullptr;
    QKView *m_lineView = nullptr;
    QWeakPointer<QKFeedbackItem> m_feedbackItem;
};
