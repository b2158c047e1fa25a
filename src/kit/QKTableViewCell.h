#pragma once

#include "QKView.h"

#include <QPointer>

class QKLabel;
class QVariantAnimation;

/// One row of a table view: a white view with a content view filling it, where
/// subclasses put their subviews, and a text label made on first use. Selected or
/// highlighted, it shows a light grey background unless its selection style is None.
///
/// Cells are made by the table view's registered factories and owned by the table,
/// which hands them out again for other rows (prepareForReuse first).
class MURMORA_EXPORT QKTableViewCell : public QKView
{
    Q_OBJECT
public:
    enum SelectionStyle {
        SelectionStyleNone = 0,
        SelectionStyleBlue = 1,
        SelectionStyleGray = 2,
        SelectionStyleDefault = 3
    };

    explicit QKTableViewCell(const QString &reuseIdentifier = QString(), QWidget *parent = nullptr);
    ~QKTableViewCell() override;

    QString reuseIdentifier() const { return m_reuseIdentifier; }
    /// Fills the cell and follows its size.
    QKView *contentView() const { return m_contentView; }
    /// A one-line label in the content view, 15 points in from the sides.
    QKLabel *textLabel();

    int selectionStyle() const { return m_selectionStyle; }
    void setSelectionStyle(int style);
    bool isSelected() const { return m_selected; }
    /// Animated: the background fades to its new look.
    void setSelected(bool selected, bool animated = false);
    /// While pressed.
    bool isHighlighted() const { return m_highlighted; }
    void setHighlighted(bool highlighted, bool animated = false);

    /// Called before the table hands the cell out for another row; the base clears
    /// the selection and highlight. Subclasses reset their content here.
    virtual void prepareForReuse();

    /// Places the content view and the text label.
    void layoutSubviews() override;
    void drawRect(QPainter &painter, const QRectF &rect) override;

protected:
    void mousePressEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;

private:
    friend class QKTableView;
    void setSeparatorShown(bool shown);
    void updateSelectionLook(bool animated);

    QString m_reuseIdentifier;
    QKView *m_contentView = nullptr;
    QKLabel *m_textLabel = nullptr;
    int m_selectionStyle = SelectionStyleDefault;
    bool m_selected = false;
    bool m_highlighted = false;
    bool m_separatorShown = false;
    // How much of the selection background shows, 0 to 1.
    qreal m_selectionLevel = 0;
    QPointer<QVariantAnimation> m_selectionAnimation;
};
