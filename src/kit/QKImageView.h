#pragma once

#include "QKView.h"

#include <QPointer>

/// Shows an image, scaled by its content mode, with an optional border over it and
/// a soft drop shadow around it. Like the platform's layer shadow, the shadow falls
/// outside the view: it is painted on the superview, under the view.
class MURMORA_EXPORT QKImageView : public QKView
{
    Q_OBJECT
public:
    enum ContentMode { ScaleToFill = 0, ScaleAspectFit = 1, ScaleAspectFill = 2, Redraw = 3 };

    explicit QKImageView(const QImage &image = QImage(), QWidget *parent = nullptr);
    ~QKImageView() override;

    /// Its size in points is its pixel size over its devicePixelRatio.
    QImage image() const { return m_image; }
    void setImage(const QImage &image);
    ContentMode contentMode() const { return m_contentMode; }
    void setContentMode(ContentMode mode);

    /// Drawn inside the bounds, over the image. Width 0 (the default) draws none.
    QColor borderColor() const { return m_borderColor; }
    void setBorderColor(const QColor &color);
    qreal borderWidth() const { return m_borderWidth; }
    void setBorderWidth(qreal width);

    /// The shadow shows when its opacity is above 0 (the default is 0); offset (0, -3),
    /// radius 3 and black unless set, as on the platform.
    QPointF shadowOffset() const { return m_shadowOffset; }
    void setShadowOffset(const QPointF &offset);
    qreal shadowOpacity() const { return m_shadowOpacity; }
    void setShadowOpacity(qreal opacity);
    qreal shadowRadius() const { return m_shadowRadius; }
    void setShadowRadius(qreal radius);
    QColor shadowColor() const { return m_shadowColor; }
    void setShadowColor(const QColor &color);

    /// Where the image is drawn in the bounds for the content mode (may reach outside).
    QRectF imageRect() const;

    /// The image's size in points.
    QSizeF sizeThatFits(const QSizeF &size) const override;
    void drawRect(QPainter &painter, const QRectF &rect) override;

protected:
    bool event(QEvent *event) override;
    bool eventFilter(QObject *watched, QEvent *event) override;
    void moveEvent(QMoveEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;

private:
    QRectF shadowShape() const;
    QRectF shadowArea() const;
    void paintShadow(QWidget *host);
    void updateShadow();
    void attachShadowHost();

    QImage m_image;
    ContentMode m_contentMode = ScaleToFill;
    QColor m_borderColor = Qt::black;
    qreal m_borderWidth = 0;
    QPointF m_shadowOffset{0, -3};
    qreal m_shadowOpacity = 0;
    qreal m_shadowRadius = 3;
    QColor m_shadowColor = Qt::black;

    QPointer<QWidget> m_shadowHost;
    QRect m_shadowPainted;
    QImage m_scaled;
    QImage m_shadow;
    QString m_shadowKey;
};
