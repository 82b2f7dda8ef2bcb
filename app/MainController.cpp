#include "app/MainController.h"

#include "app/CrashReporter.h"
#include "app/Log.h"
#include "app/RunLoop.h"
#include "app/UpdateChecker.h"
#include "ui_MainWindow.h"

#include <QCloseEvent>
#include <QCoreApplication>
#include <QMainWindow>
#include <QSettings>

const QString QVURLKey = QStringLiteral("Account URL");
const QString QVUserNameKey = QStringLiteral("Username");
const QString QVUploadFilesKey = QStringLiteral("UploadFiles");

MainController *mainController = nullptr;

MainController::MainController() : window(new QMainWindow), ui(new Ui::MainWindow)
{
    ui->setupUi(window);
    subviewTableView = ui->subviewTableView;
    addButton = ui->addButton;
    StopRestartButton = ui->StopRestartButton;
    StopRestartText = ui->StopRestartText;
    textAccountInfo = ui->textAccountInfo;
    userNameInfo = ui->userNameInfo;
    textSpaceandPreference = ui->textSpaceandPreference;
    textDropInfo = ui->textDropInfo;
    b_addFilesSpin = ui->b_addFilesSpin;
    textaddFiles = ui->textaddFiles;
    dropText = ui->dropText;
    logoImage = ui->logoImage;
    backgrImage = ui->backgrImage;
    backgrGradient = ui->backgrGradient;

    b_addFilesSpin->hide();
    textaddFiles->hide();
    window->installEventFilter(this);
    // Quit leaves through the event loop's end, where the queue is saved.
    QObject::connect(ui->actionQuit, &QAction::triggered, this, [] { QCoreApplication::exit(0); });
    awakeFromNib();
}

MainController::~MainController()
{
    if (mainController == this)
        mainController = nullptr;
    delete window;
    delete ui;
}

void MainController::awakeFromNib()
{
    if (CrashReporter::newCrashLogExists())
        CrashReporter::doCrashSubmitting(window);
    suupdater = new UpdateChecker(window);
    suupdater->checkForUpdatesInBackground();
}

bool MainController::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == window && event->type() == QEvent::Close && !windowShouldClose()) {
        event->ignore();
        return true;
    }
    return QObject::eventFilter(watched, event);
}

void MainController::applicationDidFinishLaunching()
{
    hlog("finished Lauching");
    uploadPath = QStringLiteral("/api/assets");
    infoPath = QStringLiteral("/api/account.xml");
    userPath = QStringLiteral("/api/user");
    logoPath.clear();
    backPath.clear();
    fontColor = QColor();
    mainController = this;
    subviewControllers.clear();
    trackingButtons.clear();
    trackingRectIds.clear();

    b_addFilesSpin->setRange(0, 0); // indeterminate

    QSettings settings;
    targetURL = settings.value(QVURLKey).toString();
    userName = settings.value(QVUserNameKey).toString();

    for (QVStreamer **streamer : {&uploader, &accountInfo, &userInfo, &logoLoader, &backLoader}) {
        if (!*streamer) {
            *streamer = new QVStreamer(this);
            (*streamer)->setDelegate(this);
        }
    }
    setAccountData();
    updateAccountInfo(targetURL);
    updateUserInfo(targetURL);

    textSpaceandPreference->setText(QStringLiteral("<u>Preferences</u>"));

    activateInfoText(QStringLiteral("Connecting to kelvara account..."));
    for (int round = 0; round < 30; ++round) {
        if (targetURL.isNull() || accountInfo->isRequestFinished())
            break;
        runRunLoop(0.2);
    }
    deactivateInfoText();
    finishedLaunch = true;
}

bool MainController::applicationOpenFiles(const QStringList &paths)
{
    hlog("openFiles");
    if (!finishedLaunch)
        preLaunchFiles = paths; // only the last batch before launch survives
    return true;
}

bool MainController::windowShouldClose()
{
    // Hoplift keeps uploading out of sight; the taskbar brings the window back.
    window->showMinimized();
    return false;
}

void MainController::applicationWillTerminate() {}

void MainController::raiseWindow()
{
    window->showNormal();
    window->raise();
    window->activateWindow();
}

void MainController::setAccountData()
{
    for (QVStreamer *streamer : {uploader, accountInfo, userInfo, logoLoader, backLoader}) {
        if (streamer) {
            streamer->setUserName(userName);
            streamer->setPassword(password);
        }
    }
}

void MainController::updateAccountInfo(const QString &base)
{
    if (!base.isNull() && !infoPath.isNull())
        accountInfo->getFromURL(QStringLiteral("%1%2").arg(base, infoPath), true);
}

void MainController::updateUserInfo(const QString &base)
{
    if (!base.isNull() && !userPath.isNull())
        userInfo->getFromURL(QStringLiteral("%1%2").arg(base, userPath), true);
}

void MainController::activateInfoText(const QString &text)
{
    textaddFiles->show();
    b_addFilesSpin->show();
    textaddFiles->setText(text);
    // Painted at once, so the text shows even while the main thread is busy.
    textaddFiles->repaint();
}

void MainController::deactivateInfoText()
{
    textaddFiles->hide();
    b_addFilesSpin->hide();
}
