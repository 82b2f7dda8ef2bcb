#pragma once

#include <QDBusUnixFileDescriptor>
#include <QObject>

/** @brief Power messages handed to the power callback, with their fixed values. */
namespace PowerMessage {
constexpr quint32 CanSystemSleep = 0xE0000270;
constexpr quint32 SystemWillSleep = 0xE0000280;
constexpr quint32 SystemHasPoweredOn = 0xE0000300;
} // namespace PowerMessage

/** @brief The power callback: reference constant, service, message type, message argument. */
using PowerCallback = void (*)(void *refCon, quint32 service, quint32 messageType,
                               void *messageArgument);

/**
 * @brief Hoplift's connection to systemd-logind on the system bus: PrepareForSleep
 * becomes "system will sleep" or "has powered on", and a delay inhibitor holds a
 * sleep back until the callback allows it.
 */
class PowerConnection : public QObject
{
    Q_OBJECT
public:
    /** @brief Subscribes to logind; false when the system bus cannot be reached. */
    bool registerForSystemPower(PowerCallback callback);

    /** @brief Lets a pending sleep go ahead: gives the delay lock back. */
    void allowPowerChange();

    /** @brief Asks logind for the delay lock (again); the answer arrives later. */
    void takeLock();

    bool holdsLock() const { return lock.isValid(); }

Q_SIGNALS:
    /** @brief The delay lock was granted (or could not be had: holdsLock() tells). */
    void lockChanged();

private Q_SLOTS:
    void prepareForSleep(bool start);

private:
    PowerCallback callback = nullptr;
    QDBusUnixFileDescriptor lock;
    bool lockRequested = false;
};

/** @brief The connection made by main(); acknowledges sleeps. */
extern PowerConnection *groot_port;
