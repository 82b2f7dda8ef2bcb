#pragma once

#include "net/QVStreamer.h"

#include <QColor>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <optional>
#include <set>

class QCheckBox;
class QDialog;
class QLabel;
class QLineEdit;
class QMainWindow;
class QProgressBar;
class QPushButton;
class QTimer;
class QVDropView;
class QVGradient;
class QVRolloverButton;
class SubviewController;
class SubviewTableViewController;
class UpdateChecker;
class ZRClickableURLTextField;
class ZipFile;
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
 * the account requests and the busy indicator.
 */
class MainController : public QObject, public QVStreamerDelegate
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

    QMainWindow *mainWindow() const { return window; }

    // QVStreamerDelegate: the callbacks are routed by the queue; none is taken yet.
    bool respondsToCallback(QVStreamerCallback) const override { return false; }

private:
    bool eventFilter(QObject *watched, QEvent *event) override;

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
    QLabel *dropText = nullptr;
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
    ZipFile *zipper = nullptr;
    QTimer *timer = nullptr;
    SubviewController *currentUpload = nullptr;
    SubviewTableViewController *tableViewController = nullptr;
    QList<SubviewController *> subviewControllers;
};

/** @brief The one controller, once launching has reached it; null before. */
extern MainController *mainController;
