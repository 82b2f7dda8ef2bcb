#pragma once

#include <QColor>
#include <QWidget>

/** @brief The header's background: a vertical gradient from a top to a bottom colour. */
class QVGradient : public QWidget
{
    Q_OBJECT
public:
    explicit QVGradient(QWidget *parent = nullptr);

    void setTopColor(const QColor &color);
    void setBottomColor(const QColor &color);
    QColor topColor() const { return top; }
    QColor bottomColor() const { return bottom; }

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    QColor top;
    QColor bottom;
};
