#include "ui/QVGradient.h"

#include <QPaintDevice>
#include <QPainter>

#include <algorithm>
#include <cmath>

QVGradient::QVGradient(QWidget *parent) : QWidget(parent) {}

void QVGradient::setTopColor(const QColor &color)
{
    TopColor = color;
    update();
}

void QVGradient::setBottomColor(const QColor &color)
{
    BottomColor = color;
    update();
}

void QVGradient::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    linearGradientFill(painter, rect(), BottomColor, TopColor);
}

void QVGradient::linearGradientFill(QPainter &painter, const QRectF &rect, const QColor &startColor,
                                    const QColor &endColor)
{
    float start[4];
    float end[4];
    startColor.toRgb().getRgbF(&start[0], &start[1], &start[2], &start[3]);
    endColor.toRgb().getRgbF(&end[0], &end[1], &end[2], &end[3]);
    // The alpha step is absolute on purpose: towards a more transparent top colour the
    // header keeps the bottom colour's alpha instead of fading out.
    const float delta[4] = {diff(end[0], start[0]), diff(end[1], start[1]), diff(end[2], start[2]),
                            absdiff(end[3], start[3])};

    const qreal ratio = painter.device() ? painter.device()->devicePixelRatioF() : 1.0;
    const int firstRow = qRound(rect.top() * ratio);
    const int rows = qRound((rect.top() + rect.height()) * ratio) - firstRow;
    if (rows <= 0 || rect.width() <= 0)
        return;

    painter.save();
    painter.setRenderHint(QPainter::Antialiasing, false);
    for (int row = 0; row < rows; ++row) {
        // t runs from 0 at the bottom edge to 1 at the top edge, taken at the row's centre.
        const float t = float((rows - row - 0.5) / rows);
        float shade[4];
        for (int i = 0; i < 4; ++i)
            shade[i] = std::clamp(start[i] + t * delta[i], 0.0f, 1.0f);
        painter.fillRect(QRectF(rect.left(), (firstRow + row) / ratio, rect.width(), 1 / ratio),
                         QColor::fromRgbF(shade[0], shade[1], shade[2], shade[3]));
    }
    painter.restore();
}
