#include "app/DesktopNotifier.h"

#include "app/Log.h"
#include "app/MainController.h"
#include "ui/SubviewController.h"
#include "ui/SubviewTableViewController.h"
#include "ui/iTableView.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDir>
#include <QItemSelectionModel>
#include <QSettings>
#include <QUrl>
#include <QVariantMap>
#include <QWidget>

#include <algorithm>
#include <utility>

namespace {

// The notifier the rows report to; there is one per controller, and one controller.
DesktopNotifier *observing = nullptr;

const QString notificationsService = QStringLiteral("org.freedesktop.Notifications");
const QString notificationsPath = QStringLiteral("/org/freedesktop/Notifications");
const QString launcherInterface = QStringLiteral("com.canonical.Unity.LauncherEntry");
const QString launcherAppUri = QStringLiteral("application://hoplift.desktop");

// The taskbar is told twice a second at most while rows wait.
constexpr int launcherIntervalMs = 500;

QString launcherPath()
{
    return QStringLiteral("/com/canonical/unity/launcherentry/%1").arg(qHash(launcherAppUri));
}

/** @brief The host of the account URL in the settings, or an empty string. */
QString accountHost()
{
    return QUrl(QSettings().value(QVURLKey).toString()).host();
}

} // namespace

DesktopNotifier::DesktopNotifier(MainController *controller, QWidget *window)
    : QObject(controller), controller(controller), window(window)
{
    observing = this;
    SubviewController::setStateObserver(
        [](SubviewController *row, qint32 oldState, qint32 newState) {
            if (observing)
                observing->stateChanged(row, oldState, newState);
        });
    ticker.setInterval(launcherIntervalMs);
    connect(&ticker, &QTimer::timeout, this, &DesktopNotifier::tick);
    // Any sender: asking the bus who owns the service would be a blocking call. The ids
    // tell Hoplift's notices apart from everyone else's.
    QDBusConnection::sessionBus().connect(QString(), notificationsPath, notificationsService,
                                          QStringLiteral("ActionInvoked"), this,
                                          SLOT(actionInvoked(uint, QString)));
}

DesktopNotifier::~DesktopNotifier()
{
    if (observing == this) {
        observing = nullptr;
        SubviewController::setStateObserver({});
    }
    if (launcherShown)
        updateLauncher(std::nullopt, 0);
}

void DesktopNotifier::stateChanged(SubviewController *row, qint32, qint32 newState)
{
    if (newState == 3) {
        ++batchFiles;
        batchBytes += row->uploadSize();
        lastCompleted = row;
    } else if (newState == 5 && !windowIsActive()) {
        const QString name = QDir::cleanPath(row->fileWithPath()).section(QLatin1Char('/'), -1);
        notify(Failure, {QStringLiteral("Could not upload %1").arg(name), row->statusLine(),
                         QStringLiteral("transfer.error"), row});
    }
    if (!anyWaiting()) {
        queueIdle();
    } else if (!launcherShown) {
        // A batch begins: the taskbar hears of it at once, then with every tick.
        ticker.start();
        tick();
    }
}

bool DesktopNotifier::anyWaiting() const
{
    // From the end: rows still queued are usually the last ones.
    const auto &rows = controller->queue();
    return std::any_of(rows.rbegin(), rows.rend(),
                       [](const auto &row) { return row->uploadState() <= 2; });
}

void DesktopNotifier::tick()
{
    // Done: the batch's completed bytes and the current upload's share; the total adds
    // every waiting row. Failed and stopped rows drop out of the batch.
    quint64 total = batchBytes;
    quint64 done = batchBytes;
    qint64 count = 0;
    for (const auto &row : controller->queue()) {
        const qint32 state = row->uploadState();
        if (state > 2)
            continue;
        ++count;
        const quint64 size = row->uploadSize();
        total += size;
        if (state == 2)
            done += size;
        else if (state == 1)
            done += quint64(double(size) * qBound(0.0, row->progressValue(), 100.0) / 100.0);
    }
    if (count == 0) {
        queueIdle(); // rows went without a change of state: removed
        return;
    }
    updateLauncher(total ? double(done) / double(total) : 0.0, count);
}

