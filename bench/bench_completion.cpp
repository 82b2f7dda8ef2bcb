// The cost of one completion: from the upload's answer reaching MainController to the next
// row's upload having started, in a queue of N rows, with the part spent writing the saved
// queue measured on its own (handed to its writer thread within the completion, written
// there). The rows are small files sent for real to a kelvara service; only the synchronous
// handling of each answer is timed.
//
//   bench_completion URL ROWS
#include "app/MainController.h"
#include "ui/SubviewController.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

constexpr int kWarmUp = 3;
constexpr int kMeasured = 25;

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

class TimedController : public MainController
{
public:
    void responseComplete(QVStreamer *streamer, const QByteArray &body, quint32 code) override
    {
        // Only an upload's receipt names an asset; account answers pass untimed.
        if (!body.contains("<asset>")) {
            MainController::responseComplete(streamer, body, code);
            return;
        }
        QElapsedTimer clock;
        clock.start();
        MainController::responseComplete(streamer, body, code);
        const double ms = clock.nsecsElapsed() / 1e6;
        if (++completions > kWarmUp)
            costs.push_back(ms);
        if (int(costs.size()) == kMeasured)
            QTimer::singleShot(0, qApp, &QCoreApplication::quit);
    }
    int completions = 0;
    std::vector<double> costs;
};

} // namespace

int main(int argc, char *argv[])
{
    QApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("kelvara-bench"));
    QCoreApplication::setApplicationName(QStringLiteral("Hoplift"));
    if (argc != 3) {
        std::fprintf(stderr, "usage: bench_completion URL ROWS\n");
        return 2;
    }
    const int rows = QByteArray(argv[2]).toInt();

    QTemporaryDir dir;
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope,
                       dir.filePath(QStringLiteral("cfg")));
    const QString tree = dir.filePath(QStringLiteral("rows"));
    for (int i = 0; i < rows; ++i) {
        const QString sub =
            QStringLiteral("%1/d%2").arg(tree).arg(i / 1000, 3, 10, QLatin1Char('0'));
        if (i % 1000 == 0)
            QDir().mkpath(sub);
        QFile f(QStringLiteral("%1/f%2.txt").arg(sub).arg(i));
        if (!f.open(QIODevice::WriteOnly) || f.write("x", 1) != 1)
            return 1;
    }

    QSettings().setValue(QStringLiteral("Account URL"), QString::fromLocal8Bit(argv[1]));
    QSettings().setValue(QStringLiteral("Username"), QStringLiteral("demo"));
    TimedController controller;
    if (!controller.savePassword(QStringLiteral("demo"))) {
        std::fprintf(stderr, "no secret store to keep the password in\n");
        return 1;
    }
    controller.applicationDidFinishLaunching();
    controller.addFiles({tree}, false);
    if (controller.queue().size() != size_t(rows))
        return 1;

    QTimer::singleShot(120'000, &app, [] {
        std::fprintf(stderr, "the uploads stopped\n");
        QCoreApplication::exit(1);
    });
    if (app.exec() != 0)
        return 1;

    // The saved queue: what the window's thread spends handing it over, and how long the
    // writer thread then takes to put it on disk.
    std::vector<double> handOvers;
    std::vector<double> writes;
    for (int i = 0; i < kMeasured; ++i) {
        QElapsedTimer clock;
        clock.start();
        controller.saveUploadFiles();
        handOvers.push_back(clock.nsecsElapsed() / 1e6);
        controller.waitForSavedQueue();
        writes.push_back(clock.nsecsElapsed() / 1e6);
    }
    // milliseconds (medians): one completion; of it, handing the saved queue over; the write
    std::printf("%.3f %.3f %.3f\n", median(controller.costs), median(handOvers), median(writes));
    return 0;
}
