#include "ui/SubviewTableViewController.h"

#include "app/Log.h"
#include "ui/QVSubView.h"
#include "ui/SubviewController.h"
#include "ui/iTableView.h"

#include <QHeaderView>
#include <QPalette>
#include <QScrollBar>
#include <QTimer>

namespace {
// Rows kept alive beyond each edge of the visible part, so a short scroll shows no gap.
constexpr int rowsBeyondSight = 4;
} // namespace

SubviewTableViewController *
SubviewTableViewController::controllerWithViewColumn(iTableView *tableView)
{
    return new SubviewTableViewController(tableView);
}

SubviewTableViewController::SubviewTableViewController(iTableView *tableView)
    : QAbstractTableModel(tableView), subviewTableView(tableView)
{
    subviewTableView->setModel(this);
    subviewTableView->setHost(this);
    subviewTableView->verticalHeader()->setSectionResizeMode(QHeaderView::Fixed);
    subviewTableView->verticalHeader()->setDefaultSectionSize(45);
    subviewTableView->verticalHeader()->setMinimumSectionSize(1);
    subviewTableView->setEditTriggers(QAbstractItemView::NoEditTriggers);
    connect(subviewTableView->selectionModel(), &QItemSelectionModel::selectionChanged, this,
            [this] {
                placeRowViews(); // selected rows draw their text in white
                if (isValidDelegateForSelector(SubviewTableMessage::SelectionDidChange))
                    source->tableViewSelectionDidChange(subviewTableView);
            });
}

void SubviewTableViewController::setDelegate(QObject *object)
{
    source = dynamic_cast<SubviewTableViewControllerDataSourceProtocol *>(object);
    if (!source)
        hassert(
            "SubviewTableViewController", 50, "Invalid parameter not satisfying: %s",
            "[obj conformsToProtocol: @protocol(SubviewTableViewControllerDataSourceProtocol)]");
    // Kept either way; a source without the protocol only ever gets the defaults.
    delegateObject = object;
    reloadTableView();
}

bool SubviewTableViewController::isValidDelegateForSelector(SubviewTableMessage message) const
{
    return source && source->respondsToTableMessage(message);
}

void SubviewTableViewController::reloadTableView()
{
    for (auto it = placed.crbegin(); it != placed.crend(); ++it) {
        if (*it)
            (*it)->hide();
    }
    // The selected row numbers stay selected across the reload, as far as rows remain.
    QItemSelectionModel *selection = subviewTableView->selectionModel();
    QList<int> selected;
    for (const QModelIndex &cell : selection->selectedRows())
        selected << cell.row();
    beginResetModel();
    endResetModel();
    QItemSelection keep;
    const int count = rowCount();
    for (int row : std::as_const(selected)) {
        if (row < count)
            keep.select(index(row, 0), index(row, 0));
    }
    if (!keep.isEmpty())
        selection->select(keep, QItemSelectionModel::Select | QItemSelectionModel::Rows);
    applyRowHeights(0);
    placeRowViews();
}

void SubviewTableViewController::noteHeightOfRowsChanged(int row)
{
    applyRowHeights(std::max(row, 0));
    placeRowViews();
}

float SubviewTableViewController::heightOfRow(int row) const
{
    if (isValidDelegateForSelector(SubviewTableMessage::HeightOfRow))
        return source->tableViewHeightOfRow(subviewTableView, row);
    return 45.0f;
}

void SubviewTableViewController::applyRowHeights(int from)
{
    // Most rows have the default height; only the others are set one by one.
    QHeaderView *rows = subviewTableView->verticalHeader();
    const int count = rowCount();
    for (int row = from; row < count; ++row) {
        const int height = int(heightOfRow(row));
        if (rows->sectionSize(row) != height)
            rows->resizeSection(row, height);
    }
}

void SubviewTableViewController::schedulePlacement()
{
    if (placementPending)
        return;
    placementPending = true;
    QTimer::singleShot(0, this, [this] {
        placementPending = false;
        placeRowViews();
    });
}

void SubviewTableViewController::placeRowViews()
{
    QWidget *host = subviewTableView->viewport();
    const int count = rowCount();
    QList<QPointer<QVSubView>> now;
    if (source && count > 0) {
        int first = subviewTableView->rowAt(0);
        int last = subviewTableView->rowAt(host->height() - 1);
        if (first < 0)
            first = 0;
        if (last < 0)
            last = count - 1;
        first = std::max(0, first - rowsBeyondSight);
        last = std::min(count - 1, last + rowsBeyondSight);
        const QItemSelectionModel *selection = subviewTableView->selectionModel();
        for (int row = first; row <= last; ++row) {
            QVSubView *view = source->tableViewViewForRow(subviewTableView, row);
            if (!view)
                continue;
            const QModelIndex cell = index(row, subviewTableColumn);
            if (view->parentWidget() != host)
                view->setParent(host);
            view->setGeometry(subviewTableView->visualRect(cell));
            // The theme's text colours: white on a selected row and black otherwise in a
            // light theme, and readable in a dark one.
            const QPalette &palette = subviewTableView->palette();
            view->setTextColor(selection->isRowSelected(row)
                                   ? palette.color(QPalette::HighlightedText)
                                   : palette.color(QPalette::Text));
            view->show();
            now << view;
        }
    }
    // Views out of sight go back to their rows, which make new ones when needed.
    for (const QPointer<QVSubView> &view : std::as_const(placed)) {
        if (!view || now.contains(view))
            continue;
        view->hide();
        if (SubviewController *owner = view->owner())
            owner->releaseView();
    }
    placed = now;
}

QList<QVSubView *> SubviewTableViewController::placedViews() const
{
    QList<QVSubView *> views;
    for (const QPointer<QVSubView> &view : placed) {
        if (view)
            views << view;
    }
    return views;
}

int SubviewTableViewController::rowCount(const QModelIndex &parent) const
{
    if (parent.isValid() || !isValidDelegateForSelector(SubviewTableMessage::NumberOfRows))
        return 0;
    return source->numberOfRowsInTableView(subviewTableView);
}

int SubviewTableViewController::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : 1;
}

QVariant SubviewTableViewController::data(const QModelIndex &index, int role) const
{
    // The rows are views; the table itself draws no text.
    if (role != Qt::UserRole || !isValidDelegateForSelector(SubviewTableMessage::ObjectValue))
        return {};
    return source->tableViewObjectValue(subviewTableView, index.row());
}

bool SubviewTableViewController::setData(const QModelIndex &index, const QVariant &value, int role)
{
    if (role != Qt::UserRole || !isValidDelegateForSelector(SubviewTableMessage::SetObjectValue))
        return false;
    source->tableViewSetObjectValue(subviewTableView, value, index.row());
    return true;
}

Qt::ItemFlags SubviewTableViewController::flags(const QModelIndex &index) const
{
    Qt::ItemFlags flags = Qt::ItemIsEnabled;
    if (index.isValid() &&
        const_cast<SubviewTableViewController *>(this)->shouldSelectRow(index.row()))
        flags |= Qt::ItemIsSelectable;
    return flags;
}

bool SubviewTableViewController::selectionShouldChange()
{
    if (isValidDelegateForSelector(SubviewTableMessage::SelectionShouldChange))
        return source->selectionShouldChangeInTableView(subviewTableView);
    return true;
}

bool SubviewTableViewController::shouldSelectRow(int row)
{
    if (isValidDelegateForSelector(SubviewTableMessage::ShouldSelectRow))
        return source->tableViewShouldSelectRow(subviewTableView, row);
    return true;
}
