// Notifications and taskbar progress, with a real local kelvara service and dbusmock's
// notification daemon on the test's session bus. Other Hoplifts under test may share that
// bus: only notices with this process's sender-pid and signals from its connection count.
#include "app/MainController.h"
#include "support/LocalService.h"
#include "support/LogCapture.h"
#include "ui/SubviewController.h"
#include "ui/iTableView.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QElapsedTimer>
#include <QFile>
#include <QMainWindow>
#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

namespace {

const QString daemonName = QStringLiteral("org.freedesktop.Notifications");
const QString daemonPath = QStringLiteral("/org/freedesktop/Notifications");
const QString mockInterface = QStringLiteral("org.freedesktop.DBus.Mock");

struct Notice
{
    uint id;           // what the daemon answered
    uint replaces;     // replaces_id of the call
    QString text;      // "summary\nbody"
    QStringList fixed; // app name, icon, first action, desktop entry
};

QDBusMessage callMock(const QString &method, const QVariantList &args)
{
    QDBusMessage call =
        QDBusMessage::createMethodCall(daemonName, daemonPath, mockInterface, method);
    call.setArguments(args);
    return QDBusConnection::sessionBus().call(call);
}

/** @brief This process's Notify calls, in the daemon's order, with the ids it gave them. */
QList<Notice> notices()
{
    const QDBusMessage reply =
        callMock(QStringLiteral("GetMethodCalls"), {QStringLiteral("Notify")});
    const QDBusArgument log = reply.arguments().value(0).value<QDBusArgument>();
    QList<Notice> ours;
    uint issued = 0; // the daemon numbers new notifications 1, 2, ...
    log.beginArray();
    while (!log.atEnd()) {
        quint64 time = 0;
        QVariantList a;
        log.beginStructure();
        log >> time >> a;
        log.endStructure();
        const QVariantMap hints = qdbus_cast<QVariantMap>(a.value(6));
        const uint replaces = a.value(1).toUInt();
        const uint id = replaces ? replaces : ++issued;
        if (hints.value(QStringLiteral("sender-pid")).toLongLong() !=
            QCoreApplication::applicationPid())
            continue;
        ours << Notice{id,
                       replaces,
                       a.value(3).toString() + u'\n' + a.value(4).toString(),
                       {a.value(0).toString(), a.value(2).toString(),
                        qdbus_cast<QStringList>(a.value(5)).value(0),
                        hints.value(QStringLiteral("desktop-entry")).toString()}};
    }
    log.endArray();
    return ours;
}

QStringList textsOf(const QList<Notice> &list)
{
    QStringList texts;
    for (const Notice &n : list)
        texts << n.text;
    return texts;
}

bool waitForQueue(const MainController &controller, int ms)
{
    return QTest::qWaitFor(
        [&controller] {
            return std::all_of(controller.queue().begin(), controller.queue().end(),
                               [](const auto &row) { return row->uploadState() >= 3; });
        },
        ms);
}

} // namespace

/** @brief Collects the taskbar updates this process sends. */
class LauncherSpy : public QObject
{
    Q_OBJECT
public:
    struct Update
    {
        qint64 at;
        QString app;
        QVariantMap properties;
    };
    QList<Update> updates;

    LauncherSpy()
    {
        clock.start();
        QDBusConnection::sessionBus().connect(
            QString(), QString(), QStringLiteral("com.canonical.Unity.LauncherEntry"),
            QStringLiteral("Update"), this, SLOT(received(QDBusMessage)));
    }

public Q_SLOTS:
    void received(const QDBusMessage &message)
    {
        if (message.service() == QDBusConnection::sessionBus().baseService())
            updates << Update{clock.elapsed(), message.arguments().value(0).toString(),
                              qdbus_cast<QVariantMap>(message.arguments().value(1))};
    }

private:
    QElapsedTimer clock;
};

class TestNotifier : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();
    void noticesWhileOutOfSight_data();
    void noticesWhileOutOfSight();
    void laterNoticesReplaceEarlierOnes();
    void clickingANoticeShowsItsRow_data();
    void clickingANoticeShowsItsRow();
    void taskbarFollowsTheBatch();
    void withoutANotificationServiceNothingBreaks();

private:
    /** @brief count files "fileN.bin" of size bytes; the one at missing is never made. */
    QStringList makeFiles(int count, int missing = -1, int size = 1000);
    /** @brief A service with these options and a controller on its demo account, its window
     * out of sight; false when either could not be had. */
    bool launch(const QStringList &options = {});

    QTemporaryDir config;
    QProcess daemon;
    std::unique_ptr<QTemporaryDir> files;
    std::unique_ptr<LocalService> service;
    std::unique_ptr<MainController> controller;
};

