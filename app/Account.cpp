// MainController: the account and user documents, the header that shows them, and the
// account's branding.
#include "app/MainController.h"

#include "app/Log.h"
#include "app/RunLoop.h"
#include "ui/QVGradient.h"
#include "ui/SubviewController.h"
#include "ui/ZRClickableURLTextField.h"

#include <QDomDocument>
#include <QFont>
#include <QImage>
#include <QLabel>
#include <QMainWindow>
#include <QMessageBox>
#include <QPalette>
#include <QPixmap>

namespace {

/** @brief Parses a response body; a body that is not XML is shown in an alert. */
std::optional<QDomDocument> parseDocument(const QByteArray &body, QWidget *window)
{
    QDomDocument document;
    QString message;
    int line = 0;
    int column = 0;
    if (document.setContent(body, &message, &line, &column))
        return document;
    hlog("XML error: %s at %d:%d", qPrintable(message), line, column);
    QMessageBox alert(QMessageBox::Warning, QStringLiteral("Hoplift!"),
                      QStringLiteral("The document could not be read."), QMessageBox::Ok, window);
    alert.setInformativeText(
        QStringLiteral("%1 (line %2, column %3)").arg(message).arg(line).arg(column));
    alert.exec();
    return std::nullopt;
}

/** @brief The text colour of a header field; an invalid colour gives back the default. */
void setTextColor(QLabel *label, const QColor &color)
{
    QPalette palette = label->parentWidget() ? label->parentWidget()->palette() : QPalette();
    if (color.isValid()) {
        palette.setColor(QPalette::WindowText, color);
        palette.setColor(QPalette::Link, color); // link runs keep the header's colour
    }
    label->setPalette(palette);
}

/** @brief How a missing name reads when it is formatted into the header. */
QString orNull(const QString &text)
{
    return text.isNull() ? QStringLiteral("(null)") : text;
}

} // namespace

bool MainController::refreshAccountInfo()
{
    updateAccountInfo(targetURL);
    for (int round = 0; round < 50; ++round) {
        if (accountInfo->isRequestFinished())
            break;
        runRunLoop(0.1);
    }
    return accountInfo->isRequestFinished();
}

void MainController::processAccountInfo(const QByteArray &body)
{
    const std::optional<QDomDocument> document = parseDocument(body, window);
    if (!document)
        return;
    const QDomElement root = document->documentElement();

    branding = !root.firstChildElement(QStringLiteral("branding")).isNull() &&
               !root.firstChildElement(QStringLiteral("branding_info")).isNull();
    if (branding) {
        logoPath.clear();
        backPath.clear();
        fontColor = QColor();
        const QDomElement info = root.firstChildElement(QStringLiteral("branding_info"));
        for (QDomElement child = info.firstChildElement(); !child.isNull();
             child = child.nextSiblingElement()) {
            const QString name = child.tagName();
            const QString value = child.text();
            const auto is = [&name](const char *key) {
                return name.compare(QLatin1String(key), Qt::CaseInsensitive) == 0;
            };
            if (is("title"))
                window->setWindowTitle(QStringLiteral("%1 > upload").arg(value));
            else if (is("logo"))
                logoPath = value;
            else if (is("background_image"))
                backPath = value;
            else if (is("font_color"))
                fontColor = colorFromHexRGB(value.mid(1));
            else if (is("top_color"))
                backgrGradient->setTopColor(colorFromHexRGB(value.mid(1)));
            else if (is("bottom_color"))
                backgrGradient->setBottomColor(colorFromHexRGB(value.mid(1)));
        }
        updateBranding(accountInfo->targetURL());
    } else {
        logoPath.clear();
        backPath.clear();
        backgrGradient->setTopColor(colorFromHexRGB(QStringLiteral("333333")));
        backgrGradient->setBottomColor(colorFromHexRGB(QStringLiteral("222222")));
        updateBranding(accountInfo->targetURL());
    }

    const QDomElement stats = root.firstChildElement(QStringLiteral("stats"));
    if (stats.isNull())
        return;
    bool ok = false;
    const qint64 space = stats.attribute(QStringLiteral("available_space")).toLongLong(&ok);
    if (ok) {
        account_spaceavailable = space;
        hlog("Space available: %lld", static_cast<long long>(account_spaceavailable));
    }
    const QString available =
        QStringLiteral("%1 available")
            .arg(SubviewController::initSizeString(static_cast<quint64>(account_spaceavailable)));
    textSpaceandPreference->setAttributedStringValue(QStringLiteral("%1 - %2").arg(
        available.toHtmlEscaped(), ZRClickableURLTextField::hyperlinkFromString(
                                       QStringLiteral("Preferences"), QString(), QUrl())));
    accountValid = true;
}

