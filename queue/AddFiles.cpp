// MainController: turning the paths the user hands over into rows of the queue.
#include "app/MainController.h"

#include "app/Alert.h"
#include "app/RunLoop.h"
#include "queue/FolderWalk.h"
#include "ui/QVRolloverButton.h"
#include "ui/SubviewController.h"
#include "ui/SubviewTableViewController.h"
#include "ui_MainWindow.h"

#include <QFileDialog>
#include <QFileSystemModel>
#include <QLabel>
#include <QListView>
#include <QMainWindow>
#include <QMessageBox>
#include <QPushButton>
#include <QTreeView>

#include <dirent.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

using namespace FolderWalk;

namespace {

const char *const kPackageSuffixes[] = {
    ".app",           ".bundle",    ".framework",   ".plugin",     ".kext", ".pkg",
    ".mpkg",          ".rtfd",      ".pages",       ".numbers",    ".key",  ".sparsebundle",
    ".photoslibrary", ".xcodeproj", ".xcworkspace", ".playground", ".band"};

bool isDirectory(const QString &path)
{
    struct stat st;
    return ::stat(QFile::encodeName(path).constData(), &st) == 0 && S_ISDIR(st.st_mode);
}

quint64 fileSize(const QString &path)
{
    struct stat st;
    return ::stat(QFile::encodeName(path).constData(), &st) == 0 ? quint64(st.st_size) : 0;
}

// "#,###": thousands grouped with ",".
QString formatCount(qint32 count)
{
    QString digits = QString::number(count);
    for (qsizetype at = digits.size() - 3; at > (count < 0 ? 1 : 0); at -= 3)
        digits.insert(at, QLatin1Char(','));
    return digits;
}

/**
 * @brief A file chooser in which files and folders are chosen together: the views
 * select freely, and Open takes whatever is selected rather than entering a folder.
 */
class OpenPanel : public QFileDialog
{
public:
    explicit OpenPanel(QWidget *parent) : QFileDialog(parent)
    {
        setOption(QFileDialog::DontUseNativeDialog);
        setFileMode(QFileDialog::ExistingFiles);
        setWindowModality(Qt::WindowModal);
        for (QAbstractItemView *view : findChildren<QAbstractItemView *>()) {
            if (qobject_cast<QListView *>(view) || qobject_cast<QTreeView *>(view))
                view->setSelectionMode(QAbstractItemView::ExtendedSelection);
        }
    }

    QStringList chosenPaths() const { return chosen; }

    void accept() override
    {
        chosen.clear();
        auto *model = findChild<QFileSystemModel *>();
        for (QAbstractItemView *view : findChildren<QAbstractItemView *>()) {
            if (!view->isVisible() || !model ||
                !(qobject_cast<QListView *>(view) || qobject_cast<QTreeView *>(view)))
                continue;
            for (const QModelIndex &index : view->selectionModel()->selectedRows())
                chosen << model->filePath(index);
        }
        if (chosen.isEmpty()) {
            // A typed name: the dialog's own rules apply.
            QFileDialog::accept();
            chosen = selectedFiles();
            return;
        }
        QDialog::accept();
    }

private:
    QStringList chosen;
};

} // namespace

/**
 * @brief Asks the desktop's view of a folder: application (an .app or an AppDir) or
 * document package (a package suffix). Returns 0 when the item could be examined.
 */
int LSIsPackageBundle(const QString &path, bool *application, bool *package)
{
    struct stat st;
    const QByteArray native = QFile::encodeName(path);
    if (::stat(native.constData(), &st) != 0)
        return -1;
    bool app = false;
    bool pkg = false;
    if (S_ISDIR(st.st_mode)) {
        const QString lower = path.toLower();
        app = lower.endsWith(QLatin1String(".app"));
        for (const char *suffix : kPackageSuffixes)
            pkg = pkg || lower.endsWith(QLatin1String(suffix));
        // An AppDir: a folder with an executable AppRun at its top.
        const QByteArray appRun = native + "/AppRun";
        struct stat run;
        if (::stat(appRun.constData(), &run) == 0 && S_ISREG(run.st_mode) &&
            ::access(appRun.constData(), X_OK) == 0)
            app = true;
    }
    *application = app;
    *package = pkg;
    return 0;
}

bool MainController::isBundle(const QString &path)
{
    bool application = false;
    bool package = false;
    if (LSIsPackageBundle(path, &application, &package) != 0)
        return false;
    return application || package;
}

