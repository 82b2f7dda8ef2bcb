// The hoplift binary as the desktop sees it: one instance per user, the power
// registration with logind, sleep and wake during an upload, SIGTERM, and the failure
// without a system bus.
#include "app/Keychain.h"
#include "app/SingleInstance.h"
#include "support/LocalService.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDBusVariant>
#include <QProcess>
#include <QSettings>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

namespace {

QString hopliftBinary()
{
    return qEnvironmentVariable("HOPLIFT_BINARY");
}

} // namespace

class TestShell : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void withoutSystemBusExitsWithFailureLine();
    void laterStartHandsItsPathsToTheFirst_data();
    void laterStartHandsItsPathsToTheFirst();
    void sleepRequeuesTheUploadAndWakeResumesIt();
    void terminationSavesTheInterruptedFileFirst();

private:
    /** @brief Settings of the program under test: the demo account at url, a saved queue. */
    void writeSettings(const QString &url, const QStringList &queue);
    QVariant savedQueue() const;
    QString makeFile(const QString &name, qint64 size);
    /** @brief Waits until the program's log holds line count times. */
    bool waitForLog(QProcess &hoplift, QByteArray &log, const QByteArray &line, int count);

    QProcessEnvironment hopliftEnvironment() const;
    int hopliftInhibitors();
    void emitPrepareForSleep(bool start);

    QTemporaryDir home;
    QProcess systemBus;
    QProcess logind;
    QString systemBusAddress;
};

void TestShell::initTestCase()
{
    QVERIFY2(!hopliftBinary().isEmpty(), "HOPLIFT_BINARY names the program under test");
    qputenv("XDG_RUNTIME_DIR", home.filePath(QStringLiteral("runtime")).toUtf8());
    QDir().mkpath(home.filePath(QStringLiteral("runtime")));
    QFile::setPermissions(home.filePath(QStringLiteral("runtime")),
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);

    // A private system bus with logind mocked on it.
    systemBus.start(QStringLiteral("dbus-daemon"),
                    {QStringLiteral("--session"), QStringLiteral("--nofork"),
                     QStringLiteral("--print-address=1")});
    QVERIFY(systemBus.waitForReadyRead(10000));
    systemBusAddress = QString::fromUtf8(systemBus.readLine().trimmed());
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), systemBusAddress);
    logind.setProcessEnvironment(env);
    logind.start(QStringLiteral("/usr/bin/python3"),
                 {QStringLiteral("-m"), QStringLiteral("dbusmock"), QStringLiteral("--system"),
                  QStringLiteral("--template"), QStringLiteral("logind")});
    QVERIFY(logind.waitForStarted());
    QDBusConnection bus =
        QDBusConnection::connectToBus(systemBusAddress, QStringLiteral("test-system"));
    QVERIFY(bus.isConnected());
    QTRY_VERIFY_WITH_TIMEOUT(
        bus.interface()->isServiceRegistered(QStringLiteral("org.freedesktop.login1")), 15000);
}

void TestShell::cleanupTestCase()
{
    QDBusConnection::disconnectFromBus(QStringLiteral("test-system"));
    logind.kill();
    logind.waitForFinished();
    systemBus.kill();
    systemBus.waitForFinished();
}

QProcessEnvironment TestShell::hopliftEnvironment() const
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    env.insert(QStringLiteral("HOME"), home.path());
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral("config")));
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), home.filePath(QStringLiteral("runtime")));
    env.insert(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), systemBusAddress);
    return env;
}

int TestShell::hopliftInhibitors()
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.login1"), QStringLiteral("/org/freedesktop/login1"),
        QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("ListInhibitors"));
    const QDBusMessage reply =
        QDBusConnection(QStringLiteral("test-system")).call(call, QDBus::Block, 5000);
    // a(ssssuu): count the entries whose "who" is Hoplift.
    const QDBusArgument list = reply.arguments().value(0).value<QDBusArgument>();
    int count = 0;
    list.beginArray();
    while (!list.atEnd()) {
        QString what, who, why, mode;
        uint uid = 0, pid = 0;
        list.beginStructure();
        list >> what >> who >> why >> mode >> uid >> pid;
        list.endStructure();
        if (who == QLatin1String("Hoplift!") && mode == QLatin1String("delay") &&
            what == QLatin1String("sleep"))
            ++count;
    }
    list.endArray();
    return count;
}

