#pragma once

#include <QRect>
#include <QWidget>

#include <array>

class QLabel;
class QProgressBar;
class QVRolloverButton;
class SubviewController;

/**
 * @brief The view of one upload row: icon, state badge, name, status line, progress bar and
 * the restart, cancel/delete and reveal buttons. Controls keep their distance to the bottom
 * edge when the row changes height; text and bar follow its width, buttons its right edge.
 */
class QVSubView : public QWidget
{
    Q_OBJECT
public:
    /** @brief A row of the given width and height 45, its buttons' hover tracking disabled. */
    explicit QVSubView(int width = 350, QWidget *parent = nullptr);

    QProgressBar *progressIndicator() const { return _progressIndicator; }
    QLabel *imageView() const { return _imageView; }
    QLabel *imageState() const { return _imageState; }
    QLabel *fileName() const { return _fileName; }
    QLabel *statusText() const { return _statusText; }
    QVRolloverButton *buttonRetry() const { return _buttonRetry; }
    QVRolloverButton *buttonCancelDel() const { return _buttonCancelDel; }
    QVRolloverButton *buttonOpen() const { return _buttonOpen; }

    /** @brief The row this view shows (not owned); the list gives the view back through it. */
    void setOwner(SubviewController *row) { _owner = row; }
    SubviewController *owner() const { return _owner; }

    /** @brief Sets the row's height; every control keeps its distance to the bottom edge. */
    void setFrameHeight(int height);
    /** @brief Colour of the name and the status line (white on a selected row). */
    void setTextColor(const QColor &color);

    /** @brief A control's frame in row coordinates: x from the left, y up from the bottom edge. */
    QRect controlFrame(const QWidget *control) const;
    /** @brief Moves or resizes a control, in the coordinates of controlFrame(). */
    void setControlFrame(QWidget *control, const QRect &frame);

protected:
    void resizeEvent(QResizeEvent *event) override;

private:
    struct Slot
    {
        QWidget *control;
        QRect frame; // at baseWidth, y up from the bottom
        bool widthSizable;
        bool flexibleLeft;
    };
    Slot *slotOf(const QWidget *control);
    const Slot *slotOf(const QWidget *control) const;
    QRect currentFrame(const Slot &slot) const;
    void place(const Slot &slot);

    QProgressBar *_progressIndicator;
    QLabel *_imageView;
    QLabel *_imageState;
    QLabel *_fileName;
    QLabel *_statusText;
    QVRolloverButton *_buttonRetry;
    QVRolloverButton *_buttonCancelDel;
    QVRolloverButton *_buttonOpen;
    SubviewController *_owner = nullptr;
    int baseWidth;
    std::array<Slot, 8> placements;
};