void MainController::processUserInfo(const QByteArray &body)
{
    const std::optional<QDomDocument> document = parseDocument(body, window);
    if (!document)
        return;
    const QDomElement root = document->documentElement();
    if (!root.hasChildNodes())
        return;

    account_firstname = QString();
    account_lastname = QString();
    for (QDomElement child = root.firstChildElement(); !child.isNull();
         child = child.nextSiblingElement()) {
        if (child.tagName().compare(QLatin1String("first-name"), Qt::CaseInsensitive) == 0)
            account_firstname = child.text();
        else if (child.tagName().compare(QLatin1String("last-name"), Qt::CaseInsensitive) == 0)
            account_lastname = child.text();
    }

    url = QUrl(accountInfo->targetURL());
    QFont font = textAccountInfo->font();
    font.setPointSize(16);
    textAccountInfo->setAttributedStringValue(
        ZRClickableURLTextField::hyperlinkFromString(url.host(), QString(), url, &font));
    userNameInfo->setText(
        QStringLiteral("%1 %2").arg(orNull(account_firstname), orNull(account_lastname)));
}

void MainController::updateBranding(const QString &base)
{
    if (branding) {
        if (!base.isNull()) {
            if (!logoPath.isNull())
                logoLoader->getFromURL(QStringLiteral("%1%2").arg(base, logoPath), true);
            if (!backPath.isNull())
                backLoader->getFromURL(QStringLiteral("%1%2").arg(base, backPath), true);
        }
        for (QLabel *label : {static_cast<QLabel *>(textSpaceandPreference),
                              static_cast<QLabel *>(textAccountInfo), userNameInfo})
            setTextColor(label, fontColor);
    } else {
        window->setWindowTitle(QStringLiteral("Hoplift!"));
        logoImage->setPixmap(QPixmap(QStringLiteral(":/images/default-logo.gif")));
        backgrImage->setPixmap(QPixmap(QStringLiteral(":/images/default-background.gif")));
        for (QLabel *label : {static_cast<QLabel *>(textSpaceandPreference),
                              static_cast<QLabel *>(textAccountInfo), userNameInfo})
            setTextColor(label, Qt::white);
    }
}

void MainController::processLogo(const QByteArray &data)
{
    logoImage->setPixmap(QPixmap::fromImage(QImage::fromData(data)));
}

void MainController::processBackgr(const QByteArray &data)
{
    backgrImage->setPixmap(QPixmap::fromImage(QImage::fromData(data)));
    for (QLabel *label : {static_cast<QLabel *>(textSpaceandPreference),
                          static_cast<QLabel *>(textAccountInfo), userNameInfo})
        setTextColor(label, fontColor);
}

QColor MainController::colorFromHexRGB(const QString &text)
{
    // Scanner rules: leading blanks, an optional "0x", then hexadecimal digits up to the
    // first other character. A value past 32 bits reads as all ones; only the low 24 bits
    // are colour.
    const auto hexDigit = [&text](qsizetype i) {
        if (i >= text.size())
            return -1;
        const char16_t c = text.at(i).unicode();
        if (c >= u'0' && c <= u'9')
            return int(c - u'0');
        if (c >= u'a' && c <= u'f')
            return int(c - u'a' + 10);
        if (c >= u'A' && c <= u'F')
            return int(c - u'A' + 10);
        return -1;
    };
    quint64 value = 0;
    qsizetype i = 0;
    while (i < text.size() && text.at(i).isSpace())
        ++i;
    if (text.mid(i, 2).compare(QLatin1String("0x"), Qt::CaseInsensitive) == 0 &&
        hexDigit(i + 2) >= 0)
        i += 2;
    for (int digit = hexDigit(i); digit >= 0; digit = hexDigit(++i))
        value = std::min<quint64>((value << 4) | quint64(digit), 0x1'0000'0000ULL);
    const quint32 rgb = value > 0xffffffffULL ? 0xffffffffU : quint32(value);
    const float red = float((rgb >> 16) & 0xff) / 255.0f;
    const float green = float((rgb >> 8) & 0xff) / 255.0f;
    const float blue = float(rgb & 0xff) / 255.0f;
    return QColor::fromRgbF(red, green, blue, 1.0f);
}
