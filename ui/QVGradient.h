#pragma once

#include <QColor>
#include <QWidget>

class QPainter;

/** @brief The header's background: a vertical gradient from a top to a bottom colour. */
class QVGradient : public QWidget
{
    Q_OBJECT
public:
    explicit QVGradient(QWidget *parent = nullptr);

    void setTopColor(const QColor &color);
    void setBottomColor(const QColor &color);
    QColor topColor() const { return TopColor; }
    QColor bottomColor() const { return BottomColor; }

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    /**
     * @brief Shades rect from startColor at its bottom edge to endColor at its top edge,
     * one device pixel row at a time. Alpha only ever rises from the start alpha.
     */
    static void linearGradientFill(QPainter &painter, const QRectF &rect, const QColor &startColor,
                                   const QColor &endColor);
    static float diff(float a, float b) { return a - b; }
    static float absdiff(float a, float b) { return a > b ? a - b : b - a; }

    // Black until the main controller sets the header's colours.
    QColor TopColor{Qt::black};
    QColor BottomColor{Qt::black};
};
