#include "ui/FileRef.h"

#include <QFileInfo>
#include <QSaveFile>

bool getFSRef(const QString &path, QFileInfo *ref, bool createFileIfNecessary)
{
    if (!QFileInfo::exists(path)) {
        if (!createFileIfNecessary)
            return false;
        // Written whole or not at all, so nobody ever sees a half-made file.
        QSaveFile file(path);
        if (!file.open(QIODevice::WriteOnly) || !file.commit())
            return false;
    }
    QFileInfo info(path);
    if (ref)
        *ref = info;
    return info.isFile();
}
