// The start-up sequence of MainController in this process: the settings it reads,
// the requests it sends, the bounded wait for the account, and the window's close button.
#include "app/MainController.h"
#include "support/LoopbackHttpServer.h"

#include <QElapsedTimer>
#include <QLabel>
#include <QMainWindow>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

class TestLaunch : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();
    void firstStartSendsNothingAndWaitsForNothing();
    void silentServerIsWaitedForAboutSixSeconds();
    void closeButtonMinimisesInsteadOfClosing();

private:
    QTemporaryDir config;
};

void TestLaunch::initTestCase()
{
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, config.path());
    QCoreApplication::setOrganizationName(QStringLiteral("kelvara"));
    QCoreApplication::setApplicationName(QStringLiteral("Hoplift"));
}

void TestLaunch::init()
{
    QSettings().clear();
}

void TestLaunch::firstStartSendsNothingAndWaitsForNothing()
{
    MainController controller;
    QElapsedTimer clock;
    clock.start();
    controller.applicationDidFinishLaunching();
    QVERIFY2(clock.elapsed() < 1000, "launch waited although there is no account");
    QVERIFY(
        !controller.mainWindow()->findChild<QLabel *>(QStringLiteral("textaddFiles"))->isVisible());
}

void TestLaunch::silentServerIsWaitedForAboutSixSeconds()
{
    LoopbackHttpServer server;
    QVERIFY(server.listenOnLoopback());
    server.setResponseDelay(60000); // takes the request, never answers in time
    QSettings().setValue(QStringLiteral("Account URL"), server.baseUrl());
    QSettings().setValue(QStringLiteral("Username"), QStringLiteral("dana"));

    MainController controller;
    controller.mainWindow()->show();
    auto *info = controller.mainWindow()->findChild<QLabel *>(QStringLiteral("textaddFiles"));
    QString shownDuringWait;
    // The window keeps processing events during the wait, so this timer fires inside it.
    QTimer::singleShot(1000, this,
                       [&] { shownDuringWait = info->isVisible() ? info->text() : QString(); });

    QElapsedTimer clock;
    clock.start();
    controller.applicationDidFinishLaunching();
    const qint64 waited = clock.elapsed();
    QVERIFY2(waited >= 5800 && waited < 9000, qPrintable(QString::number(waited)));
    QCOMPARE(shownDuringWait, QStringLiteral("Connecting to kelvara account..."));
    QVERIFY(!info->isVisible());

    QStringList requestLines;
    for (const LoopbackHttpServer::Received &r : server.received())
        requestLines << QString::fromUtf8(r.data.left(r.data.indexOf("\r\n")));
    requestLines.sort();
    QCOMPARE(requestLines, QStringList({QStringLiteral("GET /api/account.xml HTTP/1.1"),
                                        QStringLiteral("GET /api/user HTTP/1.1")}));
}

void TestLaunch::closeButtonMinimisesInsteadOfClosing()
{
    MainController controller;
    controller.applicationDidFinishLaunching();
    QMainWindow *window = controller.mainWindow();
    window->show();
    QVERIFY(QTest::qWaitForWindowExposed(window));
    QVERIFY(!window->close());
    QVERIFY(window->isVisible());
    QTRY_VERIFY(window->isMinimized());
}

QTEST_MAIN(TestLaunch)
#include "tst_launch.moc"
