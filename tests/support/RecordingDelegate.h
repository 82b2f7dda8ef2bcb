#pragma once

#include "net/QVStreamer.h"

#include <QSet>
#include <QStringList>

/** @brief A streamer delegate that implements the chosen callbacks and records each call. */
class RecordingDelegate : public QVStreamerDelegate
{
public:
    explicit RecordingDelegate(
        QSet<QVStreamerCallback> implemented = {QVStreamerCallback::HandleRedirect,
                                                QVStreamerCallback::HandleError,
                                                QVStreamerCallback::ResponseComplete,
                                                QVStreamerCallback::NotifyRestart})
        : implemented(std::move(implemented))
    {}

    bool respondsToCallback(QVStreamerCallback c) const override { return implemented.contains(c); }

    void handleRedirect(QVStreamer *, const QString &url, qint32 code) override
    {
        calls << QStringLiteral("redirect %1 %2")
                     .arg(url.isNull() ? QStringLiteral("<none>") : url)
                     .arg(code);
        redirectURL = url;
    }
    void handleError(QVStreamer *, const QString &message, qint32 code) override
    {
        calls << QStringLiteral("error %1 %2").arg(message).arg(code);
    }
    void responseComplete(QVStreamer *, const QByteArray &b, quint32 code) override
    {
        calls << QStringLiteral("complete %1").arg(code);
        body = b;
        ++completions;
    }
    void notifyRestart(QVStreamer *, qint32 code) override
    {
        calls << QStringLiteral("restart %1").arg(code);
        ++restarts;
    }

    QSet<QVStreamerCallback> implemented;
    QStringList calls;
    QString redirectURL;
    QByteArray body;
    int completions = 0;
    int restarts = 0;
};
