// MainController: what the user does to rows that exist, and the saved queue.
#include "app/MainController.h"

#include "queue/QueueSaver.h"
#include "ui/SubviewController.h"

#include "ui/QVRolloverButton.h"
#include "ui/SubviewTableViewController.h"
#include "ui/iTableView.h"
#include "ui_MainWindow.h"

#include <QFontMetrics>
#include <QIcon>
#include <QItemSelectionModel>
#include <QLabel>
#include <QPushButton>
#include <QSettings>

int MainController::rowOf(const SubviewController *row) const
{
    for (size_t i = 0; i < subviewControllers.size(); ++i) {
        if (subviewControllers[i].get() == row)
            return int(i);
    }
    return -1;
}

void MainController::saveUploadFiles()
{
    QStringList paths;
    for (const auto &row : subviewControllers) {
        if (row->uploadState() == 0 || row->canReStart())
            paths << row->fileWithPath();
    }
    // Writing out a long queue takes milliseconds that the window should not wait for.
    if (!queueSaver)
        queueSaver = std::make_unique<QueueSaver>(QVUploadFilesKey);
    queueSaver->save(std::move(paths));
}

void MainController::waitForSavedQueue()
{
    if (queueSaver)
        queueSaver->wait();
}

void MainController::stopAllUploads(bool requeue)
{
    if (!currentUpload || !currentUpload->isUploading())
        return;
    uploader->stopUpload();
    if (requeue)
        currentUpload->requeue();
    else
        currentUpload->stopUpload();
    notifyRowHeight(rowOf(currentUpload));
    currentUpload = nullptr;
}

void MainController::buttonPressed(SubviewController *sender, int buttonIndex)
{
    switch (buttonIndex) {
    case 1:
        uploader->stopUpload();
        if (currentUpload) {
            currentUpload->stopUpload();
            notifyRowHeight(rowOf(currentUpload));
        }
        updateAccountInfo(targetURL);
        startNextUpload();
        break;
    case 2:
        postButtonTrackingNotification(ButtonTrackingDisable, this);
        removeRow(sender, true);
        tableViewController->reloadTableView();
        postButtonTrackingNotification(ButtonTrackingEnable, this);
        saveUploadFiles();
        startNextUpload();
        break;
    case 3:
        sender->requeue();
        startNextUpload();
        break;
    default:
        break;
    }
    validateButtons();
}

bool MainController::hasStopableItems() const
{
    for (const auto &row : subviewControllers) {
        if (row->canStop())
            return true;
    }
    return false;
}

bool MainController::hasReStartableItems() const
{
    for (const auto &row : subviewControllers) {
        if (row->canReStart())
            return true;
    }
    return false;
}

void MainController::validateButtons()
{
    if (hasStopableItems()) {
        StopRestartButton->setEnabled(true);
        StopRestartButton->setIcon(QIcon(QStringLiteral(":/images/stop-all")));
        StopRestartText->setText(QStringLiteral("Stop all"));
    } else if (hasReStartableItems()) {
        StopRestartButton->setEnabled(true);
        StopRestartButton->setIcon(QIcon(QStringLiteral(":/images/restart-all")));
        StopRestartText->setText(QStringLiteral("Restart all"));
    } else {
        StopRestartButton->setEnabled(false);
    }
    const bool rows = !subviewControllers.empty();
    if (subviewTableView->alternatingRowColors() != rows)
        subviewTableView->setAlternatingRowColors(rows);
    if (rows) {
        // The delete keys go to the list.
        subviewTableView->setFocus();
        if (dropText && dropText->parentWidget()) {
            dropText->hide();
            dropText->setParent(nullptr);
        }
        return;
    }
    QWidget *list = subviewTableView->viewport();
    if (!dropText) {
        dropText = new QLabel(QStringLiteral("Drop files or\nfolders here"));
        QFont font = dropText->font();
        font.setPointSize(36);
        dropText->setFont(font);
        dropText->setAlignment(Qt::AlignCenter);
        dropText->setAttribute(Qt::WA_TransparentForMouseEvents);
        QPalette palette = dropText->palette();
        palette.setColor(QPalette::WindowText, Qt::gray);
        dropText->setPalette(palette);
        list->installEventFilter(this); // keeps the hint centred as the list resizes
    }
    if (dropText->parentWidget() != list) {
        dropText->setParent(list);
        dropText->show();
    }
    placeDropText();
}

