#pragma once

#include <QString>
#include <QtGlobal>

#include <memory>

// minizip's own types, declared here so that users of ZipFile need not include its headers
// (they define glibc's large-file macros).
struct tm_zip_s;
using tm_zip = tm_zip_s;
using zipFile = void *;

/**
 * @brief Fills *tmzip with the local modification time of the file named f (file-system
 * encoding; a trailing '/' is ignored); 1 when it was read, else 0 with the epoch. *dt is
 * left alone.
 */
int filetime(const char *f, tm_zip *tmzip, unsigned long *dt);

class ZipFile;

/**
 * @brief Adds every file under the folder at path to zip as relativePath/NAME..., in the
 * order the file system gives them: hidden names left out, links followed, a link back to
 * a folder on the walk skipped.
 */
void addFolderToArchive(ZipFile &zip, const QString &path, const QString &relativePath);

/**
 * @brief Packs a bundle into one temporary zip archive: createArchive(), then
 * addFileToArchive() for every file, then closeArchive(). Failures are logged and answered
 * as status codes: 0 success, -1 failure, -104 out of memory, or minizip's own code.
 */
class ZipFile
{
public:
    ZipFile() = default;
    ~ZipFile();
    ZipFile(const ZipFile &) = delete;
    ZipFile &operator=(const ZipFile &) = delete;

    /** @brief Starts a new archive at path, replacing any file there: 0, -1 or -104. */
    qint32 createArchive(const QString &path);
    /** @brief Adds the file at path, deflated, as the entry pathInArchive (UTF-8). */
    qint32 addFileToArchive(const QString &path, const QString &pathInArchive);
    /** @brief Finishes the archive if the last entry tried opened; else -1, left unfinished. */
    qint32 closeArchive();
    /** @brief Deletes the file at archivePath() and forgets the path; true when it was deleted. */
    bool removeZipArchive();
    /** @brief The archive being or last written; null after removeZipArchive(). */
    QString archivePath() const { return _archivePath; }

private:
    /** @brief Finishes and frees a writer that closeArchive() left open. */
    void releaseWriter();

    qint32 opt_compress_level = 0;
    qint32 currentStatus = 0;
    zipFile zf = nullptr;
    QString _archivePath;
    std::unique_ptr<char[]> buf;
    bool archiveOpen = false;
};
