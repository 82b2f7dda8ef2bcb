// The update check against a loopback feed: a notice only for a newer version, the
// highest item wins, and every failure is one log line and nothing on screen.
#include "app/UpdateChecker.h"
#include "support/LogCapture.h"
#include "support/LoopbackHttpServer.h"

#include <QtTest>
#include <QtWidgets>

using namespace Qt::StringLiterals;

namespace {

/** @brief An answer carrying an RSS feed of these items, ended by closing the connection. */
QByteArray feed(const QByteArray &items, const QByteArray &status = "200 OK")
{
    return "HTTP/1.1 " + status + "\r\n\r\n<rss version=\"2.0\"><channel>" + items +
           "</channel></rss>";
}

QByteArray item(const QByteArray &version, const QByteArray &link = "https://k.test/a")
{
    return "<item><link>" + link + "</link><enclosure url=\"https://k.test/e\" version=\"" +
           version + "\"/></item>";
}

} // namespace

class TestUpdateChecker : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { QCoreApplication::setApplicationVersion(u"0.2.1"_s); }

    void noticeOnlyForANewerVersionFailuresOnlyLogged_data()
    {
        QTest::addColumn<QByteArray>("response"); // empty: nobody listens
        QTest::addColumn<QByteArray>("logged");   // what the one log line tells; empty: no line
        QTest::addColumn<QString>("version");     // of the notice; empty: none
        QTest::addColumn<QUrl>("link");
        const auto row = [](const char *name, const QByteArray &logged, const QByteArray &response,
                            const char *version = "", const char *link = "https://k.test/a") {
            QTest::newRow(name) << response << logged << QString::fromLatin1(version)
                                << QUrl(QString::fromLatin1(link));
        };
        row("newer", {}, feed(item("0.3.0")), "0.3.0");
        row("numeric", {}, feed(item("0.2.10")), "0.2.10");
        row("same", {}, feed(item("0.2.1")));
        row("same, longer", {}, feed(item("0.2.1.0")));
        row("older", {}, feed(item("0.1.9")));
        row("highest wins", {},
            feed(item("0.3.0") + item("0.10.0", "http://k.test/b") + item("0.9") +
                 item("9.0-beta")),
            "0.10.0", "http://k.test/b");
        row("version element", {},
            feed("<item><version>0.4</version><link>https://k.test/a</link></item>"), "0.4");
        row("no web link", {}, feed(item("0.3.0", "file:///etc/passwd")), "0.3.0",
            "https://k.test/e");
        row("malformed", "tag mismatch", feed(item("0.3.0") + "<item>"));
        row("not rss", "not an RSS feed", feed(item("1.0")).replace("<rss", "<html"));
        row("no version", "names no version", feed(item("")));
        row("not found", "Not Found", feed(item("0.3.0"), "404 Not Found"));
        row("refused", "Connection refused", {});
        row("huge", "larger than 1048576 bytes", feed(item("0.3.0") + QByteArray(2 << 20, ' ')));
    }

    void noticeOnlyForANewerVersionFailuresOnlyLogged()
    {
        QFETCH(QByteArray, response);
        QFETCH(QByteArray, logged);
        QFETCH(QString, version);
        QFETCH(QUrl, link);
        LoopbackHttpServer server;
        QVERIFY(server.listenOnLoopback());
        server.setResponse(response);
        qputenv("HOPLIFT_APPCAST_URL", (server.baseUrl() + u"/appcast.xml"_s).toUtf8());
        if (response.isEmpty())
            server.close();
        LogCapture log;
        QWidget window;
        UpdateChecker checker(&window);
        QSignalSpy finished(&checker, &UpdateChecker::finished);
        QSignalSpy available(&checker, &UpdateChecker::updateAvailable);
        checker.checkForUpdatesInBackground();
        QTRY_COMPARE(finished.size(), 1);
        QCOMPARE(log.lines().size(), logged.isEmpty() ? 0 : 1);
        QVERIFY2(log.lines().value(0).contains(logged), log.lines().value(0).constData());
        auto *notice = window.findChild<QDialog *>();
        QCOMPARE(QList<QVariantList>(available),
                 QList<QVariantList>(version.isEmpty() ? 0 : 1, {version, link}));
        QCOMPARE(notice != nullptr, !version.isEmpty());
        if (!notice)
            return;
        // A notice beside the window, not in its way, that the user can put off.
        QVERIFY(notice->isVisible() && notice->windowModality() == Qt::NonModal);
        QStringList texts{notice->windowTitle()};
        for (QLabel *label : notice->findChildren<QLabel *>())
            texts << label->text();
        auto *later = notice->findChild<QPushButton *>();
        QCOMPARE((texts << later->text()).join(u'|'),
                 u"Software Update|Hoplift %1 is available — you have 0.2.1.|"
                 "<a href=\"%2\">%2</a>|Later"_s.arg(version, link.toString()));
        later->click();
        QVERIFY(!notice->isVisible());
    }
};

QTEST_MAIN(TestUpdateChecker)
#include "tst_updatechecker.moc"
