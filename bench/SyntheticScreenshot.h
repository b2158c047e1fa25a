#pragma once

// A phone-like screenshot, the same for the same size and seed: a flat navigation bar,
// a photo-like fifth with grain (the part that compresses badly) and rows of text.

#include <QColor>
#include <QFont>
#include <QImage>
#include <QPainter>
#include <QRandomGenerator>
#include <QString>

#include <cmath>

inline QImage syntheticScreenshot(const QSize &size, quint32 seed = 7)
{
    QImage image(size, QImage::Format_RGB32);
    image.fill(QColor(242, 242, 247));
    QRandomGenerator random(seed);
    const int w = size.width();
    const int h = size.height();
    const qreal s = w / 393.0; // pixels per point of a 393-point-wide phone
    auto px = [s](qreal points) { return int(points * s); };

    QPainter painter(&image);
    painter.fillRect(QRect(0, 0, w, px(100)), QColor(248, 248, 248));
    painter.fillRect(QRect(0, px(100), w, 1), QColor(200, 200, 200));
    // A named font, so the text looks the same wherever fontconfig has it.
    QFont font(QStringLiteral("DejaVu Sans"));
    font.setPixelSize(px(17));
    painter.setFont(font);
    painter.setPen(Qt::black);
    painter.drawText(QRect(0, px(50), w, px(44)), Qt::AlignCenter, QStringLiteral("Notes"));

    const int photoTop = px(120);
    const int photoHeight = h / 5;
    for (int y = 0; y < photoHeight && photoTop + y < h; ++y) {
        auto *line = reinterpret_cast<QRgb *>(image.scanLine(photoTop + y));
        const double fy = double(y) / photoHeight;
        for (int x = 0; x < w; ++x) {
            const double fx = double(x) / w;
            const int r = int(120 + 80 * std::sin(fx * 5.0 + fy * 2.0) + 30 * std::cos(fy * 9.0));
            const int g = int(140 + 60 * std::sin(fy * 4.0 - fx * 3.0));
            const int b = int(110 + 70 * std::cos(fx * 7.0 * fy + 1.0));
            const int grain = int(random.bounded(13)) - 6;
            line[x] = qRgb(qBound(0, r + grain, 255), qBound(0, g + grain, 255), qBound(0, b + grain, 255));
        }
    }

    font.setPixelSize(px(15));
    painter.setFont(font);
    int y = photoTop + photoHeight + px(20);
    for (int row = 0; y + px(60) < h; ++row, y += px(64)) {
        painter.fillRect(QRect(px(16), y, w - px(32), px(56)), Qt::white);
        painter.setPen(QColor(30, 30, 30));
        painter.drawText(QRect(px(28), y + px(6), w, px(22)), Qt::AlignLeft | Qt::AlignVCenter,
                         QStringLiteral("Meeting notes %1: budget, travel and the new office plan").arg(row));
        painter.setPen(QColor(130, 130, 135));
        painter.drawText(QRect(px(28), y + px(28), w, px(22)), Qt::AlignLeft | Qt::AlignVCenter,
                         QStringLiteral("Edited %1 minutes ago · %2 words").arg(row * 7 + 3).arg(100 + row * 37));
    }
    return image;
}
