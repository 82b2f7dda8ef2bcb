#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>

/** @brief A size field of /proc/self/status in KiB ("VmRSS:", "VmHWM:"); -1 when unread. */
inline qint64 statusKiB(const char *field)
{
    QFile f(QStringLiteral("/proc/self/status"));
    if (!f.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : f.readAll().split('\n')) {
        if (line.startsWith(field))
            return line.mid(qstrlen(field)).trimmed().split(' ').first().toLongLong();
    }
    return -1;
}
