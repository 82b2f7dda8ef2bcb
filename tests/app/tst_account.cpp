// The account sheet against a real kelvara-local, and what the account and user documents
// do to the header: branding, space left, names, and whether uploads may start.
#include "app/MainController.h"
#include "support/LocalService.h"
#include "support/LoopbackHttpServer.h"
#include "ui/QVGradient.h"
#include "ui/SubviewController.h"
#include "ui/ZRClickableURLTextField.h"

#include <QApplication>
#include <QCheckBox>
#include <QDialog>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QMainWindow>
#include <QMessageBox>
#include <QPushButton>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

namespace {

template <typename T> T *widget(const MainController &controller, const char *name)
{
    return controller.mainWindow()->findChild<T *>(QLatin1String(name));
}

const QByteArray brandedDocument =
    "<account><branding/><branding_info><title>Acme</title><logo>/art/l.png</logo>"
    "<background_image>/art/b.png</background_image><font_color>#FFCC00</font_color>"
    "<top_color>#102030</top_color><bottom_color>#405060</bottom_color></branding_info>"
    "<stats available_space=\"1610612736\"/></account>";

QByteArray spaceDocument(const char *space)
{
    return QByteArray("<account><stats available_space=\"") + space + "\"/></account>";
}

/** @brief The request lines a server got from the first'th connection on, sorted. */
QList<QByteArray> requestLines(const LoopbackHttpServer &server, qsizetype first = 0)
{
    QList<QByteArray> lines;
    for (const LoopbackHttpServer::Received &r : server.received().mid(first))
        lines << r.data.left(r.data.indexOf("\r\n"));
    std::sort(lines.begin(), lines.end());
    return lines;
}

} // namespace

class TestAccount : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup() { alertWatch.stop(); }
    void sheetVerifiesTheAccount_data();
    void sheetVerifiesTheAccount();
    void trailingSlashDoublesTheSlash();
    void accountDocument_data();
    void accountDocument();
    void userDocument_data();
    void userDocument();
    void colorFromHexRGB_data();
    void colorFromHexRGB();

private:
    /** @brief Launches against a service that refuses the credentials: the account is invalid. */
    void launchRefused(MainController &controller, LoopbackHttpServer &refusing);

    QTemporaryDir config, files;
    QTimer alertWatch; // answers every alert with its first button and notes its title
    QStringList alerts;
};

void TestAccount::initTestCase()
{
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, config.path());
    QCoreApplication::setOrganizationName(QStringLiteral("kelvara"));
    QCoreApplication::setApplicationName(QStringLiteral("Hoplift"));
    connect(&alertWatch, &QTimer::timeout, this, [this] {
        if (auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget())) {
            alerts << box->text();
            box->buttons().constFirst()->click();
        }
    });
}

void TestAccount::init()
{
    QSettings().clear();
    alerts.clear();
    alertWatch.start(10);
}

void TestAccount::launchRefused(MainController &controller, LoopbackHttpServer &refusing)
{
    refusing.setResponse("HTTP/1.1 401 Unauthorized\r\nContent-Length: 0\r\n\r\n");
    QVERIFY(refusing.listenOnLoopback());
    QSettings().setValue(QStringLiteral("Account URL"), refusing.baseUrl());
    controller.applicationDidFinishLaunching();
    QTRY_COMPARE(refusing.received().size(), 2); // the account and the user document
}

