#include "app/CrashReporter.h"
#include "app/MainController.h"
#include "app/Power.h"
#include "app/SignalQuit.h"
#include "app/SingleInstance.h"

#include <QApplication>
#include <QDir>
#include <QIcon>
#include <QMainWindow>
#include <QTimer>

#include <cstdio>

void callback(void *refCon, quint32 service, quint32 messageType, void *messageArgument);

int main(int argc, char *argv[])
{
    QApplication app(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("kelvara"));
    QApplication::setApplicationName(QStringLiteral("Hoplift"));
    QApplication::setApplicationVersion(QStringLiteral("0.2.1"));
    CrashReporter::installHandler();
    QApplication::setDesktopFileName(QStringLiteral("hoplift"));
    QApplication::setWindowIcon(QIcon(QStringLiteral(":/images/hoplift")));

    QStringList paths;
    const QStringList arguments = QApplication::arguments();
    for (qsizetype i = 1; i < arguments.size(); ++i)
        paths << QDir::current().absoluteFilePath(arguments.at(i));

    // A later start hands its files to the running Hoplift and is done.
    SingleInstance instance;
    if (!instance.becomePrimary()) {
        if (instance.sendToPrimary(paths))
            return 0;
        std::fprintf(stderr, "Hoplift is already running but does not answer.\n");
        return 1;
    }

    PowerConnection power;
    if (!power.registerForSystemPower(callback)) {
        std::printf("IORegisterForSystemPower failed\n");
        return 1;
    }
    groot_port = &power;
    quitOnTerminationSignals();

    MainController controller;
    QObject::connect(&instance, &SingleInstance::filesReceived, &controller,
                     &MainController::applicationOpenFiles);
    QObject::connect(&instance, &SingleInstance::raiseRequested, &controller,
                     &MainController::raiseWindow);
    QObject::connect(&app, &QCoreApplication::aboutToQuit, &controller,
                     &MainController::applicationWillTerminate);
    if (!paths.isEmpty())
        controller.applicationOpenFiles(paths);
    controller.mainWindow()->show();
    QTimer::singleShot(0, &controller, &MainController::applicationDidFinishLaunching);
    const int status = QApplication::exec();
    groot_port = nullptr;
    return status;
}