void DesktopNotifier::queueIdle()
{
    ticker.stop();
    if (launcherShown)
        updateLauncher(std::nullopt, 0);
    if (batchFiles > 0 && !windowIsActive()) {
        const QString host = accountHost();
        QString summary = batchFiles == 1 ? QStringLiteral("1 file uploaded")
                                          : QStringLiteral("%1 files uploaded").arg(batchFiles);
        if (!host.isEmpty())
            summary += QStringLiteral(" to %1").arg(host);
        notify(Completion, {summary, SubviewController::initSizeString(batchBytes),
                            QStringLiteral("transfer.complete"), lastCompleted});
    }
    batchFiles = 0;
    batchBytes = 0;
    lastCompleted.clear();
}

void DesktopNotifier::notify(Kind kind, Notice notice)
{
    Channel &channel = channels[kind];
    if (channel.inFlight)
        channel.waiting = std::move(notice); // sent with the id the one in flight gets
    else
        send(kind, notice);
}

void DesktopNotifier::send(Kind kind, const Notice &notice)
{
    Channel &channel = channels[kind];
    channel.inFlight = true;
    channel.row = notice.row;
    QDBusMessage call = QDBusMessage::createMethodCall(
        notificationsService, notificationsPath, notificationsService, QStringLiteral("Notify"));
    const QVariantMap hints{
        {QStringLiteral("desktop-entry"), QStringLiteral("hoplift")},
        {QStringLiteral("category"), notice.category},
        {QStringLiteral("sender-pid"), qint64(QCoreApplication::applicationPid())},
    };
    call << QStringLiteral("Hoplift") << channel.id << QStringLiteral("hoplift") << notice.summary
         << notice.body << QStringList{QStringLiteral("default"), QStringLiteral("Show")} << hints
         << qint32(-1);
    auto *watcher =
        new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, kind](QDBusPendingCallWatcher *finished) {
                finished->deleteLater();
                Channel &channel = channels[kind];
                channel.inFlight = false;
                const QDBusPendingReply<uint> reply = *finished;
                if (reply.isError()) {
                    channel.id = 0;
                    channel.waiting.reset();
                    if (!absenceLogged) {
                        absenceLogged = true;
                        hlog("no desktop notifications: %s",
                             qUtf8Printable(reply.error().message()));
                    }
                    return;
                }
                channel.id = reply.value();
                if (channel.waiting) {
                    const Notice next = *std::exchange(channel.waiting, std::nullopt);
                    send(kind, next);
                }
            });
}

void DesktopNotifier::updateLauncher(std::optional<double> progress, qint64 count)
{
    QVariantMap properties;
    if (progress) {
        if (launcherShown && *progress == shownProgress && count == shownCount)
            return;
        properties = {
            {QStringLiteral("progress"), *progress},
            {QStringLiteral("progress-visible"), true},
            {QStringLiteral("count"), count},
            {QStringLiteral("count-visible"), true},
        };
        shownProgress = *progress;
        shownCount = count;
    } else {
        properties = {
            {QStringLiteral("progress-visible"), false},
            {QStringLiteral("count-visible"), false},
        };
    }
    launcherShown = progress.has_value();
    QDBusMessage signal =
        QDBusMessage::createSignal(launcherPath(), launcherInterface, QStringLiteral("Update"));
    signal << launcherAppUri << properties;
    QDBusConnection::sessionBus().send(signal);
}

void DesktopNotifier::actionInvoked(uint id, const QString &action)
{
    if (id == 0 || action != QLatin1String("default"))
        return;
    for (const Channel &channel : channels) {
        if (channel.id != id)
            continue;
        controller->raiseWindow();
        const auto &rows = controller->queue();
        const auto found = std::find_if(rows.begin(), rows.end(), [&channel](const auto &row) {
            return row.get() == channel.row;
        });
        auto *list = window ? window->findChild<iTableView *>() : nullptr;
        if (!channel.row || found == rows.end() || !list || !controller->tableController())
            return;
        const QModelIndex index =
            controller->tableController()->index(int(found - rows.begin()), 0);
        list->selectionModel()->setCurrentIndex(index, QItemSelectionModel::ClearAndSelect |
                                                           QItemSelectionModel::Rows);
        list->scrollTo(index);
        return;
    }
}

bool DesktopNotifier::windowIsActive() const
{
    return window && window->isActiveWindow();
}