void TestAccount::sheetVerifiesTheAccount_data()
{
    QTest::addColumn<QString>("setup"); // plain, tls (on 443), redirect (plain to tls)
    QTest::addColumn<QString>("typed"); // %1: the plain service's port
    QTest::addColumn<QString>("password");
    QTest::addColumn<bool>("savePass");
    QTest::addColumn<QString>("stored"); // "Account URL" after OK; empty: the sheet stays
    QTest::addColumn<QString>("alert");
    const auto row = [](const char *tag, const char *setup, const char *typed, const char *password,
                        bool savePass, const char *stored, const char *alert) {
        QTest::newRow(tag) << QString::fromLatin1(setup) << QString::fromLatin1(typed)
                           << QString::fromLatin1(password) << savePass
                           << QString::fromLatin1(stored) << QString::fromLatin1(alert);
    };
    const char *local = "http://127.0.0.1:%1";
    row("bare host", "plain", "127.0.0.1:%1", "demo", true, local, "");
    row("http URL", "plain", local, "demo", false, local, "");
    row("https URL", "tls", "https://127.0.0.1", "demo", true, "https://127.0.0.1", "");
    row("redirect to https", "redirect", "127.0.0.1:%1", "demo", false, "https://127.0.0.1", "");
    row("wrong password", "plain", "127.0.0.1:%1", "wrong", true, "",
        "There was a problem verifying this account");
    for (const char *typed : {"", "https://", "http://:%1"})
        row(qPrintable(QStringLiteral("no host in \"%1\"").arg(QLatin1String(typed))), "plain",
            typed, "demo", true, "", "Can't connect to this Account URL");
}

void TestAccount::sheetVerifiesTheAccount()
{
    QFETCH(QString, setup);
    QFETCH(QString, typed);
    QFETCH(QString, password);
    QFETCH(bool, savePass);
    QFETCH(QString, stored);
    QFETCH(QString, alert);

    // Hoplift sends HTTPS to port 443 whatever port a URL names.
    LocalService secure;
    if (setup != QLatin1String("plain") &&
        !secure.start({QStringLiteral("--tls"), QStringLiteral("--port"), QStringLiteral("443")}))
        QSKIP("kelvara-local cannot listen on port 443 here");
    LocalService service;
    QString why;
    const QStringList redirect{QStringLiteral("--redirect-to"),
                               QStringLiteral("https://127.0.0.1:443")};
    QVERIFY2(service.start(setup == QLatin1String("redirect") ? redirect : QStringList(), &why),
             qPrintable(why));
    const QString port = QString::number(QUrl(service.baseUrl()).port());

    MainController controller;
    controller.applicationDidFinishLaunching(); // no account yet: the sheet opens
    auto *sheet = controller.mainWindow()->findChild<QDialog *>();
    QVERIFY(sheet && sheet->isVisible());
    sheet->findChild<QLineEdit *>(QStringLiteral("f_URL"))
        ->setText(typed.replace(QStringLiteral("%1"), port));
    sheet->findChild<QLineEdit *>(QStringLiteral("f_Username"))->setText(QStringLiteral("demo"));
    sheet->findChild<QLineEdit *>(QStringLiteral("f_Password"))->setText(password);
    sheet->findChild<QCheckBox *>(QStringLiteral("b_SavePass"))->setChecked(savePass);
    sheet->findChild<QPushButton *>(QStringLiteral("b_OK"))->click();

    QCOMPARE(alerts, alert.isEmpty() ? QStringList() : QStringList{alert});
    QCOMPARE(sheet->isVisible(), stored.isEmpty());
    QCOMPARE(QSettings().value(QStringLiteral("Account URL")).toString(),
             stored.replace(QStringLiteral("%1"), port));
    if (stored.isEmpty())
        return;
    // The demo account: its names, and its branding fetched from where it was verified.
    QTRY_COMPARE(widget<QLabel>(controller, "userNameInfo")->text(), QStringLiteral("Dana Demo"));
    QCOMPARE(controller.mainWindow()->windowTitle(), QStringLiteral("Demo > upload"));
    // The artwork of an account under check is asked for with the credentials held before
    // (only the account and user requests get the typed ones), so the service refuses it;
    // the next account answer, with the kept credentials, brings it.
    QVERIFY(widget<QLabel>(controller, "logoImage")->pixmap().isNull());
    QVERIFY(controller.refreshAccountInfo());
    QTRY_VERIFY(!widget<QLabel>(controller, "logoImage")->pixmap().isNull());
    QTRY_VERIFY(!widget<QLabel>(controller, "backgrImage")->pixmap().isNull());
    QCOMPARE(MainController().retrievePassword(), savePass ? password : QStringLiteral(""));
}

