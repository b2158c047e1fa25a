#pragma once

#include "QKControl.h"

#include <QPointer>

#include <functional>

class QKActivityIndicatorView;
class QKScrollView;

/// Pull to refresh: added to a scroll view with addSubview (it notices the scroll
/// view it was put in), it sits in the space above the content. Dragging the content
/// down by more than 60 points starts refreshing and sends ValueChanged once; while
/// refreshing, the scroll view keeps 60 more points of top inset so the spinner
/// stays in sight, until endRefreshing().
class MURMORA_EXPORT QKRefreshControl : public QKControl
{
    Q_OBJECT
public:
    explicit QKRefreshControl(QWidget *parent = nullptr);
    ~QKRefreshControl() override;

    bool isRefreshing() const { return m_refreshing; }
    /// Shows the spinner (scrolling it into sight when the content rests at the top)
    /// without sending ValueChanged, as the platform does.
    void beginRefreshing();
    void endRefreshing();

    /// The spokes' colour; grey unless set.
    QColor tintColor() const { return m_tint; }
    void setTintColor(const QColor &color);

    using QKControl::addTarget;
    /// Calls `action` on ValueChanged until `context` is destroyed.
    void addTarget(QObject *context, std::function<void()> action);

    /// How far past the top a pull must go.
    static constexpr qreal PullDistance = 60;

    void didMoveToSuperview() override;
    void layoutSubviews() override;
    void drawRect(QPainter &painter, const QRectF &rect) override;

signals:
    void valueChanged();

private:
    void scrollViewDidScroll();
    void setInsetAdded(bool added);

    QPointer<QKScrollView> m_scrollView;
    QKActivityIndicatorView *m_spinner = nullptr;
    QColor m_tint;
    // The height of the space shown above the content.
    qreal m_revealed = 0;
    qreal m_addedInset = 0;
    bool m_refreshing = false;
    bool m_armed = true;
    QMetaObject::Connection m_scrollConnection;
};
