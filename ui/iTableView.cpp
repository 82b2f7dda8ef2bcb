#include "ui/iTableView.h"

#include <QHeaderView>

iTableView::iTableView(QWidget *parent) : QTableView(parent)
{
    horizontalHeader()->hide();
    horizontalHeader()->setStretchLastSection(true);
    verticalHeader()->hide();
    setShowGrid(false);
    setSelectionBehavior(QAbstractItemView::SelectRows);
    setSelectionMode(QAbstractItemView::ExtendedSelection);
}