void TestNotifier::initTestCase()
{
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, config.path());
    QCoreApplication::setOrganizationName(QStringLiteral("kelvara"));
    QCoreApplication::setApplicationName(QStringLiteral("Hoplift"));
    daemon.setProcessChannelMode(QProcess::ForwardedChannels);
    daemon.start(QStringLiteral("/usr/bin/python3"),
                 {QStringLiteral("-m"), QStringLiteral("dbusmock"), QStringLiteral("--template"),
                  QStringLiteral("notification_daemon")});
    QTRY_VERIFY_WITH_TIMEOUT(
        QDBusConnection::sessionBus().interface()->isServiceRegistered(daemonName), 10000);
}

void TestNotifier::init()
{
    QSettings().clear();
    files = std::make_unique<QTemporaryDir>();
}

void TestNotifier::cleanup()
{
    controller.reset();
    service.reset();
}

void TestNotifier::cleanupTestCase()
{
    daemon.kill();
    daemon.waitForFinished();
}

QStringList TestNotifier::makeFiles(int count, int missing, int size)
{
    QStringList paths;
    for (int i = 0; i < count; ++i) {
        paths << files->filePath(QStringLiteral("file%1.bin").arg(i));
        QFile file(paths.last());
        if (i != missing && file.open(QIODevice::WriteOnly))
            file.write(QByteArray(size, 'h'));
    }
    return paths;
}

bool TestNotifier::launch(const QStringList &options)
{
    service = std::make_unique<LocalService>();
    QString why;
    if (!service->start(options, &why)) {
        qWarning("%s", qPrintable(why));
        return false;
    }
    QSettings().setValue(QStringLiteral("Account URL"), service->baseUrl());
    QSettings().setValue(QStringLiteral("Username"), QStringLiteral("demo"));
    controller = std::make_unique<MainController>();
    if (!controller->savePassword(QStringLiteral("demo")))
        return false;
    controller->applicationDidFinishLaunching();
    return true;
}

void TestNotifier::noticesWhileOutOfSight_data()
{
    QTest::addColumn<int>("count");
    QTest::addColumn<int>("missing");
    QTest::addColumn<bool>("active");
    QTest::addColumn<QStringList>("expected");
    QTest::newRow("batch") << 3 << -1 << false
                           << QStringList{QStringLiteral("3 files uploaded to 127.0.0.1\n2.9 KB")};
    QTest::newRow("one file") << 1 << -1 << false
                              << QStringList{
                                     QStringLiteral("1 file uploaded to 127.0.0.1\n1000 Bytes")};
    QTest::newRow("a failed row")
        << 3 << 1 << false
        << QStringList{QStringLiteral("Could not upload file1.bin\nfile not found"),
                       QStringLiteral("2 files uploaded to 127.0.0.1\n2.0 KB")};
    QTest::newRow("window active") << 3 << 1 << true << QStringList{};
    QTest::newRow("200 files") << 200 << -1 << false
                               << QStringList{
                                      QStringLiteral("200 files uploaded to 127.0.0.1\n195.3 KB")};
}

void TestNotifier::noticesWhileOutOfSight()
{
    QFETCH(int, count);
    QFETCH(int, missing);
    QFETCH(bool, active);
    QFETCH(QStringList, expected);
    const qsizetype before = notices().size();
    QVERIFY(launch());
    if (active) {
        controller->mainWindow()->show(); // in sight, and the active window
        controller->mainWindow()->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(controller->mainWindow()));
    }
    controller->addFiles(makeFiles(count, missing), false);
    QVERIFY(waitForQueue(*controller, 60000));
    QTRY_COMPARE(notices().size() - before, expected.size());
    QTest::qWait(300); // and no more arrive
    const QList<Notice> sent = notices().mid(before);
    QCOMPARE(textsOf(sent), expected);
    for (const Notice &n : sent) {
        QCOMPARE(n.replaces, 0u);
        QCOMPARE(n.fixed, QStringList({QStringLiteral("Hoplift"), QStringLiteral("hoplift"),
                                       QStringLiteral("default"), QStringLiteral("hoplift")}));
    }
}

void TestNotifier::laterNoticesReplaceEarlierOnes()
{
    const qsizetype before = notices().size();
    QVERIFY(launch());
    const QStringList paths = makeFiles(4, 2);
    for (const QStringList &batch : {QStringList{paths[0]}, QStringList{paths[2], paths[1]},
                                     QStringList{paths[2], paths[3]}}) {
        controller->addFiles(batch, false);
        QVERIFY(waitForQueue(*controller, 30000));
    }
    QTRY_COMPARE(notices().size() - before, 5);
    const QList<Notice> sent = notices().mid(before);
    const QString done = QStringLiteral("1 file uploaded to 127.0.0.1\n1000 Bytes");
    const QString failed = QStringLiteral("Could not upload file2.bin\nfile not found");
    QCOMPARE(textsOf(sent), QStringList({done, failed, done, failed, done}));
    QList<uint> replaced;
    for (const Notice &n : sent)
        replaced << n.replaces;
    QCOMPARE(replaced, QList<uint>({0, 0, sent[0].id, sent[1].id, sent[0].id}));
}

