#pragma once

#include <QLabel>

/**
 * @brief Text inside the drop area. It never takes the focus and lets clicks and drops
 * through to the view that holds it.
 */
class QVDropText : public QLabel
{
    Q_OBJECT
public:
    explicit QVDropText(QWidget *parent = nullptr) : QLabel(parent)
    {
        setFocusPolicy(Qt::NoFocus);
        setAttribute(Qt::WA_TransparentForMouseEvents);
    }
};