void TestShell::emitPrepareForSleep(bool start)
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.login1"), QStringLiteral("/org/freedesktop/login1"),
        QStringLiteral("org.freedesktop.DBus.Mock"), QStringLiteral("EmitSignal"));
    call << QStringLiteral("org.freedesktop.login1.Manager") << QStringLiteral("PrepareForSleep")
         << QStringLiteral("b")
         << QVariant::fromValue(QVariantList{QVariant::fromValue(QDBusVariant(start))});
    const QDBusMessage reply =
        QDBusConnection(QStringLiteral("test-system")).call(call, QDBus::Block, 5000);
    QCOMPARE(reply.type(), QDBusMessage::ReplyMessage);
}

void TestShell::withoutSystemBusExitsWithFailureLine()
{
    QProcessEnvironment env = hopliftEnvironment();
    env.insert(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"),
               QStringLiteral("unix:path=") + home.filePath(QStringLiteral("no-such-bus")));
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), home.filePath(QStringLiteral("runtime-alone")));
    QDir().mkpath(home.filePath(QStringLiteral("runtime-alone")));
    QProcess hoplift;
    hoplift.setProcessEnvironment(env);
    hoplift.start(hopliftBinary(), {});
    QVERIFY(hoplift.waitForFinished(30000));
    QCOMPARE(hoplift.exitStatus(), QProcess::NormalExit);
    QCOMPARE(hoplift.exitCode(), 1);
    QCOMPARE(hoplift.readAllStandardOutput(), QByteArray("IORegisterForSystemPower failed\n"));
}

void TestShell::laterStartHandsItsPathsToTheFirst_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QStringList>("received"); // relative to the working folder
    QTest::newRow("no paths raises") << QStringList() << QStringList();
    QTest::newRow("relative and absolute")
        << QStringList{QStringLiteral("a.txt"), QStringLiteral("sub/b c.bin"),
                       QStringLiteral("/srv/x")}
        << QStringList{QStringLiteral("a.txt"), QStringLiteral("sub/b c.bin"),
                       QStringLiteral("/srv/x")};
}

void TestShell::laterStartHandsItsPathsToTheFirst()
{
    QFETCH(QStringList, arguments);
    QFETCH(QStringList, received);
    // This test process is the first instance; the program is started as the later one.
    SingleInstance first;
    QVERIFY(first.becomePrimary());
    QSignalSpy files(&first, &SingleInstance::filesReceived);
    QSignalSpy raise(&first, &SingleInstance::raiseRequested);

    QProcess later;
    later.setProcessEnvironment(hopliftEnvironment());
    later.setWorkingDirectory(home.path());
    later.start(hopliftBinary(), arguments);
    QTRY_VERIFY_WITH_TIMEOUT(later.state() == QProcess::NotRunning, 30000);
    QCOMPARE(later.exitCode(), 0);

    if (received.isEmpty()) {
        QCOMPARE(raise.size(), 1);
        QCOMPARE(files.size(), 0);
        return;
    }
    QStringList expected;
    for (const QString &path : received)
        expected << QDir(home.path()).absoluteFilePath(path);
    QCOMPARE(files.size(), 1);
    QCOMPARE(files.first().first().toStringList(), expected);
}

void TestShell::writeSettings(const QString &url, const QStringList &queue)
{
    QSettings settings(home.filePath(QStringLiteral("config/kelvara/Hoplift.conf")),
                       QSettings::NativeFormat);
    settings.clear();
    settings.setValue(QStringLiteral("Account URL"), url);
    settings.setValue(QStringLiteral("Username"), QStringLiteral("demo"));
    settings.setValue(QStringLiteral("UploadFiles"), queue);
    settings.sync();
    // The password waits in the secret store, with its zero byte, as Hoplift keeps it.
    QCOMPARE(StorePasswordKeychain("demo", 5), 0);
}

QVariant TestShell::savedQueue() const
{
    QSettings settings(home.filePath(QStringLiteral("config/kelvara/Hoplift.conf")),
                       QSettings::NativeFormat);
    return settings.value(QStringLiteral("UploadFiles"));
}

