#pragma once

#include <QFrame>

/** @brief The drop area shown around the drop hint while the list is empty. */
class QVDropView : public QFrame
{
    Q_OBJECT
public:
    explicit QVDropView(QWidget *parent = nullptr);
};