void TestNotifier::clickingANoticeShowsItsRow_data()
{
    QTest::addColumn<int>("notice"); // which of the batch's notices is clicked; -1 another's
    QTest::addColumn<int>("row");    // the row then selected; -1 the window stays away
    QTest::newRow("failure") << 0 << 1;
    QTest::newRow("completion") << 1 << 2;
    QTest::newRow("someone else's") << -1 << -1;
}

void TestNotifier::clickingANoticeShowsItsRow()
{
    QFETCH(int, notice);
    QFETCH(int, row);
    const qsizetype before = notices().size();
    QVERIFY(launch());
    controller->addFiles(makeFiles(3, 1), false);
    QVERIFY(waitForQueue(*controller, 30000));
    QTRY_COMPARE(notices().size() - before, 2);
    const QList<Notice> sent = notices().mid(before);
    const uint id = notice < 0 ? sent[1].id + 1000 : sent[notice].id;
    callMock(QStringLiteral("EmitSignal"),
             {daemonName, QStringLiteral("ActionInvoked"), QStringLiteral("us"),
              QVariant::fromValue(QVariantList{id, QStringLiteral("default")})});
    QMainWindow *window = controller->mainWindow();
    QItemSelectionModel *selection = window->findChild<iTableView *>()->selectionModel();
    if (row < 0) {
        QTest::qWait(300);
        QVERIFY(!window->isActiveWindow());
        QVERIFY(!selection->hasSelection());
    } else {
        QTRY_VERIFY(window->isActiveWindow());
        QCOMPARE(selection->selectedRows(),
                 QModelIndexList{controller->tableController()->index(row, 0)});
    }
}

void TestNotifier::taskbarFollowsTheBatch()
{
    // The service answers late, so each row spends a while uploading and processing.
    QVERIFY(launch({QStringLiteral("--delay-ms"), QStringLiteral("1500")}));
    LauncherSpy spy;
    controller->addFiles(makeFiles(2, -1, 1 << 20), false);
    QVERIFY(waitForQueue(*controller, 30000));
    const auto visible = [](const LauncherSpy::Update &u, const char *what) {
        return u.properties.value(QLatin1String(what) + QStringLiteral("-visible")).toBool();
    };
    QTRY_VERIFY(!spy.updates.isEmpty() && !visible(spy.updates.last(), "count"));

    const LauncherSpy::Update cleared = spy.updates.takeLast();
    QVERIFY(!visible(cleared, "progress") && spy.updates.size() >= 2);
    QList<double> progress;
    QList<qint64> counts;
    for (const LauncherSpy::Update &u : std::as_const(spy.updates)) {
        QCOMPARE(u.app, QStringLiteral("application://hoplift.desktop"));
        QVERIFY(visible(u, "progress") && visible(u, "count"));
        progress << u.properties.value(QStringLiteral("progress")).toDouble();
        counts << u.properties.value(QStringLiteral("count")).toLongLong();
        if (progress.size() == 1)
            continue;
        QVERIFY2(u.at - spy.updates[progress.size() - 2].at >= 400, "twice a second at most");
        QVERIFY(progress.last() >= progress[progress.size() - 2]);
        QVERIFY(counts.last() <= counts[counts.size() - 2]);
    }
    QCOMPARE(progress.first(), 0.0);
    QCOMPARE(progress.last(), 1.0);
    QCOMPARE(counts.first(), 2);
    QCOMPARE(counts.last(), 1);
}

void TestNotifier::withoutANotificationServiceNothingBreaks()
{
    daemon.kill();
    daemon.waitForFinished();
    QTRY_VERIFY(!QDBusConnection::sessionBus().interface()->isServiceRegistered(daemonName));
    LogCapture log;
    QVERIFY(launch());
    controller->addFiles(makeFiles(3, 1), false); // a failure notice, then the batch's
    QVERIFY(waitForQueue(*controller, 30000));
    QCOMPARE(controller->queue().back()->uploadState(), 3);
    const auto absent = [&log] {
        const QByteArrayList lines = log.lines();
        return std::count_if(lines.begin(), lines.end(), [](const QByteArray &line) {
            return line.startsWith("no desktop notifications: ");
        });
    };
    QTRY_COMPARE(absent(), 1);
    QTest::qWait(300);
    QCOMPARE(absent(), 1);
}

QTEST_MAIN(TestNotifier)
#include "tst_notifier.moc"
