#include "ui/iTableView.h"

#include "app/MainController.h"
#include "ui/FileDrop.h"
#include "ui/QVRolloverButton.h"
#include "ui/SubviewTableViewController.h"

#include <QDragEnterEvent>
#include <QHeaderView>
#include <QKeyEvent>

iTableView::iTableView(QWidget *parent) : QTableView(parent)
{
    horizontalHeader()->hide();
    horizontalHeader()->setStretchLastSection(true);
    verticalHeader()->hide();
    setShowGrid(false); // the row views touch
    setSelectionBehavior(QAbstractItemView::SelectRows);
    setSelectionMode(QAbstractItemView::ExtendedSelection);
    setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
    setFocusPolicy(Qt::StrongFocus);
    setAcceptDrops(true);
    setDropIndicatorShown(false);
    setDragDropMode(QAbstractItemView::DropOnly);
}

void iTableView::scrollContentsBy(int dx, int dy)
{
    QTableView::scrollContentsBy(dx, dy);
    if (host)
        host->placeRowViews();
    // Rollover buttons find their hover areas again at the rows' new places.
    postButtonTrackingNotification(ButtonTrackingReset, this);
}

void iTableView::resizeEvent(QResizeEvent *event)
{
    QTableView::resizeEvent(event);
    if (host)
        host->schedulePlacement();
}

void iTableView::updateGeometries()
{
    QTableView::updateGeometries();
    if (host)
        host->schedulePlacement();
}

void iTableView::keyPressEvent(QKeyEvent *event)
{
    if ((event->key() == Qt::Key_Backspace || event->key() == Qt::Key_Delete) && mainController) {
        mainController->keyDown(event->key());
        return;
    }
    QTableView::keyPressEvent(event);
}

QItemSelectionModel::SelectionFlags iTableView::selectionCommand(const QModelIndex &index,
                                                                 const QEvent *event) const
{
    if (host && !host->selectionShouldChange())
        return QItemSelectionModel::NoUpdate;
    return QTableView::selectionCommand(index, event);
}

void iTableView::dragEnterEvent(QDragEnterEvent *event)
{
    if (FileDrop::acceptsDrag(event))
        setFocus(Qt::OtherFocusReason);
}

void iTableView::dragMoveEvent(QDragMoveEvent *event)
{
    FileDrop::acceptsDrag(event);
}

void iTableView::dragLeaveEvent(QDragLeaveEvent *event)
{
    event->accept();
}

void iTableView::dropEvent(QDropEvent *event)
{
    FileDrop::performDrop(event, this, "iTableView", 113);
    viewport()->update();
}
