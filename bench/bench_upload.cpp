// One upload through QVStreamer, the way the queue sends a file: a multipart POST to
// /api/assets, the file read from disk in 2048-byte pieces. Prints the seconds from the
// call to the service's answer, and the process's resident memory just before the upload
// (after the account check that precedes every upload) and at its peak during it.
// bench/run.sh runs this side by side with curl.
//
//   bench_upload URL USER PASSWORD FILE
#include "net/QVStreamer.h"
#include "support/ProcStatus.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>

#include <cstdio>

namespace {

// Writing 5 to clear_refs starts the peak resident size (VmHWM) over from the current one.
bool resetPeak()
{
    QFile f(QStringLiteral("/proc/self/clear_refs"));
    return f.open(QIODevice::WriteOnly) && f.write("5") == 1;
}

class Waiter : public QVStreamerDelegate
{
public:
    bool respondsToCallback(QVStreamerCallback callback) const override
    {
        return callback == QVStreamerCallback::ResponseComplete ||
               callback == QVStreamerCallback::HandleError;
    }
    void responseComplete(QVStreamer *, const QByteArray &, quint32 c) override
    {
        code = int(c);
        QCoreApplication::quit();
    }
    void handleError(QVStreamer *, const QString &m, qint32) override
    {
        message = m;
        QCoreApplication::quit();
    }
    int code = 0;
    QString message;
};

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    if (argc != 5) {
        std::fprintf(stderr, "usage: bench_upload URL USER PASSWORD FILE\n");
        return 2;
    }
    const QString url = QString::fromLocal8Bit(argv[1]) + QStringLiteral("/api/assets");
    const QString path = QString::fromLocal8Bit(argv[4]);

    Waiter waiter;
    QVStreamer streamer;
    streamer.setDelegate(&waiter);
    streamer.setUserName(QString::fromLocal8Bit(argv[2]));
    streamer.setPassword(QString::fromLocal8Bit(argv[3]));

    // Hoplift has always asked for the account before it uploads; so does the bench, so that
    // "before" is the state an upload starts from (connection code and TLS library loaded).
    if (!streamer.getFromURL(QString::fromLocal8Bit(argv[1]) + QStringLiteral("/api/account.xml"),
                             false))
        return 1;
    app.exec();
    if (waiter.code != 200) {
        std::fprintf(stderr, "account check failed: %d %s\n", waiter.code,
                     qPrintable(waiter.message));
        return 1;
    }
    waiter.code = 0;

    const qint64 before = statusKiB("VmRSS:");
    if (!resetPeak())
        std::fprintf(stderr, "cannot reset the peak resident size\n");
    QElapsedTimer clock;
    clock.start();
    if (!streamer.uploadFile(path, QFileInfo(path).fileName(), url, false))
        return 1;
    app.exec();
    const double seconds = clock.nsecsElapsed() / 1e9;
    const qint64 peak = statusKiB("VmHWM:");

    if (waiter.code != 201) {
        std::fprintf(stderr, "upload failed: %d %s\n", waiter.code, qPrintable(waiter.message));
        return 1;
    }
    // seconds, resident KiB before, peak resident KiB during
    std::printf("%.4f %lld %lld\n", seconds, before, peak);
    return 0;
}
