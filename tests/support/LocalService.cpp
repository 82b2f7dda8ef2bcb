#include "LocalService.h"

#include <QDir>
#include <QElapsedTimer>
#include <QProcessEnvironment>

bool LocalService::start(const QStringList &options, QString *why)
{
    const QString program =
        QProcessEnvironment::systemEnvironment().value(QStringLiteral("KELVARA_LOCAL"));
    if (program.isEmpty()) {
        if (why)
            *why = QStringLiteral("KELVARA_LOCAL is not set");
        return false;
    }
    process.setProgram(program);
    process.setArguments(QStringList{QStringLiteral("--port"), QStringLiteral("0"),
                                     QStringLiteral("--data"), data.path()} +
                         options);
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start();
    QElapsedTimer clock;
    clock.start();
    QByteArray out;
    while (clock.elapsed() < 10000 && process.state() != QProcess::NotRunning) {
        process.waitForReadyRead(100);
        out += process.readAllStandardOutput();
        const qsizetype at = out.indexOf("listening on ");
        const qsizetype end = out.indexOf('\n', at);
        if (at >= 0 && end > at) {
            url = QString::fromUtf8(out.mid(at + 13, end - at - 13)).trimmed();
            return true;
        }
    }
    if (why)
        *why = QStringLiteral("kelvara-local did not start: ") + QString::fromUtf8(out);
    return false;
}

LocalService::~LocalService()
{
    if (process.state() != QProcess::NotRunning) {
        process.terminate();
        if (!process.waitForFinished(5000))
            process.kill();
    }
}

QString LocalService::accountFolder(const QString &user) const
{
    return QDir(data.path()).filePath(user);
}
