// Packing a bundle: the folder walk and ZipFile calls the queue makes before a bundle's
// upload (entries named BUNDLE/relative/path, every file deflated in 4-byte reads).
// Prints the seconds it took; bench/run.sh sets them against `zip -r -q -6` of the tree.
//
//   bench_zip BUNDLE_FOLDER ARCHIVE
#include "queue/FolderWalk.h"
#include "queue/ZipFile.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileInfo>

#include <cstdio>

namespace {

// The same walk as the queue's: the file system's order, hidden names left out.
void addFolder(ZipFile &zip, const QString &path, const QString &relativePath)
{
    FolderWalk::WalkGuard guard(path);
    if (!guard.entered)
        return;
    for (const FolderWalk::Entry &e : FolderWalk::listFolder(path)) {
        const QString inArchive = relativePath + QLatin1Char('/') + e.name;
        if (e.isDirectory)
            addFolder(zip, e.path, inArchive);
        else
            zip.addFileToArchive(e.path, inArchive);
    }
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    if (argc != 3) {
        std::fprintf(stderr, "usage: bench_zip BUNDLE_FOLDER ARCHIVE\n");
        return 2;
    }
    const QString bundle = QString::fromLocal8Bit(argv[1]);
    QElapsedTimer clock;
    clock.start();
    ZipFile zip;
    if (zip.createArchive(QString::fromLocal8Bit(argv[2])) != 0)
        return 1;
    addFolder(zip, bundle, QFileInfo(bundle).fileName());
    const int status = zip.closeArchive();
    std::printf("%.4f\n", clock.nsecsElapsed() / 1e9);
    return status == 0 ? 0 : 1;
}
