#include "app/SignalQuit.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

int pipeFds[2] = {-1, -1};

void onSignal(int)
{
    // Only async-signal-safe work here: the event loop picks the byte up.
    const char byte = 1;
    [[maybe_unused]] ssize_t n = ::write(pipeFds[1], &byte, 1);
}

} // namespace

void quitOnTerminationSignals()
{
    if (pipeFds[0] >= 0)
        return;
    if (::pipe2(pipeFds, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    auto *notifier = new QSocketNotifier(pipeFds[0], QSocketNotifier::Read, qApp);
    QObject::connect(notifier, &QSocketNotifier::activated, qApp, [] {
        char buffer[16];
        while (::read(pipeFds[0], buffer, sizeof buffer) > 0) {
        }
        // exit(), not quit(): quit() asks the windows first, and ours never closes.
        QCoreApplication::exit(0);
    });
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signal : {SIGTERM, SIGINT, SIGHUP})
        sigaction(signal, &action, nullptr);
}
