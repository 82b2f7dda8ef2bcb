#include "ui/FileDrop.h"

#include "app/Alert.h"
#include "app/Log.h"
#include "app/MainController.h"

#include <QDropEvent>
#include <QMimeData>
#include <QUrl>

namespace {

QStringList localFiles(const QMimeData *data)
{
    QStringList paths;
    for (const QUrl &url : data->urls()) {
        if (url.isLocalFile())
            paths << url.toLocalFile(); // links to the web are no files to upload
    }
    return paths;
}

bool carriesImage(const QMimeData *data)
{
    return data->hasFormat(QStringLiteral("image/tiff"));
}

} // namespace

bool FileDrop::acceptsDrag(QDragMoveEvent *event)
{
    const QMimeData *data = event->mimeData();
    if (!data || localFiles(data).isEmpty() || !(event->possibleActions() & Qt::CopyAction)) {
        event->setDropAction(Qt::IgnoreAction);
        event->ignore();
        return false;
    }
    event->setDropAction(Qt::CopyAction);
    event->accept();
    return true;
}

bool FileDrop::performDrop(QDropEvent *event, QWidget *receiver, const char *assertionFile,
                           int assertionLine)
{
    const QMimeData *data = event->mimeData();
    // An image offered alongside file names is preferred, and Hoplift takes no images.
    if (data && carriesImage(data)) {
        hassert(assertionFile, assertionLine, "This can't happen");
        event->ignore();
        return false;
    }
    const QStringList paths = data ? localFiles(data) : QStringList();
    if (paths.isEmpty()) {
        runAlert(receiver, QMessageBox::Warning, QStringLiteral("Paste Error"),
                 QStringLiteral("Sorry, but the past operation failed"), QStringLiteral("OK"));
        event->ignore();
        return false;
    }
    event->setDropAction(Qt::CopyAction);
    event->accept();
    if (mainController)
        mainController->addFiles(paths, true);
    receiver->update();
    return true;
}