void TestAccount::trailingSlashDoublesTheSlash()
{
    LoopbackHttpServer server;
    server.setResponse("HTTP/1.1 200 OK\r\n\r\n" + spaceDocument("1024"));
    QVERIFY(server.listenOnLoopback());
    MainController controller;
    controller.applicationDidFinishLaunching();
    auto *sheet = controller.mainWindow()->findChild<QDialog *>();
    sheet->findChild<QLineEdit *>(QStringLiteral("f_URL"))->setText(server.baseUrl() + u'/');
    sheet->findChild<QPushButton *>(QStringLiteral("b_OK"))->click();
    QVERIFY(!sheet->isVisible());
    QCOMPARE(QSettings().value(QStringLiteral("Account URL")).toString(), server.baseUrl());
    QTRY_COMPARE(requestLines(server),
                 (QList<QByteArray>{"GET //api/account.xml HTTP/1.1", "GET //api/user HTTP/1.1"}));
}

void TestAccount::accountDocument_data()
{
    QTest::addColumn<QList<QByteArray>>("documents");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QList<QColor>>("colors"); // gradient top, bottom, header text
    QTest::addColumn<QList<QByteArray>>("fetched");
    QTest::addColumn<QString>("space"); // null: the line is left as it was
    QTest::addColumn<bool>("valid");
    QTest::addColumn<int>("alertCount");
    const QString plain = QStringLiteral("Hoplift!");
    const QString acme = QStringLiteral("Acme > upload");
    const QList<QColor> grey{QColor(0x333333), QColor(0x222222), QColor(Qt::white)};
    const QList<QColor> brand{QColor(0x102030), QColor(0x405060), QColor(0xFFCC00)};
    const QList<QByteArray> artwork{"GET /art/b.png HTTP/1.1", "GET /art/l.png HTTP/1.1"};
    const QList<QByteArray> none;
    QTest::newRow("branded") << QList<QByteArray>{brandedDocument} << acme << brand << artwork
                             << "1.50 GB available" << true << 0;
    QTest::newRow("unbranded") << QList<QByteArray>{spaceDocument("2147483648")} << plain << grey
                               << none << "2.00 GB available" << true << 0;
    QTest::newRow("branding_info without branding")
        << QList<QByteArray>{QByteArray(brandedDocument).replace("<branding/>", "")} << plain
        << grey << none << "1.50 GB available" << true << 0;
    QTest::newRow("space not a number keeps the old one")
        << QList<QByteArray>{spaceDocument("2147483648"), spaceDocument("abc")} << plain << grey
        << none << "2.00 GB available" << true << 0;
    // A negative space is kept as it is and reads as no limit; the line shows it wrapped.
    QTest::newRow("negative space") << QList<QByteArray>{spaceDocument("-5")} << plain << grey
                                    << none << "-1 TB available" << true << 0;
    QTest::newRow("no stats") << QList<QByteArray>{"<account/>"} << plain << grey << none
                              << QString() << false << 0;
    QTest::newRow("not XML changes nothing")
        << QList<QByteArray>{brandedDocument, "not <xml"} << acme << brand << artwork
        << "1.50 GB available" << true << 1;
}

