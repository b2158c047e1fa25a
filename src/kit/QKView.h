#pragma once

#include "QKGlobalKit.h"

#include <QColor>
#include <QImage>
#include <QRectF>
#include <QWidget>

class QKViewController;

/// A rectangle of the screen with the platform's view semantics on a QWidget:
/// a frame in its superview's coordinates, in points and as real numbers (the
/// widget shows it rounded), bounds, centre, autoresizing of subviews when the
/// size changes, a layout pass, fitting sizes, custom drawing, and a switch for
/// user interaction that stops taps and keys without changing the look.
///
/// A view is owned by its superview (Qt parent); one that is removed from its
/// superview is owned by whoever removed it. Main thread only.
class MURMORA_EXPORT QKView : public QWidget
{
    Q_OBJECT
public:
    enum Autoresizing {
        AutoresizingNone = 0,
        FlexibleLeftMargin = 1 << 0,
        FlexibleWidth = 1 << 1,
        FlexibleRightMargin = 1 << 2,
        FlexibleTopMargin = 1 << 3,
        FlexibleHeight = 1 << 4,
        FlexibleBottomMargin = 1 << 5,
    };

    explicit QKView(const QRectF &frame = QRectF(), QWidget *parent = nullptr);
    ~QKView() override;

    /// In the superview's coordinates. Inside an animation block the new frame is
    /// the model at once and the widget moves there over the animation's time.
    QRectF frame() const { return m_frame; }
    void setFrame(const QRectF &frame);
    /// Origin (0, 0) but for scrolling views; the size is the frame's.
    virtual QRectF bounds() const { return QRectF(QPointF(0, 0), m_frame.size()); }
    /// Keeps the origin, changes the size around the centre as the platform does.
    void setBounds(const QRectF &bounds);
    QPointF center() const { return m_frame.center(); }
    void setCenter(const QPointF &center);

    /// The view's own hidden flag. Unlike QWidget::isHidden(), it holds while the view
    /// has no superview, and is applied when it gets one (a parentless widget shown
    /// would open as a window of its own).
    bool isViewHidden() const { return m_hidden; }
    void setViewHidden(bool hidden);

    /// Transparent (the default) paints nothing.
    QColor backgroundColor() const { return m_backgroundColor; }
    void setBackgroundColor(const QColor &color);
    /// Opacity of the view and its subviews, 0 to 1.
    qreal alpha() const { return m_alpha; }
    void setAlpha(qreal alpha);

    int autoresizingMask() const { return m_autoresizingMask; }
    void setAutoresizingMask(int mask) { m_autoresizingMask = mask; }

    /// False: taps go to the view underneath (the superview), keys are dropped, for
    /// this view and every view inside it. The look does not change, and a field inside
    /// keeps the keyboard focus (editing does not end).
    bool isUserInteractionEnabled() const { return m_userInteraction; }
    void setUserInteractionEnabled(bool enabled);

    QKView *superview() const;
    QList<QKView *> subviews() const;
    /// Adds on top of the other subviews, taking ownership.
    void addSubview(QKView *view);
    void insertSubviewAt(QKView *view, int index);
    void bringSubviewToFront(QKView *view);
    /// Hands the view back to the caller, who then owns it.
    void removeFromSuperview();

    /// Called after the view's size changed (and after setNeedsLayout); subclasses
    /// place their subviews here. The base does nothing.
    virtual void layoutSubviews();
    /// Schedules a layout pass on the next turn of the event loop.
    void setNeedsLayout();
    /// Runs a pending layout pass now, for this view and its subviews.
    void layoutIfNeeded();

    /// The size the view would like within `size`; the base answers its own size.
    virtual QSizeF sizeThatFits(const QSizeF &size) const;
    /// Resizes the view to sizeThatFits of its current size, keeping the origin.
    void sizeToFit();

    /// Draws the view's own content over its background; the base draws nothing.
    virtual void drawRect(QPainter &painter, const QRectF &rect);
    /// Asks for drawRect to run again.
    void setNeedsDisplay() { update(); }

    /// Called when the view went into or out of a superview.
    virtual void didMoveToSuperview();

    /// Ends text editing (takes the keyboard focus away) in this view and its subviews.
    bool endEditing(bool force = true);

    /// The view and its subviews as an image at the screen's pixel ratio, whether shown
    /// or not; a null image for an empty view.
    virtual QImage snapshot();

    /// The controller whose root view this is, if any.
    QKViewController *viewController() const { return m_viewController; }

    /// Called with the location, in this view, of a tap that ended on it. The base
    /// hands it on: to the controller whose root view this is, otherwise to the superview.
    virtual void touchesEnded(const QPointF &location);

    /// Maps a point from this view's coordinates to `view`'s (nullptr: the window).
    QPointF convertPointToView(const QPointF &point, const QKView *view) const;

protected:
    /// Where the bounds origin is shown at this moment: a scrolling view moves its
    /// subviews by it. The base answers bounds().topLeft().
    virtual QPointF shownBoundsOrigin() const { return bounds().topLeft(); }
    /// Shows every subview again at its frame (after shownBoundsOrigin changed).
    void refreshSubviewGeometry();

    void paintEvent(QPaintEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    bool event(QEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;

private:
    friend class QKViewController;
    friend class QKAnimation;
    void applyGeometry(const QRectF &displayed);
    void autoresizeSubviews(const QSizeF &oldSize, const QSizeF &newSize);
    void applyInteraction();
    static void applyTransparency(QWidget *widget, bool blocked);
    bool interactionBlocked() const;

    QRectF m_frame;
    QRectF m_shown; // the frame as shown: the model, or on the way there while animating
    QColor m_backgroundColor;
    qreal m_alpha = 1.0;
    int m_autoresizingMask = AutoresizingNone;
    bool m_hidden = false;
    bool m_userInteraction = true;
    bool m_needsLayout = false;
    bool m_pressed = false;
    QKViewController *m_viewController = nullptr;
};