void MainController::placeDropText()
{
    const QRect bounds = subviewTableView->viewport()->rect();
    const int height = QFontMetrics(dropText->font()).height();
    dropText->setGeometry(bounds.x(), 25 + (bounds.height() - (50 + height)) / 2, bounds.width(),
                          50 + height);
}

void MainController::removeRow(SubviewController *row, bool reSelect)
{
    if (row == currentUpload) {
        uploader->stopUpload();
        row->stopUpload();
        currentUpload = nullptr;
    }
    const int index = rowOf(row);
    if (index < 0)
        return;
    if (reSelect) {
        // The selection keeps the same rows: those below the removed one move up by one.
        QItemSelectionModel *selection = subviewTableView->selectionModel();
        const QModelIndexList selected = selection->selectedRows();
        QList<int> kept;
        for (const QModelIndex &cell : selected) {
            if (cell.row() != index)
                kept << (cell.row() > index ? cell.row() - 1 : cell.row());
        }
        if (kept.size() < selected.size()) {
            QItemSelection rows;
            for (int r : std::as_const(kept))
                rows.select(tableViewController->index(r, 0), tableViewController->index(r, 0));
            selection->select(rows,
                              QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
        }
    }
    subviewControllers.erase(subviewControllers.begin() + index);
}

void MainController::keyDown(int key)
{
    if (key != Qt::Key_Backspace && key != Qt::Key_Delete)
        return;
    postButtonTrackingNotification(ButtonTrackingDisable, this);
    QItemSelectionModel *selection = subviewTableView->selectionModel();
    std::vector<bool> selected(subviewControllers.size(), false);
    for (const QModelIndex &cell : selection->selectedRows()) {
        if (cell.row() >= 0 && size_t(cell.row()) < selected.size())
            selected[size_t(cell.row())] = true;
    }
    selection->clearSelection();
    // From the last row down, so the indexes still to visit stay valid.
    for (size_t i = selected.size(); i-- > 0;) {
        if (selected[i])
            removeRow(subviewControllers[i].get(), false);
    }
    tableViewController->reloadTableView();
    postButtonTrackingNotification(ButtonTrackingEnable, this);
    saveUploadFiles();
    startNextUpload();
    validateButtons();
}

void MainController::stopRestartPressed()
{
    if (hasStopableItems()) {
        stopAllUploads(false);
        for (const auto &row : subviewControllers) {
            if (row->canStop())
                row->stopUpload();
        }
        validateButtons();
    } else {
        for (const auto &row : subviewControllers) {
            if (row->canReStart())
                row->requeue();
        }
        validateButtons();
        refreshAccountInfo();
        startNextUpload();
    }
}

QVSubView *MainController::tableViewViewForRow(iTableView *, int row)
{
    return subviewControllers[size_t(row)]->view();
}

bool MainController::respondsToTableMessage(SubviewTableMessage message) const
{
    return message == SubviewTableMessage::NumberOfRows ||
           message == SubviewTableMessage::HeightOfRow ||
           message == SubviewTableMessage::SelectionDidChange;
}

int MainController::numberOfRowsInTableView(iTableView *)
{
    return int(subviewControllers.size());
}

float MainController::tableViewHeightOfRow(iTableView *, int row)
{
    return subviewControllers[size_t(row)]->rowHeight();
}

void MainController::tableViewSelectionDidChange(iTableView *)
{
    validateButtons();
}

void MainController::notifyRowHeight(int row)
{
    if (tableViewController && row >= 0)
        tableViewController->noteHeightOfRowsChanged(row);
    notifyExitTracking();
}

void MainController::notifyExitTracking()
{
    QVRolloverButton::notifyExitTracking();
}
