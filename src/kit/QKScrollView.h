#pragma once

#include "QKView.h"

#include <QHash>
#include <QMarginsF>
#include <QPointer>

class QVariantAnimation;

/// A view that shows a movable window onto content larger than itself: bounds()
/// starts at the content offset, so subviews are placed in content coordinates.
/// Scrolls by the mouse wheel and by dragging with a kinetic flick (QScroller on
/// the left mouse button; touch arrives as Qt's mouse events), bouncing past the
/// ends so that a pull down at the top is possible. A tap without movement still
/// reaches the subview under it and touchesEnded.
///
/// Subviews stay direct children, so subviews(), superview() and addSubview work as
/// on any view; QKView shows them shifted by the offset shown at the moment.
class MURMORA_EXPORT QKScrollView : public QKView
{
    Q_OBJECT
public:
    explicit QKScrollView(const QRectF &frame = QRectF(), QWidget *parent = nullptr);
    ~QKScrollView() override;

    /// The origin is the content offset.
    QRectF bounds() const override { return QRectF(m_offset, frame().size()); }

    QSizeF contentSize() const { return m_contentSize; }
    void setContentSize(const QSizeF &size);

    QPointF contentOffset() const { return m_offset; }
    /// Not clamped. Animated: moves there over a short time, calling scrollViewDidScroll
    /// on the way. Inside an animation block: the offset is the new one at once and
    /// what is shown follows over the block's time.
    void setContentOffset(const QPointF &offset, bool animated = false);

    /// Extra room around the content that scrolling may reveal. A view resting at the
    /// top stays at the top of the new inset, otherwise the offset is only clamped;
    /// inside an animation block the move is shown over the block's time.
    QMarginsF contentInset() const { return m_inset; }
    void setContentInset(const QMarginsF &inset);

    bool isScrollEnabled() const { return m_scrollEnabled; }
    void setScrollEnabled(bool enabled);
    /// True while a finger (the mouse) drags the content.
    bool isDragging() const { return m_dragging; }

    /// Called after every change of the content offset, before didScroll.
    virtual void scrollViewDidScroll();
    void touchesEnded(const QPointF &location) override;
    QImage snapshot() override;

signals:
    void didScroll();
    void draggingChanged(bool dragging);

protected:
    /// The offset shown at this moment; differs from contentOffset() while an
    /// animation block moves it.
    QPointF shownContentOffset() const { return m_shownOffset; }
    QPointF shownBoundsOrigin() const override { return m_shownOffset; }
    QPointF minimumContentOffset() const;
    QPointF maximumContentOffset() const;
    QPointF clampedContentOffset(const QPointF &offset) const;

    bool event(QEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void wheelEvent(QWheelEvent *event) override;

private:
    void applyContentOffset(const QPointF &offset, bool mayAnimate);
    void showOffset(const QPointF &offset);
    void stopProgrammaticScroll();
    void updateScroller();

    QSizeF m_contentSize;
    QPointF m_offset;
    QPointF m_shownOffset;
    QMarginsF m_inset;
    QObject *m_shownAnimator = nullptr;
    QPointer<QVariantAnimation> m_scrollAnimation;
    bool m_scrollEnabled = true;
    bool m_dragging = false;
    bool m_pressed = false;
    bool m_fromScroller = false;
};
