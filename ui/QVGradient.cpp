#include "ui/QVGradient.h"

#include <QLinearGradient>
#include <QPainter>

QVGradient::QVGradient(QWidget *parent)
    : QWidget(parent), top(QColor::fromRgbF(0.2f, 0.2f, 0.2f)),
      bottom(QColor::fromRgbF(0x22 / 255.f, 0x22 / 255.f, 0x22 / 255.f))
{}

void QVGradient::setTopColor(const QColor &color)
{
    top = color;
    update();
}

void QVGradient::setBottomColor(const QColor &color)
{
    bottom = color;
    update();
}

void QVGradient::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    QLinearGradient gradient(0, 0, 0, height());
    gradient.setColorAt(0, top);
    gradient.setColorAt(1, bottom);
    painter.fillRect(rect(), gradient);
}
