#pragma once
// What the end-to-end queue tests share: files with known contents and a controller
// launched against the demo account.

#include "app/MainController.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QString>

/** @brief A file of size bytes at folder/name (sub-folders made), in a pattern of its name. */
inline QString makePatternFile(const QString &folder, const QString &name, qint64 size)
{
    const QString path = QDir(folder).filePath(name);
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        qFatal("cannot write %s", qPrintable(path));
    QByteArray block(65536, Qt::Uninitialized);
    for (qsizetype i = 0; i < block.size(); ++i)
        block[i] = char(name.size() + i * 7);
    for (qint64 left = size; left > 0; left -= block.size())
        file.write(block.constData(), qMin<qint64>(left, block.size()));
    return path;
}

/** @brief Launches the controller against the demo account at baseUrl, password stored. */
inline bool launchDemoAccount(MainController &controller, const QString &baseUrl)
{
    QSettings().setValue(QStringLiteral("Account URL"), baseUrl);
    QSettings().setValue(QStringLiteral("Username"), QStringLiteral("demo"));
    if (!controller.savePassword(QStringLiteral("demo")))
        return false;
    controller.applicationDidFinishLaunching();
    return true;
}
