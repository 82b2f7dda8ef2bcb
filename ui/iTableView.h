#pragma once

#include <QTableView>

/** @brief The upload list: one column of row views, no headers, no grid. */
class iTableView : public QTableView
{
    Q_OBJECT
public:
    explicit iTableView(QWidget *parent = nullptr);
};
