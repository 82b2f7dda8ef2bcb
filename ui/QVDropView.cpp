#include "ui/QVDropView.h"

#include "ui/FileDrop.h"
#include "ui/SubviewController.h"

#include <QDropEvent>
#include <QPainter>
#include <QPainterPath>

QVDropView::QVDropView(QWidget *parent) : QFrame(parent)
{
    setFrameShape(QFrame::NoFrame);
    setAcceptDrops(true);
    setFocusPolicy(Qt::ClickFocus);
}

void QVDropView::dragEnterEvent(QDragEnterEvent *event)
{
    FileDrop::acceptsDrag(event);
}

void QVDropView::dragMoveEvent(QDragMoveEvent *event)
{
    FileDrop::acceptsDrag(event);
}

void QVDropView::dropEvent(QDropEvent *event)
{
    FileDrop::performDrop(event, this, "QVDropView", 105);
    update();
}

void QVDropView::paintEvent(QPaintEvent *)
{
    // A dashed, rounded outline marks where files can be dropped.
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    QPen pen(palette().color(QPalette::Mid), 2, Qt::DashLine);
    painter.setPen(pen);
    const QRectF area = QRectF(rect()).adjusted(18, 18, -18, -18);
    painter.drawPath(SubviewController::bezierPathWithRoundRect(area, 14, 14));
}
