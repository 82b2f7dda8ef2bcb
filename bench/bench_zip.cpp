// Packing a bundle: the walk and ZipFile calls the queue makes before a bundle's upload
// (entries named BUNDLE/relative/path, every file deflated in 4-byte reads). Prints the
// seconds it took; bench/run.sh sets them against `zip -r -q -6` of the tree.
//
//   bench_zip BUNDLE_FOLDER ARCHIVE
#include "queue/ZipFile.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileInfo>

#include <cstdio>

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
    addFolderToArchive(zip, bundle, QFileInfo(bundle).fileName());
    const int status = zip.closeArchive();
    std::printf("%.4f\n", clock.nsecsElapsed() / 1e9);
    return status == 0 ? 0 : 1;
}
