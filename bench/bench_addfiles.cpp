// Adding a folder of many small files: time and memory of Hoplift's walk and row
// creation, against `du -sb` walking (and stat-ing) the same tree in the same run.
//
//   bench_addfiles [COUNT]
#include "app/MainController.h"
#include "support/LoopbackHttpServer.h"
#include "support/ProcStatus.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QMainWindow>
#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>

#include <cstdio>

namespace {

double timeDu(const QString &path)
{
    QElapsedTimer clock;
    clock.start();
    QProcess du;
    du.start(QStringLiteral("du"), {QStringLiteral("-sb"), path});
    du.waitForFinished(-1);
    return clock.nsecsElapsed() / 1e9;
}

} // namespace

int main(int argc, char *argv[])
{
    QApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("kelvara-bench"));
    QCoreApplication::setApplicationName(QStringLiteral("Hoplift"));
    const int count = argc > 1 ? QByteArray(argv[1]).toInt() : 100000;

    QTemporaryDir dir;
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope,
                       dir.filePath(QStringLiteral("cfg")));
    const QString tree = dir.filePath(QStringLiteral("photos"));
    for (int i = 0; i < count; ++i) {
        const QString sub = QStringLiteral("%1/d%2").arg(tree).arg(i / 1000);
        if (i % 1000 == 0)
            QDir().mkpath(sub);
        QFile f(QStringLiteral("%1/IMG_%2.jpg").arg(sub).arg(i));
        f.open(QIODevice::WriteOnly);
        f.write("x", 1);
    }

    // Warm the inode cache for both sides alike.
    timeDu(tree);
    double du = 1e9;
    for (int run = 0; run < 3; ++run)
        du = qMin(du, timeDu(tree));

    // An account that refuses the credentials: the batch is queued, nothing is sent.
    LoopbackHttpServer service;
    service.setResponse("HTTP/1.1 401 Unauthorized\r\nContent-Length: 0\r\n\r\n");
    if (!service.listenOnLoopback())
        return 2;
    QSettings().setValue(QStringLiteral("Account URL"), service.baseUrl());
    MainController controller;
    controller.applicationDidFinishLaunching();
    controller.mainWindow()->show();
    const qint64 before = statusKiB("VmRSS:");
    QElapsedTimer clock;
    clock.start();
    controller.addFiles({tree}, false);
    const double hoplift = clock.nsecsElapsed() / 1e9;
    const qint64 after = statusKiB("VmRSS:");

    // seconds for Hoplift, seconds for du, resident bytes per row
    std::printf("%.4f %.4f %.0f\n", hoplift, du, double(after - before) * 1024 / count);
    return controller.queue().size() == size_t(count) ? 0 : 1;
}
