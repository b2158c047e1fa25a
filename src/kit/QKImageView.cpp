#include "QKImageView.h"

#include <QPaintEvent>
#include <QPainter>

#include <cmath>
#include <vector>

namespace {

// Share of a blurred interval [0, length] at x: the rectangle's shadow is the
// product of two of these, so no blurring pass is needed.
std::vector<float> blurredEdge(int pixels, qreal ratio, qreal margin, qreal length, qreal sigma)
{
    std::vector<float> values(size_t(qMax(0, pixels)));
    const qreal scale = 1.0 / (sigma * std::sqrt(2.0));
    for (int i = 0; i < pixels; ++i) {
        const qreal x = (i + 0.5) / ratio - margin;
        values[size_t(i)] = float(0.5 * (std::erf(x * scale) - std::erf((x - length) * scale)));
    }
    return values;
}

} // namespace

QKImageView::QKImageView(const QImage &image, QWidget *parent) : QKView(QRectF(), parent), m_image(image)
{
    if (!image.isNull())
        setFrame(QRectF(QPointF(0, 0), sizeThatFits(QSizeF())));
    // Taps on an image belong to what it sits on.
    setUserInteractionEnabled(false);
    attachShadowHost();
}

QKImageView::~QKImageView()
{
    if (m_shadowHost) {
        m_shadowHost->removeEventFilter(this);
        m_shadowHost->update(m_shadowPainted);
    }
}

void QKImageView::setImage(const QImage &image)
{
    m_image = image;
    m_scaled = QImage();
    update();
    updateShadow();
}

void QKImageView::setContentMode(ContentMode mode)
{
    m_contentMode = mode;
    m_scaled = QImage();
    update();
    updateShadow();
}

void QKImageView::setBorderColor(const QColor &color)
{
    m_borderColor = color;
    update();
}

void QKImageView::setBorderWidth(qreal width)
{
    m_borderWidth = qMax(0.0, width);
    update();
    updateShadow();
}

void QKImageView::setShadowOffset(const QPointF &offset)
{
    m_shadowOffset = offset;
    updateShadow();
}

void QKImageView::setShadowOpacity(qreal opacity)
{
    m_shadowOpacity = qBound(0.0, opacity, 1.0);
    updateShadow();
}

void QKImageView::setShadowRadius(qreal radius)
{
    m_shadowRadius = qMax(0.0, radius);
    updateShadow();
}

void QKImageView::setShadowColor(const QColor &color)
{
    m_shadowColor = color;
    updateShadow();
}

QRectF QKImageView::imageRect() const
{
    const QRectF bounds = this->bounds();
    if (m_image.isNull())
        return QRectF();
    const QSizeF size = m_image.deviceIndependentSize();
    if (m_contentMode == ScaleToFill || m_contentMode == Redraw || size.isEmpty())
        return bounds;
    const qreal sx = bounds.width() / size.width();
    const qreal sy = bounds.height() / size.height();
    const qreal scale = m_contentMode == ScaleAspectFit ? qMin(sx, sy) : qMax(sx, sy);
    QRectF rect(QPointF(0, 0), size * scale);
    rect.moveCenter(bounds.center());
    return rect;
}

QSizeF QKImageView::sizeThatFits(const QSizeF &) const
{
    return m_image.isNull() ? QSizeF(0, 0) : m_image.deviceIndependentSize();
}

