#include "app/UpdateChecker.h"

#include "app/Log.h"
#include "app/Service.h"

#include <QCoreApplication>
#include <QDesktopServices>
#include <QDialog>
#include <QDialogButtonBox>
#include <QLabel>
#include <QNetworkReply>
#include <QVBoxLayout>
#include <QVersionNumber>
#include <QXmlStreamReader>

#include <optional>

namespace {

constexpr qint64 kMaxFeedBytes = 1 << 20;
constexpr int kTimeoutMs = 15000;

struct Release
{
    QVersionNumber version;
    QUrl link;
};

// Only web pages are opened from the feed, whatever else a hostile one names.
bool isWebUrl(const QUrl &url)
{
    return url.isValid() && !url.host().isEmpty() &&
           (url.scheme() == u"https" || url.scheme() == u"http");
}

QUrl downloadPage()
{
    return QUrl(QStringLiteral("https://%1/hoplift/").arg(Service::webHost()));
}

// The highest version the feed's items name, or an error.
std::optional<Release> newestRelease(const QByteArray &xml, QString *error)
{
    QXmlStreamReader reader(xml);
    std::optional<Release> newest;
    bool inItem = false;
    QString version;
    QUrl link;
    QUrl enclosure;
    if (reader.readNextStartElement() && reader.name() != u"rss")
        reader.raiseError(QStringLiteral("not an RSS feed"));
    while (!reader.atEnd() && !reader.hasError()) {
        reader.readNext();
        if (reader.isStartElement() && reader.name() == u"item") {
            inItem = true;
            version.clear();
            link.clear();
            enclosure.clear();
        } else if (reader.isStartElement() && inItem && reader.name() == u"link" &&
                   reader.namespaceUri().isEmpty()) { // not an Atom link beside it
            link = QUrl(reader.readElementText().trimmed());
        } else if (reader.isStartElement() && inItem && reader.name() == u"version") {
            version = reader.readElementText().trimmed();
        } else if (reader.isStartElement() && inItem && reader.name() == u"enclosure") {
            for (const QXmlStreamAttribute &attribute : reader.attributes()) {
                if (attribute.name() == u"version")
                    version = attribute.value().trimmed().toString();
                else if (attribute.name() == u"url")
                    enclosure = QUrl(attribute.value().trimmed().toString());
            }
        } else if (reader.isEndElement() && reader.name() == u"item") {
            inItem = false;
            qsizetype end = 0;
            const QVersionNumber number = QVersionNumber::fromString(version, &end);
            if (number.isNull() || end != version.size())
                continue;
            if (!newest || number > newest->version)
                newest = Release{number, isWebUrl(link)        ? link
                                         : isWebUrl(enclosure) ? enclosure
                                                               : downloadPage()};
        }
    }
    if (reader.hasError())
        *error = QStringLiteral("unreadable feed, line %1: %2")
                     .arg(reader.lineNumber())
                     .arg(reader.errorString());
    else if (!newest)
        *error = QStringLiteral("the feed names no version");
    return reader.hasError() ? std::nullopt : newest;
}

} // namespace

UpdateChecker::UpdateChecker(QObject *parent) : QObject(parent) {}

void UpdateChecker::checkForUpdatesInBackground()
{
    if (reply)
        return;
    QUrl url(qEnvironmentVariable("HOPLIFT_APPCAST_URL"));
    if (url.isEmpty())
        url = QUrl(QStringLiteral("https://%1/hoplift/appcast.xml").arg(Service::webHost()));
    QNetworkRequest request(url);
    request.setTransferTimeout(kTimeoutMs);
    oversized = false;
    reply = network.get(request);
    connect(reply, &QNetworkReply::readyRead, this, &UpdateChecker::onReadyRead);
    connect(reply, &QNetworkReply::finished, this, &UpdateChecker::onFinished);
}

void UpdateChecker::onReadyRead()
{
    // The reply keeps what arrives until the end: a feed is small, anything larger is refused.
    if (reply->bytesAvailable() > kMaxFeedBytes) {
        oversized = true;
        reply->abort();
    }
}

void UpdateChecker::onFinished()
{
    QNetworkReply *done = reply;
    reply = nullptr;
    done->deleteLater();
    const QByteArray where = done->url().toDisplayString().toUtf8();
    const int status = done->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    QString error;
    std::optional<Release> newest;
    if (oversized)
        error = QStringLiteral("the feed is larger than %1 bytes").arg(kMaxFeedBytes);
    else if (done->error() == QNetworkReply::OperationCanceledError) // only the time-out does
        error = QStringLiteral("no answer within %1 s").arg(kTimeoutMs / 1000);
    else if (done->error() != QNetworkReply::NoError)
        error = done->errorString();
    else if (status < 200 || status > 299)
        error = QStringLiteral("HTTP status %1").arg(status);
    else
        newest = newestRelease(done->readAll(), &error);

    if (!error.isEmpty()) {
        hlog("update check: %s: %s", where.constData(), qPrintable(error));
    } else {
        const QString current = QCoreApplication::applicationVersion();
        // Normalized, so that 0.2.1.0 is no update to 0.2.1.
        if (newest->version.normalized() > QVersionNumber::fromString(current).normalized()) {
            showNotice(newest->version.toString(), newest->link);
            emit updateAvailable(newest->version.toString(), newest->link);
        }
    }
    emit finished();
}

void UpdateChecker::showNotice(const QString &version, const QUrl &link)
{
    if (notice)
        notice->close();
    notice = new QDialog(qobject_cast<QWidget *>(parent()));
    notice->setAttribute(Qt::WA_DeleteOnClose);
    notice->setWindowTitle(QStringLiteral("Software Update"));
    auto *text = new QLabel(QStringLiteral("Hoplift %1 is available — you have %2.")
                                .arg(version, QCoreApplication::applicationVersion()),
                            notice);
    const QString address = link.toString(QUrl::FullyEncoded).toHtmlEscaped();
    auto *anchor = new QLabel(QStringLiteral("<a href=\"%1\">%1</a>").arg(address), notice);
    anchor->setTextFormat(Qt::RichText);
    anchor->setTextInteractionFlags(Qt::TextBrowserInteraction);
    connect(anchor, &QLabel::linkActivated, anchor, [link] { QDesktopServices::openUrl(link); });
    auto *buttons = new QDialogButtonBox(notice);
    buttons->addButton(QStringLiteral("Later"), QDialogButtonBox::RejectRole);
    connect(buttons, &QDialogButtonBox::rejected, notice, &QDialog::reject);
    auto *layout = new QVBoxLayout(notice);
    layout->addWidget(text);
    layout->addWidget(anchor);
    layout->addWidget(buttons);
    notice->show();
}
