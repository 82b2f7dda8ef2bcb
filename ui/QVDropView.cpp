#include "ui/QVDropView.h"

QVDropView::QVDropView(QWidget *parent) : QFrame(parent)
{
    setFrameShape(QFrame::StyledPanel);
}
