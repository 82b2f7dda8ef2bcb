#include "ui/QVDropView.h"

#include "ui/FileDrop.h"

#include <QDropEvent>

QVDropView::QVDropView(QWidget *parent) : QFrame(parent)
{
    setFrameShape(QFrame::StyledPanel);
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
