#include "app/MainController.h"

#include "app/CrashReporter.h"
#include "app/DesktopNotifier.h"
#include "app/Log.h"
#include "app/RunLoop.h"
#include "app/Service.h"
#include "app/UpdateChecker.h"
#include "queue/QueueSaver.h"
#include "queue/ZipFile.h"
#include "ui/ZRClickableURLTextField.h"
#include "ui_MainWindow.h"

#include <QCheckBox>
#include <QCloseEvent>
#include <QCoreApplication>
#include <QFile>
#include <QIcon>
#include <QLabel>
#include <QMainWindow>
#include <QPushButton>
#include <QSettings>

const QString QVURLKey = QStringLiteral("Account URL");
const QString QVUserNameKey = QStringLiteral("Username");
const QString QVUploadFilesKey = QStringLiteral("UploadFiles");

MainController *mainController = nullptr;

void syncSettings(QSettings &settings)
{
    settings.sync();
    // The file names the account and the files being sent: nobody else's business.
    QFile::setPermissions(settings.fileName(), QFileDevice::ReadOwner | QFileDevice::WriteOwner);
}

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
    subviewTableView->hide();                   // the drop area stands in for the empty list
    userNameInfo->setTextFormat(Qt::PlainText); // names come from the service
    StopRestartButton->setIcon(QIcon(QStringLiteral(":/images/stop-all")));
    StopRestartText->setText(QStringLiteral("Stop all"));
    logoImage = ui->logoImage;
    backgrImage = ui->backgrImage;
    backgrGradient = ui->backgrGradient;

    b_addFilesSpin->hide();
    textaddFiles->hide();
    window->installEventFilter(this);
    buildAccountSheet();
    // Quit leaves through the event loop's end, where the queue is saved.
    QObject::connect(addButton, &QPushButton::clicked, this, [this] { addButtonPressed(); });
    QObject::connect(ui->actionAddFiles, &QAction::triggered, this, [this] { addButtonPressed(); });
    QObject::connect(StopRestartButton, &QPushButton::clicked, this,
                     [this] { stopRestartPressed(); });
    QObject::connect(ui->actionQuit, &QAction::triggered, this, [] { QCoreApplication::exit(0); });
    notifier = new DesktopNotifier(this, window);
    awakeFromNib();
}

MainController::~MainController()
{
    if (mainController == this)
        mainController = nullptr;
    // No events reach this controller while the window's widgets go.
    window->removeEventFilter(this);
    subviewTableView->viewport()->removeEventFilter(this);
    if (dropText && !dropText->parent())
        delete dropText.data(); // out of the list while it has rows
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
    if (dropText && watched == dropText->parentWidget() && event->type() == QEvent::Resize)
        placeDropText();
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
    if (!tableViewController) {
        tableViewController =
            SubviewTableViewController::controllerWithViewColumn(subviewTableView);
        tableViewController->setDelegate(this);
    }

    b_addFilesSpin->setRange(0, 0); // indeterminate

    QSettings settings;
    targetURL = settings.value(QVURLKey).toString();
    userName = settings.value(QVUserNameKey).toString();
    password = retrievePassword();
    b_SavePass->setChecked(!password.isNull());

    if (!zipper)
        zipper = std::make_unique<ZipFile>();
    for (QVStreamer **streamer : {&uploader, &accountInfo, &userInfo, &logoLoader, &backLoader}) {
        if (!*streamer) {
            *streamer = new QVStreamer(this);
            (*streamer)->setDelegate(this);
        }
    }
    setAccountData();
    updateAccountInfo(targetURL);
    updateUserInfo(targetURL);

    textSpaceandPreference->setAttributedStringValue(ZRClickableURLTextField::hyperlinkFromString(
        QStringLiteral("Preferences"), QString(), QUrl()));
    // An empty underline text matches nothing: "sign up here" carries no underline, and
    // the field's own target opens the pricing page.
    f_SignUp->setAttributedStringValue(ZRClickableURLTextField::hyperlinkFromString(
        QStringLiteral("sign up here"), QStringLiteral(""), QUrl()));
    f_SignUp->setTargetURL(QUrl(QStringLiteral("http://%1/pricing").arg(Service::webHost())));
    validateButtons();

    activateInfoText(QStringLiteral("Connecting to kelvara account..."));
    for (int round = 0; round < 30; ++round) {
        if (targetURL.isNull() || accountInfo->isRequestFinished())
            break;
        runRunLoop(0.2);
    }
    // The saved queue comes back without the question a new batch may get.
    const QVariant saved = QSettings().value(QVUploadFilesKey);
    if (saved.isValid())
        addFiles(saved.toStringList(), false);
    if (accountValid)
        startNextUpload();
    else
        editPreferences();
    deactivateInfoText();
    if (preLaunchFiles) {
        addFiles(*preLaunchFiles, true);
        preLaunchFiles.reset();
        if (!currentUpload)
            startNextUpload();
    }
    finishedLaunch = true;
}

bool MainController::applicationOpenFiles(const QStringList &paths)
{
    hlog("openFiles");
    if (finishedLaunch) {
        addFiles(paths, true);
        if (!currentUpload)
            startNextUpload();
    } else
        preLaunchFiles = paths; // only the last batch before launch survives
    return true;
}

bool MainController::windowShouldClose()
{
    // Hoplift keeps uploading out of sight; the taskbar brings the window back.
    window->showMinimized();
    return false;
}

void MainController::applicationWillTerminate()
{
    stopAllUploads(true);
    saveUploadFiles();
    waitForSavedQueue();
    if (zipper)
        zipper->removeZipArchive();
}

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
