#pragma once
// Folder walks of the queue: entries in the order the file system gives them,
// hidden names left out, links followed, and a guard against link cycles.

#include <QFile>
#include <QString>

#include <dirent.h>
#include <set>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace FolderWalk {

struct Entry
{
    QString name;
    QString path;
    bool isDirectory = false;
    quint64 size = 0;
};

// Folders being walked right now, by device and inode: a link back to one of them
// would otherwise walk forever.
inline std::set<std::pair<dev_t, ino_t>> foldersOnWalk;

class WalkGuard
{
public:
    explicit WalkGuard(const QString &path)
    {
        struct stat st;
        if (::stat(QFile::encodeName(path).constData(), &st) != 0)
            return;
        key = {st.st_dev, st.st_ino};
        entered = foldersOnWalk.insert(key).second;
    }
    ~WalkGuard()
    {
        if (entered)
            foldersOnWalk.erase(key);
    }
    bool entered = false;

private:
    std::pair<dev_t, ino_t> key{};
};

// The folder's entries in the order the file system gives them, without names that
// begin with "."; links are followed for the type and size.
inline std::vector<Entry> listFolder(const QString &path)
{
    std::vector<Entry> entries;
    DIR *dir = ::opendir(QFile::encodeName(path).constData());
    if (!dir)
        return entries;
    while (const dirent *d = ::readdir(dir)) {
        if (d->d_name[0] == '.')
            continue;
        Entry e;
        e.name = QFile::decodeName(d->d_name);
        e.path = path + QLatin1Char('/') + e.name;
        struct stat st;
        if (::fstatat(::dirfd(dir), d->d_name, &st, 0) == 0) {
            e.isDirectory = S_ISDIR(st.st_mode);
            e.size = e.isDirectory ? 0 : quint64(st.st_size);
        }
        entries.push_back(std::move(e));
    }
    ::closedir(dir);
    return entries;
}

} // namespace FolderWalk
