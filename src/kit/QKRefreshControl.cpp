#include "QKRefreshControl.h"

#include "QKActivityIndicatorView.h"
#include "QKAnimation.h"
#include "QKScrollView.h"

#include <QPainter>

#include <cmath>

namespace {

constexpr int Spokes = 12;
constexpr qreal SpinnerSide = 20;

} // namespace

QKRefreshControl::QKRefreshControl(QWidget *parent)
    : QKControl(QRectF(0, -PullDistance, 320, PullDistance), parent), m_tint(128, 128, 128)
{
    setAutoresizingMask(FlexibleWidth);
    m_spinner = new QKActivityIndicatorView(QKActivityIndicatorView::Gray);
    m_spinner->setColor(m_tint);
    addSubview(m_spinner);
}

QKRefreshControl::~QKRefreshControl() = default;

void QKRefreshControl::setTintColor(const QColor &color)
{
    m_tint = color;
    m_spinner->setColor(color);
    update();
}

void QKRefreshControl::addTarget(QObject *context, std::function<void()> action)
{
    if (action)
        addTarget(
            context, [action = std::move(action)](QKControl *) { action(); }, ValueChanged);
}

void QKRefreshControl::beginRefreshing()
{
    if (m_refreshing)
        return;
    m_refreshing = true;
    m_spinner->startAnimating();
    setInsetAdded(true);
    scrollViewDidScroll();
}

void QKRefreshControl::endRefreshing()
{
    if (!m_refreshing)
        return;
    m_refreshing = false;
    m_spinner->stopAnimating();
    setInsetAdded(false);
    scrollViewDidScroll();
}

void QKRefreshControl::setInsetAdded(bool added)
{
    const qreal wanted = added ? PullDistance : 0;
    if (!m_scrollView || m_addedInset == wanted)
        return;
    QMarginsF inset = m_scrollView->contentInset();
    inset.setTop(inset.top() - m_addedInset + wanted);
    m_addedInset = wanted;
    QPointer<QKScrollView> scrollView = m_scrollView;
    QKAnimation::animate(0.3, [&] { scrollView->setContentInset(inset); });
}

void QKRefreshControl::didMoveToSuperview()
{
    disconnect(m_scrollConnection);
    // Leave a scroll view as it was before.
    if (m_scrollView && m_addedInset > 0) {
        QMarginsF inset = m_scrollView->contentInset();
        inset.setTop(inset.top() - m_addedInset);
        m_scrollView->setContentInset(inset);
    }
    m_addedInset = 0;
    m_scrollView = qobject_cast<QKScrollView *>(superview());
    if (!m_scrollView)
        return;
    m_scrollConnection = connect(m_scrollView, &QKScrollView::didScroll, this, [this] { scrollViewDidScroll(); });
    if (m_refreshing)
        setInsetAdded(true);
    scrollViewDidScroll();
}

void QKRefreshControl::scrollViewDidScroll()
{
    if (!m_scrollView)
        return;
    const qreal baseInset = m_scrollView->contentInset().top() - m_addedInset;
    m_revealed = qMax<qreal>(0, -(m_scrollView->contentOffset().y() + baseInset));
    if (m_revealed <= 0)
        m_armed = true;
    // Over the whole revealed space, with the spinner in its middle.
    const qreal height = qMax(PullDistance, m_revealed);
    setFrame(QRectF(0, -height, m_scrollView->frame().width(), height));
    layoutSubviews();
    update();
    if (!m_refreshing && m_armed && m_scrollView->isDragging() && m_revealed > PullDistance) {
        m_armed = false;
        beginRefreshing();
        QPointer<QKRefreshControl> self(this);
        sendActions(ValueChanged);
        if (self)
            emit valueChanged();
    }
}

void QKRefreshControl::layoutSubviews()
{
    const QRectF rect = bounds();
    m_spinner->setCenter(QPointF(rect.width() / 2, rect.height() - m_revealed / 2));
}

void QKRefreshControl::drawRect(QPainter &painter, const QRectF &rect)
{
    if (m_refreshing || m_revealed <= 0)
        return;
    // Spokes appear one by one as the pull nears the distance that starts a refresh.
    const int shown = qMin(Spokes, int(Spokes * m_revealed / PullDistance));
    const QPointF center(rect.width() / 2, rect.height() - m_revealed / 2);
    const qreal outer = SpinnerSide / 2;
    const qreal inner = outer * 0.48;
    const qreal thickness = SpinnerSide * 0.1;
    painter.save();
    painter.translate(center);
    painter.setPen(QPen(m_tint, thickness, Qt::SolidLine, Qt::RoundCap));
    for (int i = 0; i < shown; ++i) {
        const qreal angle = 2 * M_PI * i / Spokes - M_PI / 2;
        const QPointF direction(std::cos(angle), std::sin(angle));
        painter.drawLine(direction * (inner + thickness / 2), direction * (outer - thickness / 2));
    }
    painter.restore();
}
