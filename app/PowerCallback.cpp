#include "app/Log.h"
#include "app/MainController.h"
#include "app/Power.h"

/** @brief What Hoplift does when the machine goes to sleep or wakes up. */
void callback(void *, quint32, quint32 messageType, void *)
{
    switch (messageType) {
    case PowerMessage::SystemWillSleep:
        hlog("going to sleep...");
        if (mainController) {
            mainController->stopAllUploads(true);
            // A queue still being written reaches the disk before the machine sleeps.
            mainController->waitForSavedQueue();
        }
        if (groot_port)
            groot_port->allowPowerChange();
        break;
    case PowerMessage::SystemHasPoweredOn:
        hlog("waking up...");
        if (groot_port)
            groot_port->takeLock();
        if (mainController)
            mainController->startNextUpload();
        break;
    case PowerMessage::CanSystemSleep:
        if (groot_port)
            groot_port->allowPowerChange();
        break;
    default:
        break;
    }
}
