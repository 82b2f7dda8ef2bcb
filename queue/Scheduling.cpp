// MainController: choosing the next row, starting its upload, feeding its progress,
// and every answer of the five streamers.
#include "app/MainController.h"

#include "app/Log.h"
#include "app/RunLoop.h"
#include "queue/ZipFile.h"
#include "ui/SubviewController.h"
#include "ui/ZRClickableURLTextField.h"

#include <QDir>
#include <QFileInfo>
#include <QLabel>
#include <QTimer>

void MainController::startNextUpload()
{
    if (!accountValid)
        return;
    qsizetype position = rowOf(currentUpload);
    bool newlyChosen = false;
    QString uploadName;

    if (!currentUpload || !currentUpload->isUploading()) {
        currentUpload = nullptr;
        for (const auto &row : subviewControllers) {
            if (row->uploadState() != 0)
                continue;
            currentUpload = row.get();
            hlog("starting: %s", qUtf8Printable(row->fileWithPath()));
            if (!row->checkFile()) {
                row->errorOccurred(-1, QStringLiteral("file not found"));
                currentUpload = nullptr;
                continue;
            }
            zipper->removeZipArchive();
            if (row->isBundle()) {
                activateInfoText(QStringLiteral("Creating temporary archive..."));
                const QString name = QFileInfo(row->fileWithPath()).fileName();
                uploadName = QStringLiteral("%1.zip").arg(name);
                const QString archive = newTmpFilePath();
                if (archive.isNull()) {
                    // Every temporary name is taken: there is nothing to upload from.
                    deactivateInfoText();
                    row->errorOccurred(-1, QStringLiteral("no room for a temporary archive"));
                    currentUpload = nullptr;
                    continue;
                }
                zipper->createArchive(archive);
                addFilesToZip(row->fileWithPath(), name);
                zipper->closeArchive();
                deactivateInfoText();
                row->setBundleFile(zipper->archivePath());
            }
            const quint64 size = row->uploadSize();
            hlog("uploadsize: %lld %lld", qint64(size), qint64(account_spaceavailable));
            // A negative space left compares as a huge unsigned number: unlimited.
            if (size > quint64(account_spaceavailable)) {
                refreshAccountInfo();
                if (row->uploadSize() > quint64(account_spaceavailable)) {
                    row->errorOccurred(-1, QStringLiteral("file exceeds your kelvara storage"));
                    currentUpload = nullptr;
                    continue;
                }
            }
            newlyChosen = true;
            break;
        }
    }

    if (currentUpload) {
        if (!timer) {
            timer = new QTimer(this);
            connect(timer, &QTimer::timeout, this, &MainController::progressTimer);
            timer->start(200);
        }
        if (newlyChosen) {
            const QString target = QStringLiteral("%1%2").arg(targetURL, uploadPath);
            if (currentUpload->isBundle())
                uploader->uploadFile(currentUpload->bundleFile(), uploadName, target, false);
            else
                uploader->uploadFile(currentUpload->fileWithPath(), target, false);
            currentUpload->startUpload();
        }
    } else if (timer) {
        timer->stop();
        timer->deleteLater();
        timer = nullptr;
    }

    if (position < 0 && currentUpload)
        position = rowOf(currentUpload);
    if (position >= 0)
        notifyRowHeight(int(position));
    validateButtons();
}

QString MainController::newTmpFilePath()
{
    const QString temp = QDir::tempPath();
    if (temp.isEmpty())
        return QString();
    for (int n = 0; n <= 9999; ++n) {
        const QString path =
            QDir::cleanPath(temp + QLatin1Char('/') +
                            QStringLiteral("%1_%2.zip").arg(QStringLiteral("Hoplift!")).arg(n));
        if (!QFileInfo::exists(path)) {
            hlog("temp: %s", qUtf8Printable(path));
            return path;
        }
    }
    return QString();
}

void MainController::progressTimer()
{
    if (currentUpload && currentUpload->isUploading()) {
        const double percent = uploader->progressValue() * 100.0;
        currentUpload->doProgress(percent);
        if (percent >= 100.0)
            currentUpload->registering();
    }
    ++timer_counter;
}

bool MainController::respondsToCallback(QVStreamerCallback) const
{
    return true;
}

void MainController::handleError(QVStreamer *streamer, const QString &message, qint32 code)
{
    hlog("error");
    if (streamer == accountInfo) {
        textAccountInfo->setAttributedStringValue(QStringLiteral("Hoplift! - not connected..."));
        userNameInfo->setText(QString());
        // The word "Error:" stands twice on purpose: the line is built in two steps.
        const QString first = QStringLiteral("Error:%1 (%2)").arg(message).arg(code);
        textSpaceandPreference->setAttributedStringValue(
            QStringLiteral("Error:%1 - %2")
                .arg(first.toHtmlEscaped(), QStringLiteral("<u>Preferences</u>")));
    } else if (streamer == uploader) {
        if (currentUpload) {
            currentUpload->errorOccurred(-1, QStringLiteral("Error during upload..."));
            notifyRowHeight(rowOf(currentUpload));
        }
        updateAccountInfo(targetURL);
        startNextUpload();
    }
}

void MainController::responseComplete(QVStreamer *streamer, const QByteArray &body, quint32 code)
{
    hlog("complete");
    if (code < 200 || code > 299) {
        const QString text = QString::fromUtf8(body);
        hlog("Response-Code (%d):\n%s", int(code), qUtf8Printable(text));
        handleError(streamer, text, qint32(code));
        return;
    }
    if (streamer == uploader) {
        SubviewController *finished = currentUpload;
        if (!finished)
            return;
        finished->completed();
        notifyRowHeight(rowOf(finished));
        updateAccountInfo(targetURL);
        saveUploadFiles();
        if (quint64(account_spaceavailable) < 2 * finished->uploadSize()) {
            accountValid = false;
            for (int round = 0; round < 30; ++round) {
                if (accountInfo->isRequestFinished())
                    break;
                runRunLoop(0.1);
            }
        }
        startNextUpload();
    } else if (streamer == accountInfo) {
        processAccountInfo(body);
    } else if (streamer == userInfo) {
        processUserInfo(body);
    } else if (streamer == logoLoader) {
        processLogo(body);
    } else if (streamer == backLoader) {
        processBackgr(body);
    }
}

void MainController::notifyRestart(QVStreamer *streamer, qint32)
{
    hlog("restarted...");
    if (streamer == uploader && currentUpload)
        currentUpload->startUpload();
}

void MainController::handleRedirect(QVStreamer *streamer, const QString &newURL, qint32)
{
    hlog("redirect: %s", qUtf8Printable(newURL));
    if (!inPreferences)
        targetURL = newURL;
    if (streamer->setTargetURL(newURL, newURL.startsWith(QLatin1String("https:"))))
        streamer->startStreaming();
    else
        streamer->handleError(QStringLiteral("Redirect failed"), -1);
}

void MainController::addFilesToZip(const QString &path, const QString &relativePath)
{
    addFolderToArchive(*zipper, path, relativePath);
}
