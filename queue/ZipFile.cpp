#include "queue/ZipFile.h"

#include "queue/FolderWalk.h"

#include "app/Log.h"

#include <QFile>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <sys/stat.h>

// Last: minizip's headers define glibc's large-file macros.
#include <minizip/zip.h>

namespace {

constexpr int bufferSize = 16384;
// Each read asks for 4 bytes, and minizip gets each 4 bytes in a call of their own.
constexpr size_t readSize = 4;
// What stdio keeps between those reads, so that only one read in 64 KiB reaches the kernel.
constexpr size_t streamBufferSize = 65536;
constexpr int maxFileName = 256;

} // namespace

int filetime(const char *f, tm_zip *tmzip, unsigned long *dt)
{
    Q_UNUSED(dt);
    int ret = 0;
    time_t tm_t = 0;
    if (std::strcmp(f, "-") != 0) {
        char name[maxFileName + 1];
        const size_t len = std::min(std::strlen(f), size_t(maxFileName));
        const size_t copied = std::min(len, size_t(maxFileName - 1));
        std::memcpy(name, f, copied);
        name[copied] = '\0';
        // A file named with a trailing '/' is not found by stat().
        if (len > 0 && name[len - 1] == '/')
            name[len - 1] = '\0';
        struct stat s;
        if (stat(name, &s) == 0) {
            tm_t = s.st_mtime;
            ret = 1;
        }
    }
    struct tm filedate = {};
    localtime_r(&tm_t, &filedate);
    tmzip->tm_sec = uInt(filedate.tm_sec);
    tmzip->tm_min = uInt(filedate.tm_min);
    tmzip->tm_hour = uInt(filedate.tm_hour);
    tmzip->tm_mday = uInt(filedate.tm_mday);
    tmzip->tm_mon = uInt(filedate.tm_mon);
    tmzip->tm_year = uInt(filedate.tm_year);
    return ret;
}

ZipFile::~ZipFile()
{
    releaseWriter();
}

void ZipFile::releaseWriter()
{
    // closeArchive() leaves the writer of an archive whose last entry did not open as it is,
    // and minizip has no call that frees a writer without finishing its file. By the time a
    // new archive starts (or Hoplift quits) the scheduler has removed that file.
    if (zf)
        zipClose(zf, nullptr);
    zf = nullptr;
}

qint32 ZipFile::createArchive(const QString &path)
{
    releaseWriter();
    _archivePath = path;
    opt_compress_level = Z_DEFAULT_COMPRESSION;
    buf.reset(new (std::nothrow) char[bufferSize]);
    if (!buf) {
        hlog("Error allocating memory");
        return ZIP_INTERNALERROR;
    }
    zf = zipOpen(path.toUtf8().constData(), APPEND_STATUS_CREATE);
    if (!zf) {
        hlog("error opening %s", qUtf8Printable(path));
        return ZIP_ERRNO;
    }
    hlog("Creating %s", qUtf8Printable(path));
    return ZIP_OK;
}

qint32 ZipFile::addFileToArchive(const QString &path, const QString &pathInArchive)
{
    const QByteArray fileName = QFile::encodeName(path);
    zip_fileinfo zi = {};
    filetime(fileName.constData(), &zi.tmz_date, &zi.dosDate);

    int err =
        zipOpenNewFileInZip(zf, pathInArchive.toUtf8().constData(), &zi, nullptr, 0, nullptr, 0,
                            nullptr, opt_compress_level != 0 ? Z_DEFLATED : 0, opt_compress_level);
    archiveOpen = false;
    // stdio takes a size only together with a buffer; alone it keeps 4 KiB. The buffer
    // outlives the stream.
    std::unique_ptr<char[]> streamBuffer;
    FILE *fin = nullptr;
    if (err == ZIP_OK) {
        archiveOpen = true;
        fin = std::fopen(fileName.constData(), "rb");
        if (!fin) {
            err = ZIP_ERRNO;
            hlog("error in opening %s for reading", qUtf8Printable(path));
        }
    } else {
        hlog("error in opening %s in zipfile", qUtf8Printable(path));
    }

    // buf is gone only when this writer outlived a closeArchive() that could not finish it.
    if (fin && buf) {
        streamBuffer = std::make_unique<char[]>(streamBufferSize);
        std::setvbuf(fin, streamBuffer.get(), _IOFBF, streamBufferSize);
        size_t sizeRead = 0;
        do {
            // Nothing else touches this stream, so stdio's per-call lock is pure cost.
            sizeRead = fread_unlocked(buf.get(), 1, readSize, fin);
            if (sizeRead < readSize && !feof_unlocked(fin)) {
                hlog("error reading %s", qUtf8Printable(path));
                err = ZIP_ERRNO;
            }
            if (sizeRead > 0) {
                const int written = zipWriteInFileInZip(zf, buf.get(), unsigned(sizeRead));
                if (written < 0) {
                    hlog("error writing %s into zipfile", qUtf8Printable(path));
                    err = written;
                }
            }
        } while (err == ZIP_OK && sizeRead > 0);
    }
    if (fin)
        std::fclose(fin);

    err = zipCloseFileInZip(zf);
    if (err != ZIP_OK)
        hlog("error in closing %s in the zipfile", qUtf8Printable(_archivePath));
    currentStatus = err;
    return err;
}

qint32 ZipFile::closeArchive()
{
    int err = ZIP_ERRNO;
    if (archiveOpen) {
        err = zipClose(zf, nullptr);
        zf = nullptr;
        if (err != ZIP_OK)
            hlog("error closing zip-file");
    } else {
        hlog("zipfile not opened!");
    }
    buf.reset();
    return err;
}

bool ZipFile::removeZipArchive()
{
    bool removed = false;
    if (!_archivePath.isEmpty() && QFile::exists(_archivePath))
        removed = QFile::remove(_archivePath);
    _archivePath.clear();
    return removed;
}

void addFolderToArchive(ZipFile &zip, const QString &path, const QString &relativePath)
{
    FolderWalk::WalkGuard guard(path);
    if (!guard.entered)
        return;
    for (const FolderWalk::Entry &e : FolderWalk::listFolder(path)) {
        const QString inArchive = relativePath + QLatin1Char('/') + e.name;
        if (e.isDirectory)
            addFolderToArchive(zip, e.path, inArchive);
        else
            zip.addFileToArchive(e.path, inArchive);
    }
}
