#include "app/Power.h"

#include "app/Log.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>

PowerConnection *groot_port = nullptr;

namespace {
const QString kService = QStringLiteral("org.freedesktop.login1");
const QString kPath = QStringLiteral("/org/freedesktop/login1");
const QString kManager = QStringLiteral("org.freedesktop.login1.Manager");
} // namespace

bool PowerConnection::registerForSystemPower(PowerCallback cb)
{
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.isConnected())
        return false;
    callback = cb;
    bus.connect(kService, kPath, kManager, QStringLiteral("PrepareForSleep"), this,
                SLOT(prepareForSleep(bool)));
    // logind may start (or restart) after Hoplift: take the lock whenever it appears.
    auto *watcher =
        new QDBusServiceWatcher(kService, bus, QDBusServiceWatcher::WatchForRegistration, this);
    connect(watcher, &QDBusServiceWatcher::serviceRegistered, this, [this] {
        lock = QDBusUnixFileDescriptor();
        takeLock();
    });
    takeLock();
    return true;
}

void PowerConnection::takeLock()
{
    if (lock.isValid() || lockRequested)
        return;
    QDBusMessage call =
        QDBusMessage::createMethodCall(kService, kPath, kManager, QStringLiteral("Inhibit"));
    call << QStringLiteral("sleep") << QStringLiteral("Hoplift!")
         << QStringLiteral("Stopping the current upload before sleep") << QStringLiteral("delay");
    lockRequested = true;
    auto *watcher = new QDBusPendingCallWatcher(QDBusConnection::systemBus().asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher *w) {
        w->deleteLater();
        lockRequested = false;
        QDBusPendingReply<QDBusUnixFileDescriptor> reply = *w;
        // Without logind (a bare container) there is simply no lock to hold.
        if (!reply.isError())
            lock = reply.value();
        emit lockChanged();
    });
}

void PowerConnection::allowPowerChange()
{
    lock = QDBusUnixFileDescriptor();
    emit lockChanged();
}

void PowerConnection::prepareForSleep(bool start)
{
    if (!callback)
        return;
    callback(nullptr, 0, start ? PowerMessage::SystemWillSleep : PowerMessage::SystemHasPoweredOn,
             nullptr);
}
