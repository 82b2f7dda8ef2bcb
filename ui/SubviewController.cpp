#include "ui/SubviewController.h"

#include "app/Log.h"
#include "ui/QVRolloverButton.h"
#include "ui/QVSubView.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QFileIconProvider>
#include <QFileInfo>
#include <QHash>
#include <QIcon>
#include <QLabel>
#include <QProgressBar>
#include <QUrl>

#include <sys/stat.h>

namespace {

std::function<SubviewController::Clock::time_point()> clockNow;
SubviewController::StateObserver stateObserver;

SubviewController::Clock::time_point now()
{
    return clockNow ? clockNow() : SubviewController::Clock::now();
}

// One icon per kind of file, fetched when a row first shows: a long queue must not cost one
// icon (and one MIME lookup) per row.
QIcon fileIcon(const QString &path, bool bundle)
{
    static QHash<QString, QIcon> cache;
    static QFileIconProvider provider;
    const QFileInfo info(path);
    const QString key = bundle ? QStringLiteral("/") : QStringLiteral(".") + info.suffix();
    auto found = cache.find(key);
    if (found == cache.end()) {
        const QIcon icon =
            bundle ? provider.icon(QAbstractFileIconProvider::Folder) : provider.icon(info);
        found = cache.insert(key, icon);
    }
    return *found;
}

QString lastPathComponent(const QString &path)
{
    return QDir::cleanPath(path).section(QLatin1Char('/'), -1);
}

QString badgeImage(qint32 state)
{
    switch (state) {
    case 3:
        return QStringLiteral("status-ok");
    case 4:
        return QStringLiteral("status-stopped");
    case 5:
        return QStringLiteral("status-error");
    case 6:
        return QStringLiteral("restart");
    default:
        return {};
    }
}

} // namespace

SubviewController::SubviewController() : cancelDelImage(QStringLiteral("cancel")) {}

SubviewController::~SubviewController()
{
    disposeView();
}

std::unique_ptr<SubviewController> SubviewController::controller()
{
    return std::make_unique<SubviewController>();
}

void SubviewController::setClock(std::function<Clock::time_point()> now)
{
    clockNow = std::move(now);
}

QString SubviewController::initSizeString(quint64 bytes)
{
    if (bytes == 0)
        return QStringLiteral("empty file");
    if (bytes / 1024 == 0)
        return QString::asprintf("%llu Bytes", static_cast<unsigned long long>(bytes));
    if (bytes / 1024 <= 1023)
        return QString::asprintf("%.1f KB", double(bytes) / 1024.0);
    if (bytes / 1048576 <= 1023)
        return QString::asprintf("%.2f MB", double(bytes / 1024) / 1024.0);
    if (bytes / 1073741824 <= 1023)
        return QString::asprintf("%.2f GB", double(bytes / 1048576) / 1024.0);
    // Whole GiB, cut to 32 bits, under the "TB" label: kept as the list has always shown it.
    return QString::asprintf("%d TB", qint32(quint32(bytes / 1073741824)));
}

void SubviewController::setStateObserver(StateObserver observer)
{
    stateObserver = std::move(observer);
}

void SubviewController::reportStateChange(qint32 oldState)
{
    if (stateObserver && oldState != _uploadState)
        stateObserver(this, oldState, _uploadState);
}

void SubviewController::setActionObject(SubviewActionObject *object)
{
    actionObject = object;
}

void SubviewController::setIsBundle(bool bundle)
{
    _isBundle = bundle;
}

void SubviewController::setFileWithPath(const QString &path)
{
    _fileWithPath = path;
    calcFileSize();
    applyToView();
}

void SubviewController::setBundleFile(const QString &path)
{
    _bundleFile = path;
}

quint64 SubviewController::uploadSize()
{
    calcFileSize();
    return _uploadSize;
}

quint32 SubviewController::calcFileSize()
{
    const QString &path = _isBundle ? _bundleFile : _fileWithPath;
    struct stat info;
    _uploadSize = 0;
    if (!path.isEmpty() && ::stat(QFile::encodeName(path).constData(), &info) == 0)
        _uploadSize = quint64(info.st_size);
    return quint32(_uploadSize);
}

bool SubviewController::checkFile() const
{
    return !_fileWithPath.isEmpty() && QFileInfo::exists(_fileWithPath);
}

QVSubView *SubviewController::view()
{
    if (subview)
        return subview;
    subview = new QVSubView(350);
    subview->setOwner(this);
    progressIndicator = subview->progressIndicator();
    imageView = subview->imageView();
    imageState = subview->imageState();
    fileName = subview->fileName();
    statusText = subview->statusText();
    buttonRetry = subview->buttonRetry();
    buttonCancelDel = subview->buttonCancelDel();
    buttonOpen = subview->buttonOpen();
    for (QVRolloverButton *button : {buttonRetry, buttonCancelDel}) {
        connect(button, &QAbstractButton::clicked, this,
                [this, button] { doButtonAction(button); });
    }
    connect(buttonOpen, &QAbstractButton::clicked, this, &SubviewController::doRevealinFinder);
    applyToView();
    return subview;
}

