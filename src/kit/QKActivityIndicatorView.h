#pragma once

#include "QKView.h"

#include <QTimer>

/// The platform's spinner: twelve spokes fading round while animating. Its size
/// follows the style; it hides itself when stopped unless told otherwise.
class MURMORA_EXPORT QKActivityIndicatorView : public QKView
{
    Q_OBJECT
public:
    enum Style { WhiteLarge = 0, White = 1, Gray = 2 };

    explicit QKActivityIndicatorView(Style style = White, QWidget *parent = nullptr);
    ~QKActivityIndicatorView() override;

    Style style() const { return m_style; }
    /// Resizes the view to the style's size around its centre.
    void setStyle(Style style);
    /// White for the white styles, grey for Gray, unless set.
    QColor color() const { return m_color; }
    void setColor(const QColor &color);

    void startAnimating();
    void stopAnimating();
    bool isAnimating() const { return m_animating; }
    /// True by default: stopped means hidden.
    bool hidesWhenStopped() const { return m_hidesWhenStopped; }
    void setHidesWhenStopped(bool hides);

    /// 20 by 20 points, 37 by 37 for WhiteLarge.
    QSizeF sizeThatFits(const QSizeF &size) const override;
    void drawRect(QPainter &painter, const QRectF &rect) override;

protected:
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    void updateTimer();

    Style m_style;
    QColor m_color;
    bool m_animating = false;
    bool m_hidesWhenStopped = true;
    int m_step = 0;
    QTimer m_timer;
};
