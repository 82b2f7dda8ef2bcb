#pragma once

#include <QMessageBox>
#include <QPushButton>
#include <QString>

/**
 * @brief A modal alert: the title heads the window and the panel, the message follows.
 * Returns true when the default (first) button ended it; Escape picks the other one.
 */
inline bool runAlert(QWidget *parent, QMessageBox::Icon icon, const QString &title,
                     const QString &message, const QString &defaultButton,
                     const QString &otherButton = QString())
{
    QMessageBox alert(icon, title, title, QMessageBox::NoButton, parent);
    alert.setInformativeText(message);
    QPushButton *main = alert.addButton(defaultButton, QMessageBox::AcceptRole);
    if (!otherButton.isNull())
        alert.addButton(otherButton, QMessageBox::RejectRole);
    alert.setDefaultButton(main);
    alert.exec();
    return alert.clickedButton() == static_cast<QAbstractButton *>(main);
}
