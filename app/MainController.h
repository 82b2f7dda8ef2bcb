#pragma once

#include "net/QVStreamer.h"
#include "ui/SubviewController.h"
#include "ui/SubviewTableViewController.h"

#include <QColor>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <memory>
#include <optional>
#include <set>
#include <vector>

class DesktopNotifier;
class QCheckBox;
class QDialog;
class QLabel;
class QLineEdit;
class QMainWindow;
class QProgressBar;
class QSettings;
class QPushButton;
class QTimer;
class QVDropView;
class QVGradient;
class QVRolloverButton;
class SubviewTableViewController;
class UpdateChecker;
class ZRClickableURLTextField;
class ZipFile;
class QueueSaver;
class iTableView;
namespace Ui {
class MainWindow;
}

/** @brief Settings keys. */
extern const QString QVURLKey;
extern const QString QVUserNameKey;
extern const QString QVUploadFilesKey;

/**
 * @brief Hoplift's one controller: it owns the main window, the five streamers and the
 * upload queue, and is the delegate of every streamer.
 *
 * Sources: app/MainController.cpp holds start-up, shutdown and the desktop's calls, and
 * the account requests and the busy indicator; queue/AddFiles.cpp turns paths into rows;
 * queue/QueueCommands.cpp holds the commands on the queue and its saving.
 */
