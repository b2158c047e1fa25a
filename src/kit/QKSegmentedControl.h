#pragma once

#include "QKControl.h"

#include <QFont>
#include <QStringList>

/// A row of segments of equal width, one of them selected: outlined in the tint,
/// the selected one filled with it. A tap on another segment selects it and sends
/// ValueChanged.
class MURMORA_EXPORT QKSegmentedControl : public QKControl
{
    Q_OBJECT
public:
    explicit QKSegmentedControl(const QStringList &titles = {}, QWidget *parent = nullptr);
    ~QKSegmentedControl() override;

    /// `index` past the end appends. `animated` is accepted for the platform's sake.
    void insertSegment(const QString &title, int index, bool animated = false);
    void removeAllSegments();
    int numberOfSegments() const { return int(m_titles.size()); }
    QString titleForSegment(int index) const { return m_titles.value(index); }
    void setTitle(const QString &title, int index);

    /// -1 for none (the default). Setting sends no event.
    int selectedSegmentIndex() const { return m_selected; }
    void setSelectedSegmentIndex(int index);

    /// The system blue unless set.
    QColor tintColor() const { return m_tintColor; }
    void setTintColor(const QColor &color);

    /// The segment under `point` (in the control), or -1.
    int segmentAt(const QPointF &point) const;

    /// Equal segments as wide as the widest title needs with 14 on each side, 29 high.
    QSizeF sizeThatFits(const QSizeF &size) const override;
    void drawRect(QPainter &painter, const QRectF &rect) override;

protected:
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;

private:
    QStringList m_titles;
    int m_selected = -1;
    int m_pressed = -1;
    QColor m_tintColor{0, 122, 255};
    QFont m_font;
};
