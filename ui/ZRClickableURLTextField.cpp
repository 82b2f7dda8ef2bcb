#include "ui/ZRClickableURLTextField.h"

#include <QDesktopServices>
#include <QMouseEvent>

ZRClickableURLTextField::ZRClickableURLTextField(QWidget *parent) : QLabel(parent)
{
    setTextFormat(Qt::RichText);
    setCursor(Qt::PointingHandCursor);
}

void ZRClickableURLTextField::mouseReleaseEvent(QMouseEvent *event)
{
    if (event->button() != Qt::LeftButton || !rect().contains(event->position().toPoint())) {
        QLabel::mouseReleaseEvent(event);
        return;
    }
    if (targetURL.isValid())
        QDesktopServices::openUrl(targetURL);
    emit clicked(this);
}
