// The update check against a loopback feed: a notice only for a newer version, the
// highest item wins, and every failure is one log line and nothing on screen.
#include "app/UpdateChecker.h"
#include "support/LogCapture.h"
#include "support/LoopbackHttpServer.h"

#include <QApplication>
#include <QDialog>
#include <QLabel>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>

namespace {

QByteArray http(const QByteArray &body, const QByteArray &status = "200 OK")
{
    return "HTTP/1.1 " + status + "\r\nContent-Type: application/rss+xml\r\nContent-Length: " +
           QByteArray::number(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

QByteArray rss(const QByteArray &items)
{
    return "<?xml version=\"1.0\"?>\n<rss version=\"2.0\"><channel><title>Hoplift</title>" + items +
           "</channel></rss>";
}

QByteArray feed(const QByteArray &items)
{
    return http(rss(items));
}

QByteArray item(const QByteArray &version, const QByteArray &link = "https://k.test/a")
{
    return "<item><title>Hoplift " + version + "</title><link>" + link +
           "</link><enclosure url=\"https://k.test/hoplift.tar.xz\" version=\"" + version +
           "\" length=\"1\" type=\"application/x-xz\"/></item>";
}

} // namespace

class TestUpdateChecker : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { QCoreApplication::setApplicationVersion(QStringLiteral("0.2.1")); }
    void check_data();
    void check();
};

void TestUpdateChecker::check_data()
{
    QTest::addColumn<QByteArray>("response"); // empty: nobody listens
    QTest::addColumn<bool>("logged");
    QTest::addColumn<QString>("version"); // of the notice; empty: none
    QTest::addColumn<QUrl>("link");
    const auto row = [](const char *name, bool logged, const QByteArray &response,
                        const char *version = "", const char *link = "https://k.test/a") {
        QTest::newRow(name) << response << logged << QString::fromLatin1(version)
                            << QUrl(QString::fromLatin1(link));
    };
    row("newer", false, feed(item("0.3.0")), "0.3.0");
    row("numeric", false, feed(item("0.2.10")), "0.2.10");
    row("same", false, feed(item("0.2.1")));
    row("same, longer", false, feed(item("0.2.1.0")));
    row("older", false, feed(item("0.1.9")));
    row("highest wins", false,
        feed(item("0.3.0") + item("0.10.0", "http://k.test/b") + item("0.9") + item("9.0-beta")),
        "0.10.0", "http://k.test/b");
    row("version element", false,
        feed("<item><version>0.4</version><link>https://k.test/a</link></item>"), "0.4");
    row("no web link", false, feed(item("0.3.0", "file:///etc/passwd")), "0.3.0",
        "https://k.test/hoplift.tar.xz");
    row("malformed", true, http(rss(item("0.3.0")).chopped(8)));
    row("not rss", true, http("<html><item><version>1.0</version></item></html>"));
    row("empty feed", true, feed({}));
    row("no version", true, feed(item("")));
    row("not found", true, http(rss(item("0.3.0")), "404 Not Found"));
    row("refused", true, {});
    row("huge", true, feed(item("0.3.0") + QByteArray(2 << 20, ' ')));
}

void TestUpdateChecker::check()
{
    QFETCH(QByteArray, response);
    QFETCH(bool, logged);
    QFETCH(QString, version);
    QFETCH(QUrl, link);
    LoopbackHttpServer server;
    QVERIFY(server.listenOnLoopback());
    server.setResponse(response);
    qputenv("HOPLIFT_APPCAST_URL", (server.baseUrl() + QStringLiteral("/appcast.xml")).toUtf8());
    if (response.isEmpty())
        server.close();
    LogCapture log;
    QWidget window;
    UpdateChecker checker(&window);
    QSignalSpy finished(&checker, &UpdateChecker::finished);
    QSignalSpy available(&checker, &UpdateChecker::updateAvailable);
    checker.checkForUpdatesInBackground();
    QTRY_COMPARE(finished.size(), 1);
    QCOMPARE(log.lines().size(), logged ? 1 : 0);
    QCOMPARE(available.size(), version.isEmpty() ? 0 : 1);

    QDialog *notice = nullptr;
    for (QWidget *w : QApplication::topLevelWidgets()) {
        if (w->isVisible() && w->windowTitle() == u"Software Update")
            notice = qobject_cast<QDialog *>(w);
    }
    QCOMPARE(notice != nullptr, !version.isEmpty());
    if (!notice)
        return;
    QCOMPARE(available.first(), QVariantList({version, link}));
    QVERIFY(!notice->isModal() && notice->windowModality() == Qt::NonModal);
    QStringList texts;
    for (QLabel *label : notice->findChildren<QLabel *>())
        texts << label->text();
    QVERIFY(
        texts.contains(QStringLiteral("Hoplift %1 is available — you have 0.2.1.").arg(version)));
    QVERIFY(texts.filter(QStringLiteral("href=\"%1\"").arg(link.toString())).size() == 1);
    for (QPushButton *button : notice->findChildren<QPushButton *>()) {
        if (button->text() == u"Later")
            button->click();
    }
    QVERIFY(!notice->isVisible());
}

QTEST_MAIN(TestUpdateChecker)
#include "tst_updatechecker.moc"