void MainController::addFiles(const QStringList &paths, bool sanityCheck)
{
    adding_fileCount = 0;
    adding_currentCount = 0;
    adding_totalSize = 0;
    activateInfoText(QStringLiteral("Calculating file sizes..."));
    checkFiles(paths, adding_fileCount, adding_totalSize);

    if (sanityCheck && (adding_fileCount > 100 || adding_totalSize > 104857600)) {
        const QString question = QStringLiteral("Do you want to upload %1 files with %2?")
                                     .arg(formatCount(adding_fileCount),
                                          SubviewController::initSizeString(adding_totalSize));
        if (!runAlert(window, QMessageBox::Information, QStringLiteral("Sanity check"), question,
                      QStringLiteral("Yes, I want to"), QStringLiteral("Cancel"))) {
            deactivateInfoText();
            return;
        }
    }

    postButtonTrackingNotification(ButtonTrackingDisable, this);
    for (const QString &path : paths) {
        if (isDirectory(path)) {
            if (isBundle(path))
                addFile(path, true);
            else
                addFilesOfDir(path);
        } else {
            addFile(path, false);
        }
    }
    if (subviewTableView->isHidden()) {
        textDropInfo->hide();
        subviewTableView->show();
        subviewTableView->repaint();
    }
    deactivateInfoText();
    tableViewController->reloadTableView();
    validateButtons(); // the stop button and the empty list's hint follow the new rows
    saveUploadFiles();
    refreshAccountInfo();
    startNextUpload();
    if (!subviewControllers.empty())
        subviewTableView->scrollToBottom();
    postButtonTrackingNotification(ButtonTrackingEnable, this);
}

void MainController::checkFiles(const QStringList &paths, qint32 &fileCount, quint64 &totalSize)
{
    for (const QString &path : paths) {
        if (isDirectory(path)) {
            const bool bundle = isBundle(path);
            if (bundle)
                ++fileCount;
            checkFileSize(path, fileCount, totalSize, bundle);
        } else {
            ++fileCount;
            totalSize += fileSize(path);
        }
    }
}

void MainController::checkFileSize(const QString &path, qint32 &fileCount, quint64 &totalSize,
                                   bool insideBundle)
{
    WalkGuard guard(path);
    if (!guard.entered)
        return;
    for (const Entry &e : listFolder(path)) {
        if (e.isDirectory) {
            if (!insideBundle && isBundle(e.path)) {
                ++fileCount;
                checkFileSize(e.path, fileCount, totalSize, true);
            } else {
                checkFileSize(e.path, fileCount, totalSize, insideBundle);
            }
        } else {
            if (!insideBundle)
                ++fileCount;
            totalSize += e.size;
        }
    }
}

void MainController::addFilesOfDir(const QString &path)
{
    if (isBundle(path)) {
        addFile(path, true);
        return;
    }
    WalkGuard guard(path);
    if (!guard.entered)
        return;
    for (const Entry &e : listFolder(path)) {
        if (e.isDirectory)
            addFilesOfDir(e.path);
        else
            addFile(e.path, false);
    }
}

SubviewController *MainController::addFile(const QString &path, bool bundle)
{
    if (textaddFiles->isVisible()) {
        ++adding_currentCount;
        textaddFiles->setText(QStringLiteral("Added %1 of %2 files/folders")
                                  .arg(adding_currentCount)
                                  .arg(adding_fileCount));
        // The batch runs on the main thread: only a forced repaint shows the count.
        textaddFiles->repaint();
    }
    std::unique_ptr<SubviewController> row = SubviewController::controller();
    row->setFileWithPath(path);
    row->setActionObject(this);
    row->setIsBundle(bundle);
    row->updateUI();
    subviewControllers.push_back(std::move(row));
    return subviewControllers.back().get();
}

void MainController::addButtonPressed()
{
    auto *panel = new OpenPanel(window);
    QObject::connect(panel, &QDialog::finished, this, [this, panel](int result) {
        openPanelDidEnd(panel->chosenPaths(), result == QDialog::Accepted ? 1 : 0);
        panel->deleteLater();
    });
    panel->open();
}

void MainController::openPanelDidEnd(const QStringList &chosen, int returnCode)
{
    if (returnCode == 1)
        addFiles(chosen, true);
    deactivateInfoText();
}