void QKImageView::drawRect(QPainter &painter, const QRectF &rect)
{
    const QRectF target = imageRect();
    if (!target.isEmpty()) {
        // Smooth scaling once per size looks better than the painter's bilinear filter on big downscales.
        const qreal ratio = painter.device()->devicePixelRatioF();
        const QSize pixels = (target.size() * ratio).toSize();
        if (m_scaled.size() != pixels && !pixels.isEmpty())
            m_scaled = m_image.scaled(pixels, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
        painter.save();
        painter.setClipRect(rect, Qt::IntersectClip);
        painter.setRenderHint(QPainter::SmoothPixmapTransform);
        painter.drawImage(target, m_scaled);
        painter.restore();
    }
    if (m_borderWidth > 0 && m_borderColor.alpha() > 0) {
        const qreal half = m_borderWidth / 2;
        painter.save();
        painter.setPen(QPen(m_borderColor, m_borderWidth, Qt::SolidLine, Qt::SquareCap, Qt::MiterJoin));
        painter.setBrush(Qt::NoBrush);
        painter.drawRect(rect.adjusted(half, half, -half, -half));
        painter.restore();
    }
}

QRectF QKImageView::shadowShape() const
{
    // The layer casts the shadow of what it paints: its background and border, else the image.
    if ((backgroundColor().isValid() && backgroundColor().alpha() > 0) ||
        (m_borderWidth > 0 && m_borderColor.alpha() > 0))
        return bounds();
    return imageRect() & bounds();
}

QRectF QKImageView::shadowArea() const
{
    const QRectF shape = shadowShape();
    if (m_shadowOpacity <= 0 || shape.isEmpty())
        return QRectF();
    const qreal margin = std::ceil(m_shadowRadius * 1.5) + 1;
    return shape.translated(m_shadowOffset).adjusted(-margin, -margin, margin, margin);
}

void QKImageView::updateShadow()
{
    attachShadowHost();
    if (!m_shadowHost)
        return;
    const QRect area = shadowArea().translated(pos()).toAlignedRect();
    m_shadowHost->update(m_shadowPainted | area);
    m_shadowPainted = area;
}

void QKImageView::attachShadowHost()
{
    QWidget *host = isWindow() ? nullptr : parentWidget();
    if (host == m_shadowHost)
        return;
    if (m_shadowHost) {
        m_shadowHost->removeEventFilter(this);
        m_shadowHost->update(m_shadowPainted);
    }
    m_shadowHost = host;
    m_shadowPainted = QRect();
    if (host)
        host->installEventFilter(this);
}

void QKImageView::paintShadow(QWidget *host)
{
    const QRectF shape = shadowShape();
    const QRectF area = shadowArea();
    if (area.isEmpty() || !isVisibleTo(host) || alpha() <= 0)
        return;
    const qreal ratio = host->devicePixelRatioF();
    const qreal margin = shape.translated(m_shadowOffset).left() - area.left();
    const QString key = QStringLiteral("%1x%2 %3 %4 %5 %6")
                            .arg(shape.width())
                            .arg(shape.height())
                            .arg(m_shadowRadius)
                            .arg(ratio)
                            .arg(m_shadowColor.name(QColor::HexArgb))
                            .arg(m_shadowOpacity);
    if (key != m_shadowKey) {
        const QSize pixels = (area.size() * ratio).toSize();
        const qreal sigma = qMax(m_shadowRadius / 2, 0.01);
        const auto xs = blurredEdge(pixels.width(), ratio, margin, shape.width(), sigma);
        const auto ys = blurredEdge(pixels.height(), ratio, margin, shape.height(), sigma);
        QImage shadow(pixels, QImage::Format_ARGB32_Premultiplied);
        const qreal strength = m_shadowOpacity * m_shadowColor.alphaF();
        for (int y = 0; y < pixels.height(); ++y) {
            auto *line = reinterpret_cast<QRgb *>(shadow.scanLine(y));
            for (int x = 0; x < pixels.width(); ++x) {
                const int a = qBound(0, qRound(strength * xs[size_t(x)] * ys[size_t(y)] * 255), 255);
                line[x] = qPremultiply(qRgba(m_shadowColor.red(), m_shadowColor.green(), m_shadowColor.blue(), a));
            }
        }
        shadow.setDevicePixelRatio(ratio);
        m_shadow = shadow;
        m_shadowKey = key;
    }
    QPainter painter(host);
    painter.setOpacity(alpha());
    painter.drawImage(area.topLeft() + QPointF(pos()), m_shadow);
}

bool QKImageView::eventFilter(QObject *watched, QEvent *event)
{
    if (watched != m_shadowHost || event->type() != QEvent::Paint)
        return QKView::eventFilter(watched, event);
    // The first filter to see the paint does it for every shadow on the host: it ends the event.
    QList<QKImageView *> casting;
    for (QObject *child : m_shadowHost->children())
        if (auto *view = qobject_cast<QKImageView *>(child); view && !view->shadowArea().isEmpty())
            casting.append(view);
    if (casting.isEmpty())
        return false;
    // The host paints itself first; the shadows go over that and under its children.
    static_cast<QObject *>(m_shadowHost)->event(event);
    for (QKImageView *view : casting)
        view->paintShadow(m_shadowHost);
    return true;
}

bool QKImageView::event(QEvent *event)
{
    switch (event->type()) {
    case QEvent::ParentChange:
    case QEvent::Show:
    case QEvent::Hide:
        updateShadow();
        break;
    default:
        break;
    }
    return QKView::event(event);
}

void QKImageView::moveEvent(QMoveEvent *event)
{
    QKView::moveEvent(event);
    updateShadow();
}

void QKImageView::resizeEvent(QResizeEvent *event)
{
    QKView::resizeEvent(event);
    updateShadow();
}
