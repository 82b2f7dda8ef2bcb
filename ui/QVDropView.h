#pragma once

#include <QFrame>

/**
 * @brief The drop area that stands in for the empty list: files dropped on it are queued
 * just as on the list.
 */
class QVDropView : public QFrame
{
    Q_OBJECT
public:
    explicit QVDropView(QWidget *parent = nullptr);

protected:
    void dragEnterEvent(QDragEnterEvent *event) override;
    void dragMoveEvent(QDragMoveEvent *event) override;
    void dropEvent(QDropEvent *event) override;
    void paintEvent(QPaintEvent *event) override;
};
