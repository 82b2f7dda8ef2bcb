#pragma once

class QDragEnterEvent;
class QDragMoveEvent;
class QDropEvent;
class QWidget;

/**
 * @brief Files dropped on the list or on the drop area: both take local files offered for
 * copying, and always as a copy; the files go to the main controller's queue.
 */
namespace FileDrop {
/** @brief Whether a drag may enter: it carries local files and offers to copy them. */
bool acceptsDrag(QDragMoveEvent *event);
/** @brief Takes the files of a drop; assertionFile and assertionLine name the receiver. */
bool performDrop(QDropEvent *event, QWidget *receiver, const char *assertionFile,
                 int assertionLine);
} // namespace FileDrop