void SubviewController::releaseView()
{
    disposeView();
}

void SubviewController::disposeView()
{
    QVSubView *gone = subview;
    subview.clear();
    progressIndicator = nullptr;
    imageView = nullptr;
    imageState = nullptr;
    fileName = nullptr;
    statusText = nullptr;
    buttonRetry = nullptr;
    buttonCancelDel = nullptr;
    buttonOpen = nullptr;
    if (!gone)
        return;
    // A view whose deletion waits for its click to end may still be in the table's list of
    // placed views; it must not lead back to this row, which may be gone by then.
    gone->setOwner(nullptr);
    if (dispatching) {
        // One of the view's buttons is still emitting its click.
        gone->hide();
        gone->deleteLater();
    } else {
        delete gone;
    }
}

float SubviewController::rowHeight()
{
    actRowHeight = isUploading() ? 55.0f : 45.0f;
    return actRowHeight;
}

void SubviewController::startUpload()
{
    const qint32 oldState = _uploadState;
    _uploadState = 1;
    startTime = now();
    progress = 0;
    calcFileSize(); // a bundle's archive exists from now on
    updateUI();
    resetTracking();
    reportStateChange(oldState);
}

void SubviewController::registering()
{
    const qint32 oldState = _uploadState;
    _uploadState = 2;
    updateUI();
    reportStateChange(oldState);
}

void SubviewController::completed()
{
    const qint32 oldState = _uploadState;
    _uploadState = 3;
    updateUI();
    reportStateChange(oldState);
}

void SubviewController::stopUpload()
{
    const qint32 oldState = _uploadState;
    _uploadState = 4;
    updateUI();
    reportStateChange(oldState);
}

void SubviewController::requeue()
{
    const qint32 oldState = _uploadState;
    _uploadState = 0;
    updateUI();
    reportStateChange(oldState);
}

void SubviewController::errorOccurred(qint32 number, const QString &message)
{
    const qint32 oldState = _uploadState;
    errNum = number;
    _uploadState = 5;
    statusLineText = message;
    updateUI();
    reportStateChange(oldState);
}

void SubviewController::doProgress(double percent)
{
    _progressValue = percent;
    if (subview)
        progressIndicator->setValue(int(percent));
    const QString size = initSizeString(_uploadSize);
    if (_uploadState != 1)
        return;
    // Lower-case on purpose: "Uploading" is the line before the first report.
    statusLineText = speedString(QStringLiteral("uploading (%1)").arg(size));
    if (subview)
        statusText->setText(statusLineText);
}

QString SubviewController::speedString(const QString &prefix) const
{
    const double elapsed =
        startTime ? std::chrono::duration<double>(now() - *startTime).count() : 0.0;
    const double p = _progressValue;
    const double remaining = p > 0 ? (100.0 - p) * (elapsed / p) : 0.0;
    quint32 s = 0;
    if (remaining >= 4294967295.0)
        s = 4294967295u;
    else if (remaining > 0)
        s = quint32(remaining);
    if (s == 0)
        return prefix;
    // No estimate in the first ten seconds, unless three percent are already done.
    if (p < 3.0 && elapsed < 10.0)
        return prefix;
    const quint32 days = s / 86400;
    const quint32 hours = (s % 86400) / 3600;
    const quint32 r = (s % 86400) % 3600;
    const quint32 minutes = r / 60;
    const quint32 seconds = r % 60;
    if (days >= 1)
        return prefix + QStringLiteral(" - %1 day(s) remaining").arg(days);
    if (hours == 1)
        return prefix + QStringLiteral(" - 1 hour remaining");
    if (hours >= 2)
        return prefix + QStringLiteral(" - %1 hours remaining").arg(hours);
    if (minutes >= 2)
        return prefix + QStringLiteral(" - %1 minutes remaining").arg(minutes);
    if (minutes == 0 && seconds <= 5)
        return prefix + QStringLiteral(" - less than 5 seconds remaining");
    if (minutes == 0 && seconds <= 10)
        return prefix + QStringLiteral(" - less than 10 seconds remaining");
    if (minutes == 0 && seconds <= 20)
        return prefix + QStringLiteral(" - less than 20 seconds remaining");
    if (minutes == 0 && seconds <= 40)
        return prefix + QStringLiteral(" - half a minute remaining");
    return prefix + QStringLiteral(" - 1 minute remaining");
}

