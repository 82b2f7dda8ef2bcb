#pragma once

#include <QAbstractTableModel>
#include <QObject>
#include <QPointer>
#include <QVariant>

class QVSubView;
class iTableView;

/** @brief The table questions a data source may answer besides the row views. */
enum class SubviewTableMessage
{
    NumberOfRows,
    ObjectValue,
    SetObjectValue,
    HeightOfRow,
    SelectionShouldChange,
    ShouldSelectRow,
    SelectionDidChange,
};

/**
 * @brief What the list asks of its data source: the view of each row, and those of the
 * table's questions the source says it answers (respondsToTableMessage()).
 */
class SubviewTableViewControllerDataSourceProtocol
{
public:
    virtual ~SubviewTableViewControllerDataSourceProtocol() = default;

    /** @brief The view of a row. */
    virtual QVSubView *tableViewViewForRow(iTableView *tableView, int row) = 0;
    /** @brief Whether the source answers this question; the list's default stands otherwise. */
    virtual bool respondsToTableMessage(SubviewTableMessage) const { return false; }

    virtual int numberOfRowsInTableView(iTableView *) { return 0; }
    virtual QVariant tableViewObjectValue(iTableView *, int) { return {}; }
    virtual void tableViewSetObjectValue(iTableView *, const QVariant &, int) {}
    virtual float tableViewHeightOfRow(iTableView *, int) { return 45.0f; }
    virtual bool selectionShouldChangeInTableView(iTableView *) { return true; }
    virtual bool tableViewShouldSelectRow(iTableView *, int) { return true; }
    virtual void tableViewSelectionDidChange(iTableView *) {}
};

/**
 * @brief Hosts live row views in the one-column upload list. Rows are asked of the data
 * source; only rows on screen (and a few beyond) have a view, placed at their cell's frame.
 */
class SubviewTableViewController : public QAbstractTableModel
{
    Q_OBJECT
public:
    /** @brief Becomes the list's model and its delegate's messenger. */
    static SubviewTableViewController *controllerWithViewColumn(iTableView *tableView);

    /** @brief The data source; an object without the protocol is refused by an assertion. */
    void setDelegate(QObject *object);
    QObject *delegate() const { return delegateObject; }

    /** @brief The rows changed: views are taken off, the list reloads and places them anew. */
    void reloadTableView();
    /** @brief The heights of rows from row to the end changed. */
    void noteHeightOfRowsChanged(int row);
    /** @brief Puts the views of the rows in sight into the list; gives the others back. */
    void placeRowViews();
    /** @brief placeRowViews() once the events now queued are handled. */
    void schedulePlacement();
    /** @brief Row views in the list now, in row order. */
    QList<QVSubView *> placedViews() const;

    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    int columnCount(const QModelIndex &parent = QModelIndex()) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    bool setData(const QModelIndex &index, const QVariant &value, int role) override;
    Qt::ItemFlags flags(const QModelIndex &index) const override;

    /** @brief Forwarded, or the default when the delegate does not answer it. */
    bool selectionShouldChange();
    bool shouldSelectRow(int row);

private:
    explicit SubviewTableViewController(iTableView *tableView);
    bool isValidDelegateForSelector(SubviewTableMessage message) const;
    float heightOfRow(int row) const;
    void applyRowHeights(int from);

    iTableView *subviewTableView;
    int subviewTableColumn = 0;
    QObject *delegateObject = nullptr;
    SubviewTableViewControllerDataSourceProtocol *source = nullptr;
    QList<QPointer<QVSubView>> placed;
    bool placementPending = false;
};