void TestAccount::accountDocument()
{
    QFETCH(QList<QByteArray>, documents);
    QFETCH(QString, title);
    QFETCH(QList<QColor>, colors);
    QFETCH(QList<QByteArray>, fetched);
    QFETCH(QString, space);
    QFETCH(bool, valid);
    QFETCH(int, alertCount);

    LoopbackHttpServer refusing;
    MainController controller;
    launchRefused(controller, refusing);
    auto *spaceLine = widget<ZRClickableURLTextField>(controller, "textSpaceandPreference");
    const QString before = spaceLine->attributedStringValue();
    for (const QByteArray &document : documents)
        controller.processAccountInfo(document);

    QCOMPARE(alerts.size(), alertCount);
    QCOMPARE(controller.mainWindow()->windowTitle(), title);
    auto *gradient = widget<QVGradient>(controller, "backgrGradient");
    QCOMPARE(gradient->topColor(), colors[0]);
    QCOMPARE(gradient->bottomColor(), colors[1]);
    for (const char *name : {"textAccountInfo", "userNameInfo", "textSpaceandPreference"})
        QCOMPARE(widget<QLabel>(controller, name)->palette().color(QPalette::WindowText),
                 colors[2]);
    const QString line = spaceLine->attributedStringValue();
    if (space.isNull())
        QCOMPARE(line, before);
    else
        QVERIFY2(line.startsWith(space + QStringLiteral(" - ")) &&
                     line.contains(QStringLiteral("Preferences")),
                 qPrintable(line));
    // Branding artwork comes from the account's base; without branding the defaults show.
    QTRY_COMPARE(requestLines(refusing, 2), fetched);
    for (const auto &[label, image] : {std::pair{"logoImage", ":/images/default-logo.gif"},
                                       std::pair{"backgrImage", ":/images/default-background.gif"}})
        QCOMPARE(widget<QLabel>(controller, label)->pixmap().toImage(),
                 fetched.isEmpty() ? QPixmap(QLatin1String(image)).toImage() : QImage());

    // A valid account lets the queue start.
    QFile file(files.filePath(QStringLiteral("one.txt")));
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write("x") == 1);
    file.close();
    controller.addFiles({file.fileName()}, false);
    QCOMPARE(controller.queue().front()->isUploading(), valid);
}

void TestAccount::userDocument_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<QString>("shown");
    QTest::newRow("both names")
        << QByteArray("<user><first-name>Ann</first-name><last-name>Lee</last-name></user>")
        << QStringLiteral("Ann Lee");
    QTest::newRow("names in any case")
        << QByteArray("<User><Last-Name>Lee</Last-Name><FIRST-NAME>Ann</FIRST-NAME></User>")
        << QStringLiteral("Ann Lee");
    QTest::newRow("first name only")
        << QByteArray("<user><first-name>Ann</first-name></user>") << QStringLiteral("Ann (null)");
}

void TestAccount::userDocument()
{
    QFETCH(QByteArray, document);
    QFETCH(QString, shown);
    LoopbackHttpServer refusing;
    MainController controller;
    launchRefused(controller, refusing);
    controller.processUserInfo(document);
    QCOMPARE(widget<QLabel>(controller, "userNameInfo")->text(), shown);
    QVERIFY(widget<ZRClickableURLTextField>(controller, "textAccountInfo")
                ->attributedStringValue()
                .contains(QStringLiteral("127.0.0.1")));
}

void TestAccount::colorFromHexRGB_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QColor>("color");
    QTest::newRow("grey") << "333333" << QColor::fromRgbF(0.2f, 0.2f, 0.2f);
    QTest::newRow("orange") << "FF8000" << QColor::fromRgbF(1.0f, 128 / 255.0f, 0.0f);
    QTest::newRow("empty") << "" << QColor(Qt::black);
    QTest::newRow("not hex") << "zz" << QColor(Qt::black);
    QTest::newRow("0x prefix") << "0x00FF00" << QColor(Qt::green);
    QTest::newRow("past 32 bits") << "123456789" << QColor(Qt::white);
}

void TestAccount::colorFromHexRGB()
{
    QFETCH(QString, text);
    QFETCH(QColor, color);
    QCOMPARE(MainController::colorFromHexRGB(text), color);
}

QTEST_MAIN(TestAccount)
#include "tst_account.moc"