class MainController : public QObject,
                       public QVStreamerDelegate,
                       public SubviewActionObject,
                       public SubviewTableViewControllerDataSourceProtocol
{
    Q_OBJECT
public:
    MainController();
    ~MainController() override;

    /** @brief The interface is built: offers a crash report and checks for updates. */
    void awakeFromNib();
    /** @brief The start-up sequence; runs as the first event of the event loop. */
    void applicationDidFinishLaunching();
    /** @brief Files handed in by the desktop: queued now, or after launch. */
    bool applicationOpenFiles(const QStringList &paths);
    /** @brief The close button minimises instead; always false. */
    bool windowShouldClose();
    /** @brief The shutdown sequence, on every way out. */
    void applicationWillTerminate();
    /** @brief Shows the window (a second start without files asks for this). */
    void raiseWindow();

    /** @brief Credentials to all five streamers. */
    void setAccountData();
    /** @brief GET of the account document below base. */
    void updateAccountInfo(const QString &base);
    /** @brief GET of the user document below base. */
    void updateUserInfo(const QString &base);
    /** @brief Shows the busy spinner with text. */
    void activateInfoText(const QString &text);
    void deactivateInfoText();

    // The account sheet, the password in the secret store (app/Preferences.cpp).
    /** @brief Builds the account sheet from its .ui file (once, from the constructor). */
    void buildAccountSheet();
    /** @brief Opens the account sheet over the main window. */
    void editPreferences();
    /** @brief The sheet's OK: verifies the account, then ends the sheet with 1. */
    void OKPressed();
    /** @brief The sheet's Cancel: ends the sheet with 0. */
    void CancelPressed();
    /** @brief End of the sheet: 1 accepted, 0 cancelled. */
    void sheetDidEnd(int returnCode);
    /** @brief The stored password, or a null string. */
    QString retrievePassword();
    /** @brief Stores the password; false when the secret store refused. */
    bool savePassword(const QString &password);
    /** @brief Opens the account's web page. */
    void goToMyAccount();
    /** @brief Opens the service's terms page. */
    void goToTermsAndConditions();
    /** @brief A click on a clickable text field: opens the account sheet. */
    void clicked(ZRClickableURLTextField *sender);

    // Account and user documents, branding (app/Account.cpp).
    /** @brief Asks for the account document again and waits up to 5 s; true when it finished. */
    bool refreshAccountInfo();
    void processAccountInfo(const QByteArray &body);
    void processUserInfo(const QByteArray &body);
    void updateBranding(const QString &base);
    void processLogo(const QByteArray &data);
    void processBackgr(const QByteArray &data);
    /** @brief "RRGGBB" (optionally "0x"-prefixed) as a colour; black when unreadable. */
    static QColor colorFromHexRGB(const QString &text);

    /** @brief Turns paths into queued rows, asking first about a large batch when check is set. */
    void addFiles(const QStringList &paths, bool sanityCheck);
    /** @brief Counts the top level of a batch: items into fileCount, bytes into fileSize. */
    void checkFiles(const QStringList &paths, qint32 &fileCount, quint64 &fileSize);
    /** @brief Counts one folder recursively; insideBundle: only sizes count. */
    void checkFileSize(const QString &path, qint32 &fileCount, quint64 &fileSize,
                       bool insideBundle);
    /** @brief Adds rows for a folder's contents (a bundle becomes one row). */
    void addFilesOfDir(const QString &path);
    /** @brief Appends one queued row. */
    SubviewController *addFile(const QString &path, bool bundle);
    /** @brief Whether a folder is an application or a document package shown as one item. */
    static bool isBundle(const QString &path);
    /** @brief The add button: a file chooser for files and folders. */
    void addButtonPressed();
    /** @brief End of the file chooser: code 1 adds what was chosen. */
    void openPanelDidEnd(const QStringList &chosen, int returnCode);

    /** @brief Stops the current upload; requeue: it goes back to the queue, else it is stopped. */
    void stopAllUploads(bool requeue);
    /** @brief Stores the paths of the queued and restartable rows under "UploadFiles"; the
     * file itself is written on a thread of its own, see waitForSavedQueue(). */
    void saveUploadFiles();
    /** @brief Returns once the last saveUploadFiles() is on disk. */
    void waitForSavedQueue();
    /** @brief The stop-all/restart-all button, row colours and the empty-list hint. */
    void validateButtons();
    bool hasStopableItems() const;
    bool hasReStartableItems() const;
    /** @brief The position of a row in the queue, or -1. */
    int rowOf(const SubviewController *row) const;
    /** @brief Rows from row to the end changed height. */
    void notifyRowHeight(int row);
    /** @brief No hover image survives rows moving. */
    void notifyExitTracking();

    // SubviewActionObject: a row's buttons.
    void buttonPressed(SubviewController *sender, int buttonIndex) override;
    /** @brief Takes a row out of the queue, stopping it first if it is the current upload. */
    void removeRow(SubviewController *row, bool reSelect);
    /** @brief The delete keys on the list: the selected rows leave the queue. */
    void keyDown(int key);
    /** @brief The button under the list: stop all, or restart all. */
    void stopRestartPressed();

    // The list's data source.
    QVSubView *tableViewViewForRow(iTableView *tableView, int row) override;
    bool respondsToTableMessage(SubviewTableMessage message) const override;
    int numberOfRowsInTableView(iTableView *tableView) override;
    float tableViewHeightOfRow(iTableView *tableView, int row) override;
    void tableViewSelectionDidChange(iTableView *tableView) override;
    SubviewTableViewController *tableController() const { return tableViewController; }

    QMainWindow *mainWindow() const { return window; }
    /** @brief The queue in display order. */
    const std::vector<std::unique_ptr<SubviewController>> &queue() const
    {
        return subviewControllers;
    }

    // Scheduling and the streamers' answers (queue/Scheduling.cpp).
    /** @brief Starts the lowest queued row that exists and fits the space left. */
    void startNextUpload();
    /** @brief A free "Hoplift!_N.zip" in the temporary folder, or a null string. */
    QString newTmpFilePath();
    /** @brief Every 0.2 s while an upload is current: the row's progress. */
    void progressTimer();
    /** @brief Adds a folder's files (no hidden names, links read through) below relativePath. */
    void addFilesToZip(const QString &path, const QString &relativePath);
    bool respondsToCallback(QVStreamerCallback callback) const override;
    void handleRedirect(QVStreamer *streamer, const QString &newURL, qint32 code) override;
    void handleError(QVStreamer *streamer, const QString &message, qint32 code) override;
    void responseComplete(QVStreamer *streamer, const QByteArray &body, quint32 code) override;
    void notifyRestart(QVStreamer *streamer, qint32 code) override;

private:
    bool eventFilter(QObject *watched, QEvent *event) override;
    /** @brief Centres the empty list's hint in the list. */
    void placeDropText();

    QMainWindow *window = nullptr;
    Ui::MainWindow *ui = nullptr;

    // Interface fields of the main window.
    iTableView *subviewTableView = nullptr;
    int subviewTableColumn = 0;
    QPushButton *addButton = nullptr;
    QPushButton *StopRestartButton = nullptr;
    QLabel *StopRestartText = nullptr;
    ZRClickableURLTextField *textAccountInfo = nullptr;
    QLabel *userNameInfo = nullptr;
    ZRClickableURLTextField *textSpaceandPreference = nullptr;
    QVDropView *textDropInfo = nullptr;
    QProgressBar *b_addFilesSpin = nullptr;
    QLabel *textaddFiles = nullptr;
    UpdateChecker *suupdater = nullptr;
    DesktopNotifier *notifier = nullptr;
    QPointer<QLabel> dropText; // made on first need
    QLabel *logoImage = nullptr;
    QLabel *backgrImage = nullptr;
    QVGradient *backgrGradient = nullptr;
    // Interface fields of the account sheet.
    QDialog *sheetAccount = nullptr;
    QLineEdit *f_URL = nullptr;
    QLineEdit *f_Username = nullptr;
    QLineEdit *f_Password = nullptr;
    QCheckBox *b_SavePass = nullptr;
    ZRClickableURLTextField *f_SignUp = nullptr;
    QPushButton *b_Cancel = nullptr;
    QPushButton *b_OK = nullptr;
    QProgressBar *b_Spin = nullptr;

    qint32 adding_fileCount = 0;
    qint32 adding_currentCount = 0;
    quint64 adding_totalSize = 0;
    quint64 timer_counter = 0;
    QList<QVRolloverButton *> trackingButtons;
    std::set<int> trackingRectIds;
    std::optional<QStringList> preLaunchFiles;
    QString targetURL;
    QString oldURL;
    QUrl url;
    QString uploadPath;
    QString infoPath;
    QString userPath;
    QString logoPath;
    QString backPath;
    QColor fontColor;
    QString userName;
    QString password;
    bool inPreferences = false;
    bool accountValid = false;
    bool finishedLaunch = false;
    bool branding = false;
    bool storageInfoValidated = false; // kept, without behaviour
    QString brandingDate;              // kept, without behaviour
    QString account_firstname;
    QString account_lastname;
    qint64 account_spaceavailable = 0;
    QVStreamer *uploader = nullptr;
    QVStreamer *accountInfo = nullptr;
    QVStreamer *userInfo = nullptr;
    QVStreamer *logoLoader = nullptr;
    QVStreamer *backLoader = nullptr;
    std::unique_ptr<ZipFile> zipper;
    QTimer *timer = nullptr;
    SubviewController *currentUpload = nullptr;
    SubviewTableViewController *tableViewController = nullptr;
    std::vector<std::unique_ptr<SubviewController>> subviewControllers;

    // Not part of the window's state: the writer behind saveUploadFiles().
    std::unique_ptr<QueueSaver> queueSaver;
};

/** @brief Writes the settings to disk at once, readable by the user alone. */
void syncSettings(QSettings &settings);

/** @brief The one controller, once launching has reached it; null before. */
extern MainController *mainController;
