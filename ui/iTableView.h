#pragma once

#include <QTableView>

class SubviewTableViewController;

/**
 * @brief The upload list: one column of live row views, no headers, no grid. It takes
 * dropped files, hands the delete keys to the queue and re-places row views as it scrolls.
 */
class iTableView : public QTableView
{
    Q_OBJECT
public:
    explicit iTableView(QWidget *parent = nullptr);

    /** @brief The controller that places the row views (not owned). */
    void setHost(SubviewTableViewController *controller) { host = controller; }

protected:
    void scrollContentsBy(int dx, int dy) override;
    void resizeEvent(QResizeEvent *event) override;
    void updateGeometries() override;
    void keyPressEvent(QKeyEvent *event) override;
    QItemSelectionModel::SelectionFlags selectionCommand(const QModelIndex &index,
                                                         const QEvent *event) const override;
    void dragEnterEvent(QDragEnterEvent *event) override;
    void dragMoveEvent(QDragMoveEvent *event) override;
    void dragLeaveEvent(QDragLeaveEvent *event) override;
    void dropEvent(QDropEvent *event) override;

private:
    SubviewTableViewController *host = nullptr;
};
