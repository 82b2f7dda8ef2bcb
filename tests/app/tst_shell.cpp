// The hoplift binary as the desktop runs it: the failure without a system bus, one instance per
// user, and SIGTERM mid-upload. Sleep and wake with logind are driven in the journeys.
#include "app/Keychain.h"
#include "app/SingleInstance.h"
#include "support/E2eSupport.h"
#include "support/LocalService.h"

#include <QtTest>

using namespace Qt::StringLiterals;

class TestShell : public QObject
{
    Q_OBJECT
    const QString binary = qEnvironmentVariable("HOPLIFT_BINARY");
    QTemporaryDir home;
    QProcess systemBus; // a private one: Hoplift needs one to start

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(!binary.isEmpty(), "HOPLIFT_BINARY names the program under test");
        // A home of its own (private, so also the runtime folder) for every Hoplift started here.
        qputenv("HOME", home.path().toUtf8());
        qputenv("XDG_CONFIG_HOME", home.filePath(u"config"_s).toUtf8());
        qputenv("XDG_RUNTIME_DIR", home.path().toUtf8());
        systemBus.start(u"dbus-daemon"_s, {u"--session"_s, u"--nofork"_s, u"--print-address"_s});
        QVERIFY(systemBus.waitForReadyRead(10000));
        qputenv("DBUS_SYSTEM_BUS_ADDRESS", systemBus.readLine().trimmed());
    }

    void cleanupTestCase() { systemBus.kill(), systemBus.waitForFinished(); }

    void withoutSystemBusExitsWithFailureLine()
    {
        QProcess hoplift;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(u"DBUS_SYSTEM_BUS_ADDRESS"_s, u"unix:path=/nonexistent"_s);
        hoplift.setProcessEnvironment(env);
        hoplift.start(binary, {});
        QVERIFY(hoplift.waitForFinished(30000));
        QCOMPARE(hoplift.readAllStandardOutput(), "IORegisterForSystemPower failed\n"_ba);
        QVERIFY(hoplift.exitStatus() == QProcess::NormalExit && hoplift.exitCode() == 1);
    }

    void laterStartHandsAbsolutePathsToTheFirst_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QStringList>("handed"); // %1: the later start's working folder
        QTest::newRow("no paths raises the window") << QStringList() << QStringList{u"raise"_s};
        QTest::newRow("relative and absolute") << QStringList{u"a"_s, u"sub/b c"_s, u"/x"_s}
                                               << QStringList{u"%1/a"_s, u"%1/sub/b c"_s, u"/x"_s};
    }

    void laterStartHandsAbsolutePathsToTheFirst()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QStringList, handed);
        // This test process is the first instance; the program is started as the later one.
        SingleInstance first;
        QVERIFY(first.becomePrimary());
        QStringList got;
        connect(&first, &SingleInstance::filesReceived, this,
                [&](const QStringList &p) { got << p; });
        connect(&first, &SingleInstance::raiseRequested, this, [&] { got << u"raise"_s; });
        QProcess later;
        later.setWorkingDirectory(home.path());
        later.start(binary, arguments);
        QTRY_VERIFY_WITH_TIMEOUT(later.state() == QProcess::NotRunning, 30000);
        QCOMPARE(later.exitCode(), 0);
        QTRY_COMPARE(got, handed.replaceInStrings(u"%1"_s, home.path()));
    }

    void sigtermKeepsTheInterruptedFileFirst()
    {
        // The service answers late, so the first file is still in flight at SIGTERM.
        LocalService service;
        QVERIFY(service.start({u"--delay-ms"_s, u"1500"_s}));
        const QStringList queue{makePatternFile(home.path(), u"first.bin"_s, 5000),
                                makePatternFile(home.path(), u"second.bin"_s, 6000)};
        QSettings settings(home.filePath(u"config/kelvara/Hoplift.conf"_s),
                           QSettings::NativeFormat);
        settings.setValue(u"Account URL"_s, service.baseUrl());
        settings.setValue(u"Username"_s, u"demo"_s);
        settings.setValue(u"UploadFiles"_s, queue);
        settings.sync();
        QCOMPARE(StorePasswordKeychain("demo", 5), 0); // with its zero byte, as Hoplift keeps it

        QProcess hoplift;
        hoplift.setReadChannel(QProcess::StandardError);
        QStringList started; // the files of the "starting" lines, in order
        connect(&hoplift, &QProcess::readyReadStandardError, this, [&] {
            while (hoplift.canReadLine())
                if (const QString line = QString::fromUtf8(hoplift.readLine().trimmed());
                    line.startsWith(u"Hoplift: starting: "))
                    started << line.mid(19);
        });
        hoplift.start(binary, {});
        QTRY_VERIFY_WITH_TIMEOUT(started.size() == 1, 20000);
        hoplift.terminate();
        QVERIFY(hoplift.waitForFinished(10000));
        QCOMPARE(hoplift.exitCode(), 0);
        settings.sync();
        QCOMPARE(settings.value(u"UploadFiles"_s).toStringList(), queue);

        // The next start sends the interrupted file first, then the rest, and empties the queue.
        hoplift.start(binary, {});
        QTRY_COMPARE_WITH_TIMEOUT(started, QStringList({queue[0], queue[0], queue[1]}), 20000);
        QTRY_VERIFY_WITH_TIMEOUT((settings.sync(), !settings.contains(u"UploadFiles"_s)), 20000);
        hoplift.terminate();
        QVERIFY(hoplift.waitForFinished(10000));
    }
};

QTEST_GUILESS_MAIN(TestShell)
#include "tst_shell.moc"