void SubviewController::updateUI()
{
    const QString size = initSizeString(_uploadSize);
    switch (_uploadState) {
    case 0:
        statusLineText =
            _isBundle ? QStringLiteral("Queued") : QStringLiteral("Queued (%1)").arg(size);
        break;
    case 1:
        statusLineText = QStringLiteral("Uploading (%1)").arg(size);
        break;
    case 2:
        statusLineText = QStringLiteral("Processing...");
        break;
    case 3:
        statusLineText = QStringLiteral("Completed (%1)").arg(size);
        break;
    case 4:
        statusLineText = QStringLiteral("Stopped (%1)").arg(size);
        break;
    case 6:
        statusLineText = QStringLiteral("Restarting");
        break;
    default: // 5 keeps the message errorOccurred put there
        break;
    }
    // While processing, the button keeps what it had.
    if (_uploadState == 1) {
        cancelDelImage = QStringLiteral("cancel");
        cancelDelToolTip = QStringLiteral("Cancel upload");
    } else if (_uploadState != 2) {
        cancelDelImage = QStringLiteral("delete");
        cancelDelToolTip = QStringLiteral("Remove from list");
    }
    applyToView();
}

// The view half of updateUI: lays the row out for the state and shows the kept texts.
void SubviewController::applyToView()
{
    if (!subview)
        return;
    const auto setY = [this](QWidget *control, int y) {
        QRect frame = subview->controlFrame(control);
        frame.moveTop(y);
        subview->setControlFrame(control, frame);
    };
    const auto setHeight = [this](QWidget *control, int height) {
        QRect frame = subview->controlFrame(control);
        frame.setHeight(height);
        subview->setControlFrame(control, frame);
    };
    if (isUploading()) {
        subview->setFrameHeight(55);
        setY(fileName, 35);
        setY(buttonCancelDel, 15);
        setY(buttonOpen, 15);
        setHeight(imageView, 51);
        if (_uploadState == 2)
            progressIndicator->setRange(0, 0); // indeterminate: the style animates it
        else
            progressIndicator->setRange(0, 100);
        progressIndicator->setVisible(true);
        buttonRetry->setVisible(false);
    } else {
        subview->setFrameHeight(45);
        setY(fileName, 25);
        setY(buttonCancelDel, 10);
        setY(buttonOpen, 10);
        setY(buttonRetry, 10);
        setHeight(imageView, 41);
        progressIndicator->setVisible(false);
        progressIndicator->setRange(0, 100);
        buttonRetry->setVisible(canReStart());
    }
    progressIndicator->setValue(int(_progressValue));
    buttonCancelDel->setToolTip(cancelDelToolTip);
    buttonCancelDel->setImage(cancelDelImage);
    buttonCancelDel->setImageName(cancelDelImage);

    imageState->setVisible(false);
    const QString badge = badgeImage(_uploadState);
    if (!badge.isEmpty()) {
        imageState->setPixmap(QVRolloverButton::namedImage(badge, subview->devicePixelRatioF()));
        imageState->setVisible(true);
    }
    statusText->setText(statusLineText);

    const QString name = lastPathComponent(_fileWithPath);
    fileName->setText(name);
    fileName->setToolTip(_fileWithPath);
    // Screen readers hear what each button does to which file.
    buttonCancelDel->setAccessibleName(QStringLiteral("%1: %2").arg(cancelDelToolTip, name));
    buttonRetry->setAccessibleName(QStringLiteral("Restart upload: %1").arg(name));
    buttonOpen->setAccessibleName(QStringLiteral("Show in file manager: %1").arg(name));
    statusText->setAccessibleName(QStringLiteral("Status of %1").arg(name));
    if (!_fileWithPath.isEmpty()) {
        const qreal ratio = subview->devicePixelRatioF();
        imageView->setPixmap(fileIcon(_fileWithPath, _isBundle).pixmap(QSize(32, 32), ratio));
    }
}

void SubviewController::disableTracking()
{
    if (!subview)
        return;
    buttonRetry->disableTracking();
    buttonCancelDel->disableTracking();
    buttonOpen->disableTracking();
}

void SubviewController::resetTracking()
{
    if (!subview)
        return;
    buttonOpen->addTracking();
    buttonCancelDel->addTracking();
    buttonRetry->addTracking();
}

void SubviewController::doButtonAction(QObject *sender)
{
    int index = 0;
    if (sender && sender == buttonCancelDel)
        index = _uploadState == 1 ? 1 : 2;
    else if (sender && sender == buttonRetry)
        index = 3;
    if (!index || !actionObject)
        return;
    QPointer<SubviewController> self(this);
    dispatching = true;
    actionObject->buttonPressed(this, index);
    if (self) // the delete button's receiver usually removes this row
        dispatching = false;
}

void SubviewController::doRevealinFinder()
{
    const QString path = QDir::cleanPath(_fileWithPath);
    const QUrl folder = QUrl::fromLocalFile(QFileInfo(path).absolutePath());
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        QDesktopServices::openUrl(folder);
        return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.FileManager1"),
        QStringLiteral("/org/freedesktop/FileManager1"),
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
    call << QStringList{QUrl::fromLocalFile(path).toString(QUrl::FullyEncoded)} << QString();
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [folder](QDBusPendingCallWatcher *finished) {
                finished->deleteLater();
                if (!finished->isError())
                    return;
                // No file manager that can select a file: open the folder instead.
                hlog("ShowItems: %s", qUtf8Printable(finished->error().message()));
                QDesktopServices::openUrl(folder);
            });
}
