#include "ui/QVSubView.h"

#include "ui/QVRolloverButton.h"

#include <QLabel>
#include <QPainter>
#include <QProgressBar>
#include <QStyle>

namespace {

// A one-line label that elides instead of cutting off; text() keeps the whole text.
class ElidedLabel : public QLabel
{
public:
    ElidedLabel(Qt::TextElideMode mode, QWidget *parent) : QLabel(parent), mode(mode) {}

protected:
    void paintEvent(QPaintEvent *) override
    {
        QPainter painter(this);
        const QRect area = contentsRect();
        const QString shown = fontMetrics().elidedText(text(), mode, area.width());
        style()->drawItemText(&painter, area, int(alignment()), palette(), isEnabled(), shown,
                              foregroundRole());
    }

private:
    Qt::TextElideMode mode;
};

QLabel *textField(Qt::TextElideMode mode, QWidget *parent)
{
    auto *label = new ElidedLabel(mode, parent);
    QFont font = label->font();
    font.setPixelSize(11); // the small control size
    label->setFont(font);
    label->setAlignment(Qt::AlignLeft | Qt::AlignVCenter);
    return label;
}

QVRolloverButton *rowButton(const QString &image, QWidget *parent)
{
    auto *button = new QVRolloverButton(parent);
    button->setImage(image);
    // Row buttons never show their hover image; see QVRolloverButton::disableTracking.
    button->disableTracking();
    return button;
}

} // namespace

QVSubView::QVSubView(int width, QWidget *parent)
    : QWidget(parent), _progressIndicator(new QProgressBar(this)), _imageView(new QLabel(this)),
      _imageState(new QLabel(this)), _fileName(textField(Qt::ElideMiddle, this)),
      _statusText(textField(Qt::ElideRight, this)),
      _buttonRetry(rowButton(QStringLiteral("restart"), this)),
      _buttonCancelDel(rowButton(QStringLiteral("cancel"), this)),
      _buttonOpen(rowButton(QStringLiteral("show"), this)),
      baseWidth(width), placements{{
                            {_fileName, {68, 25, width - 160, 14}, true, false},
                            {_statusText, {68, 5, width - 160, 14}, true, false},
                            {_progressIndicator, {68, 19, width - 160, 14}, true, false},
                            {_imageView, {10, 2, 47, 41}, false, false},
                            {_imageState, {38, 3, 20, 19}, false, false},
                            {_buttonRetry, {width - 80, 9, 24, 26}, false, true},
                            {_buttonCancelDel, {width - 55, 9, 24, 26}, false, true},
                            {_buttonOpen, {width - 30, 9, 24, 26}, false, true},
                        }}
{
    resize(width, 45);
    _progressIndicator->setTextVisible(false);
    _progressIndicator->setRange(0, 100);
    _imageView->setAlignment(Qt::AlignCenter);
    _imageState->setAlignment(Qt::AlignCenter);
    for (const Slot &slot : placements)
        place(slot);
}

void QVSubView::setFrameHeight(int height)
{
    resize(width(), height);
    // A hidden view gets its resize event only when shown: place the controls now.
    for (const Slot &slot : placements)
        place(slot);
}

void QVSubView::setTextColor(const QColor &color)
{
    for (QLabel *label : {_fileName, _statusText}) {
        QPalette palette = label->palette();
        palette.setColor(QPalette::WindowText, color);
        label->setPalette(palette);
    }
}

QVSubView::Slot *QVSubView::slotOf(const QWidget *control)
{
    for (Slot &slot : placements) {
        if (slot.control == control)
            return &slot;
    }
    return nullptr;
}

const QVSubView::Slot *QVSubView::slotOf(const QWidget *control) const
{
    return const_cast<QVSubView *>(this)->slotOf(control);
}

QRect QVSubView::currentFrame(const Slot &slot) const
{
    const int grown = width() - baseWidth;
    QRect frame = slot.frame;
    if (slot.widthSizable)
        frame.setWidth(frame.width() + grown);
    if (slot.flexibleLeft)
        frame.moveLeft(frame.x() + grown);
    return frame;
}

QRect QVSubView::controlFrame(const QWidget *control) const
{
    const Slot *slot = slotOf(control);
    return slot ? currentFrame(*slot) : QRect();
}

void QVSubView::setControlFrame(QWidget *control, const QRect &frame)
{
    Slot *slot = slotOf(control);
    if (!slot)
        return;
    const int grown = width() - baseWidth;
    slot->frame = frame;
    if (slot->widthSizable)
        slot->frame.setWidth(frame.width() - grown);
    if (slot->flexibleLeft)
        slot->frame.moveLeft(frame.x() - grown);
    place(*slot);
}

void QVSubView::place(const Slot &slot)
{
    const QRect frame = currentFrame(slot);
    // The frames count y up from the bottom edge; Qt counts down from the top.
    slot.control->setGeometry(frame.x(), height() - frame.y() - frame.height(),
                              qMax(0, frame.width()), frame.height());
}

void QVSubView::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    for (const Slot &slot : placements)
        place(slot);
}