QString TestShell::makeFile(const QString &name, qint64 size)
{
    const QString path = home.filePath(name);
    QFile file(path);
    if (file.open(QIODevice::WriteOnly))
        file.write(QByteArray(size, 'h'));
    return path;
}

bool TestShell::waitForLog(QProcess &hoplift, QByteArray &log, const QByteArray &line, int count)
{
    return QTest::qWaitFor(
        [&] {
            log += hoplift.readAllStandardError();
            return log.count(line) >= count;
        },
        20000);
}

void TestShell::sleepRequeuesTheUploadAndWakeResumesIt()
{
    // The service answers late, so the upload is still waiting for its answer at sleep.
    LocalService service;
    QString why;
    QVERIFY2(service.start({QStringLiteral("--delay-ms"), QStringLiteral("1500")}, &why),
             qPrintable(why));
    const QString file = makeFile(QStringLiteral("sleepy.bin"), 5000);
    writeSettings(service.baseUrl(), {file});

    QProcess hoplift;
    hoplift.setProcessEnvironment(hopliftEnvironment());
    hoplift.start(hopliftBinary(), {});
    QVERIFY(hoplift.waitForStarted());
    QTRY_COMPARE_WITH_TIMEOUT(hopliftInhibitors(), 1, 20000);
    QByteArray log;
    const QByteArray starting = "Hoplift: starting: " + file.toUtf8() + '\n';
    QVERIFY2(waitForLog(hoplift, log, starting, 1), log.constData());
    QTest::qWait(300);

    emitPrepareForSleep(true);
    QTRY_COMPARE_WITH_TIMEOUT(hopliftInhibitors(), 0, 10000);
    QVERIFY(waitForLog(hoplift, log, "Hoplift: going to sleep...\n", 1));
    // Back from sleep: the lock is taken again and the requeued file is sent anew.
    emitPrepareForSleep(false);
    QTRY_COMPARE_WITH_TIMEOUT(hopliftInhibitors(), 1, 10000);
    QVERIFY2(waitForLog(hoplift, log, starting, 2), log.constData());
    QTRY_VERIFY_WITH_TIMEOUT(!savedQueue().isValid(), 20000); // done: the queue is empty
    QCOMPARE(QFileInfo(QDir(service.accountFolder()).filePath(QStringLiteral("sleepy.bin"))).size(),
             5000);

    hoplift.terminate();
    QVERIFY(hoplift.waitForFinished(10000));
    QCOMPARE(hoplift.exitStatus(), QProcess::NormalExit);
    QCOMPARE(hoplift.exitCode(), 0);
}

void TestShell::terminationSavesTheInterruptedFileFirst()
{
    LocalService service;
    QString why;
    QVERIFY2(service.start({QStringLiteral("--delay-ms"), QStringLiteral("1500")}, &why),
             qPrintable(why));
    const QStringList queue{makeFile(QStringLiteral("first.bin"), 3000),
                            makeFile(QStringLiteral("second.bin"), 4000)};
    writeSettings(service.baseUrl(), queue);

    for (int run = 0; run < 2; ++run) {
        QProcess hoplift;
        hoplift.setProcessEnvironment(hopliftEnvironment());
        hoplift.start(hopliftBinary(), {});
        QVERIFY(hoplift.waitForStarted());
        QByteArray log;
        // Each start begins with the interrupted file.
        QVERIFY2(waitForLog(hoplift, log, "Hoplift: starting: " + queue[0].toUtf8() + '\n', 1),
                 log.constData());
        if (run == 1) // the second start is left to finish
            QTRY_VERIFY_WITH_TIMEOUT(!savedQueue().isValid(), 20000);
        hoplift.terminate();
        QVERIFY(hoplift.waitForFinished(10000));
        QCOMPARE(hoplift.exitCode(), 0);
        if (run == 0)
            QCOMPARE(savedQueue().toStringList(), queue);
    }
    for (const char *name : {"first.bin", "second.bin"})
        QVERIFY(QFileInfo::exists(QDir(service.accountFolder()).filePath(QLatin1String(name))));
}

QTEST_GUILESS_MAIN(TestShell)
#include "tst_shell.moc"
