#pragma once

#include <QLabel>

/** @brief An image of the header (logo, background); clicks go to the view behind it. */
class QVImageView : public QLabel
{
    Q_OBJECT
public:
    explicit QVImageView(QWidget *parent = nullptr) : QLabel(parent)
    {
        setFocusPolicy(Qt::NoFocus);
        setAttribute(Qt::WA_TransparentForMouseEvents);
    }
};
