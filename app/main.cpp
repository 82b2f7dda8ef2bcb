#include "app/CrashReporter.h"
#include "app/MainController.h"
#include "app/Power.h"
#include "app/SignalQuit.h"
#include "app/SingleInstance.h"

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QIcon>
#include <QMainWindow>
#include <QTimer>

#include <cstdio>
#include <cstring>
#include <vector>

void callback(void *refCon, quint32 service, quint32 messageType, void *messageArgument);

namespace {

constexpr int exitUsage = 2;

const char usageText[] =
    "Usage: hoplift [OPTION]... [PATH]...\n"
    "Upload files and folders to your kelvara storage.\n"
    "\n"
    "Each PATH, a file or a folder, is added to the upload queue as if it had been\n"
    "dropped on the window; a folder adds every file in it. When Hoplift is already\n"
    "running, the paths are handed to it.\n"
    "\n"
    "  -h, --help     show this help and exit\n"
    "      --version  show the version and exit\n"
    "      --         end of options: what follows are paths, even if they begin with '-'\n";

/**
 * @brief Reads the command line before anything else is set up, so that --help,
 * --version and mistakes need neither a display nor a bus.
 *
 * The one argument for Qt is the session manager's "-session ID", with which the
 * desktop restarts the programs of a saved session; it goes to qtArguments, after
 * the program name.
 * @return -1 to go on with paths filled in, otherwise the exit status.
 */
int parseCommandLine(int argc, char *argv[], QStringList &paths, std::vector<char *> &qtArguments)
{
    qtArguments.assign(argv, argv + (argc > 0 ? 1 : 0));
    bool options = true;
    for (int i = 1; i < argc; ++i) {
        const char *arg = argv[i];
        if (options && std::strcmp(arg, "--") == 0) {
            options = false;
        } else if (options && (std::strcmp(arg, "--help") == 0 || std::strcmp(arg, "-h") == 0)) {
            std::fputs(usageText, stdout);
            return 0;
        } else if (options && std::strcmp(arg, "--version") == 0) {
            std::printf("Hoplift %s\n", HOPLIFT_VERSION);
            return 0;
        } else if (options &&
                   (std::strcmp(arg, "-session") == 0 || std::strcmp(arg, "--session") == 0)) {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "hoplift: option '%s' needs a value\nTry 'hoplift --help'.\n",
                             arg);
                return exitUsage;
            }
            qtArguments.push_back(argv[i]);
            qtArguments.push_back(argv[++i]);
        } else if (options && arg[0] == '-') {
            std::fprintf(stderr, "hoplift: unknown option '%s'\nTry 'hoplift --help'.\n", arg);
            return exitUsage;
        } else {
            paths << QDir::current().absoluteFilePath(QFile::decodeName(arg));
        }
    }
    return -1;
}

} // namespace

int main(int argc, char *argv[])
{
    QStringList paths;
    std::vector<char *> qtArguments;
    if (const int status = parseCommandLine(argc, argv, paths, qtArguments); status >= 0)
        return status;

    // Qt sees the program name and a session id only: a path that looks like one of
    // Qt's own options (-style, -platform ...) stays a path.
    int qtArgc = int(qtArguments.size());
    qtArguments.push_back(nullptr);
    QApplication app(qtArgc, qtArguments.data());
    QApplication::setOrganizationName(QStringLiteral("kelvara"));
    QApplication::setApplicationName(QStringLiteral("Hoplift"));
    QApplication::setApplicationVersion(QStringLiteral(HOPLIFT_VERSION));
    CrashReporter::installHandler();
    QApplication::setDesktopFileName(QStringLiteral("hoplift"));
    QApplication::setWindowIcon(QIcon(QStringLiteral(":/images/hoplift")));

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
