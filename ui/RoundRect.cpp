#include "ui/SubviewController.h"

#include <QPainterPath>
#include <QRectF>

#include <algorithm>

QPainterPath SubviewController::bezierPathWithRoundRect(const QRectF &rect, qreal xRadius,
                                                        qreal yRadius)
{
    // Control points this far along the tangents make a cubic follow a quarter ellipse.
    constexpr qreal kappa = 0.5522847771644592;
    const qreal rx = std::min(rect.width() / 2, xRadius);
    const qreal ry = std::min(rect.height() / 2, yRadius);
    const qreal kx = rx * kappa;
    const qreal ky = ry * kappa;
    // The corners' centres.
    const QRectF inner = rect.adjusted(rx, ry, -rx, -ry);

    QPainterPath path;
    path.moveTo(inner.left(), rect.top());
    path.lineTo(inner.right(), rect.top());
    path.cubicTo(inner.right() + kx, rect.top(), rect.right(), inner.top() - ky, rect.right(),
                 inner.top());
    path.lineTo(rect.right(), inner.bottom());
    path.cubicTo(rect.right(), inner.bottom() + ky, inner.right() + kx, rect.bottom(),
                 inner.right(), rect.bottom());
    path.lineTo(inner.left(), rect.bottom());
    path.cubicTo(inner.left() - kx, rect.bottom(), rect.left(), inner.bottom() + ky, rect.left(),
                 inner.bottom());
    path.lineTo(rect.left(), inner.top());
    path.cubicTo(rect.left(), inner.top() - ky, inner.left() - kx, rect.top(), inner.left(),
                 rect.top());
    path.closeSubpath();
    return path;
}
