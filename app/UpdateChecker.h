#pragma once

#include <QNetworkAccessManager>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>

class QDialog;
class QNetworkReply;

/**
 * @brief Looks for a newer Hoplift in kelvara's update feed (an RSS 2.0 appcast at
 * https://www.kelvara.com/hoplift/appcast.xml; the environment variable
 * HOPLIFT_APPCAST_URL points it elsewhere, e.g. at a local server) and tells the user
 * about one in a non-modal notice. Failures are logged, never shown.
 */
class UpdateChecker : public QObject
{
    Q_OBJECT
public:
    /** @brief A checker; a widget parent also becomes the parent of its notice. */
    explicit UpdateChecker(QObject *parent = nullptr);

    /** @brief Fetches the feed without blocking; does nothing while a check is under way. */
    void checkForUpdatesInBackground();

Q_SIGNALS:
    /** @brief The feed names version, newer than this one, to be had at link. */
    void updateAvailable(const QString &version, const QUrl &link);
    /** @brief A check is over, whatever its outcome. */
    void finished();

private:
    void onReadyRead();
    void onFinished();
    void showNotice(const QString &version, const QUrl &link);

    QNetworkAccessManager network;
    QPointer<QNetworkReply> reply;
    bool oversized = false;
    QPointer<QDialog> notice;
};
