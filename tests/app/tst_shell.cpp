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
    QString systemBusAddress;

    QProcessEnvironment environment() const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(u"HOME"_s, home.path());
        env.insert(u"XDG_CONFIG_HOME"_s, home.filePath(u"config"_s));
        env.insert(u"XDG_RUNTIME_DIR"_s, home.filePath(u"runtime"_s));
        env.insert(u"DBUS_SYSTEM_BUS_ADDRESS"_s, systemBusAddress);
        return env;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(!binary.isEmpty(), "HOPLIFT_BINARY names the program under test");
        QVERIFY(QDir().mkdir(home.filePath(u"runtime"_s),
                             QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        qputenv("XDG_RUNTIME_DIR", home.filePath(u"runtime"_s).toUtf8());
        systemBus.start(u"dbus-daemon"_s, {u"--session"_s, u"--nofork"_s, u"--print-address"_s});
        QVERIFY(systemBus.waitForReadyRead(10000));
        systemBusAddress = QString::fromUtf8(systemBus.readLine().trimmed());
    }

    void withoutSystemBusExitsWithFailureLine()
    {
        QProcess hoplift;
        QProcessEnvironment env = environment();
        env.insert(u"DBUS_SYSTEM_BUS_ADDRESS"_s, u"unix:path=/nonexistent"_s);
        hoplift.setProcessEnvironment(env);
        hoplift.start(binary, {});
        QVERIFY(hoplift.waitForFinished(30000));
        QCOMPARE(hoplift.exitStatus(), QProcess::NormalExit);
        QCOMPARE(hoplift.exitCode(), 1);
        QCOMPARE(hoplift.readAllStandardOutput(), "IORegisterForSystemPower failed\n"_ba);
    }

    void laterStartHandsAbsolutePathsToTheFirst_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("no paths raises the window") << QStringList();
        QTest::newRow("relative and absolute") << QStringList{u"a"_s, u"sub/b c"_s, u"/x"_s};
    }

    void laterStartHandsAbsolutePathsToTheFirst()
    {
        QFETCH(QStringList, arguments);
        // This test process is the first instance; the program is started as the later one.
        SingleInstance first;
        QVERIFY(first.becomePrimary());
        QSignalSpy files(&first, &SingleInstance::filesReceived);
        QSignalSpy raise(&first, &SingleInstance::raiseRequested);
        QProcess later;
        later.setProcessEnvironment(environment());
        later.setWorkingDirectory(home.path());
        later.start(binary, arguments);
        QTRY_VERIFY_WITH_TIMEOUT(later.state() == QProcess::NotRunning, 30000);
        QCOMPARE(later.exitCode(), 0);
        QTRY_COMPARE(files.size() + raise.size(), 1);
        QCOMPARE(raise.size(), arguments.isEmpty() ? 1 : 0);
        QStringList absolute;
        for (const QString &path : arguments)
            absolute << QDir(home.path()).absoluteFilePath(path);
        QCOMPARE(files.isEmpty() ? QStringList() : files[0][0].toStringList(), absolute);
    }

    void sigtermKeepsTheInterruptedFileFirst()
    {
        // The service answers late, so the first file is still in flight at SIGTERM.
        LocalService service;
        QString why;
        QVERIFY2(service.start({u"--delay-ms"_s, u"1500"_s}, &why), qPrintable(why));
        const QStringList queue{makePatternFile(home.path(), u"first.bin"_s, 5000),
                                makePatternFile(home.path(), u"second.bin"_s, 6000)};
        const QString conf = home.filePath(u"config/kelvara/Hoplift.conf"_s);
        const auto savedQueue = [&conf] {
            return QSettings(conf, QSettings::NativeFormat).value(u"UploadFiles"_s);
        };
        {
            QSettings settings(conf, QSettings::NativeFormat);
            settings.setValue(u"Account URL"_s, service.baseUrl());
            settings.setValue(u"Username"_s, u"demo"_s);
            settings.setValue(u"UploadFiles"_s, queue);
        }
        QCOMPARE(StorePasswordKeychain("demo", 5), 0); // with its zero byte, as Hoplift keeps it

        QProcess hoplift;
        hoplift.setProcessEnvironment(environment());
        hoplift.setReadChannel(QProcess::StandardError);
        QByteArrayList started; // the files of the "starting" lines, in order
        const auto waitForStarts = [&](qsizetype count) {
            return QTest::qWaitFor(
                [&] {
                    while (hoplift.canReadLine() || hoplift.waitForReadyRead(10)) {
                        const QByteArray line = hoplift.readLine().trimmed();
                        if (line.startsWith("Hoplift: starting: "))
                            started << line.mid(19);
                    }
                    return started.size() >= count;
                },
                20000);
        };
        hoplift.start(binary, {});
        QVERIFY(waitForStarts(1));
        hoplift.terminate();
        QVERIFY(hoplift.waitForFinished(10000));
        QCOMPARE(hoplift.exitCode(), 0);
        QCOMPARE(savedQueue().toStringList(), queue);

        // The next start sends the interrupted file first, then the rest, and empties the queue.
        hoplift.start(binary, {});
        QVERIFY(waitForStarts(3));
        QCOMPARE(started,
                 QByteArrayList({queue[0].toUtf8(), queue[0].toUtf8(), queue[1].toUtf8()}));
        QTRY_VERIFY_WITH_TIMEOUT(!savedQueue().isValid(), 20000);
        hoplift.terminate();
        QVERIFY(hoplift.waitForFinished(10000));
    }

    void cleanupTestCase()
    {
        systemBus.kill();
        systemBus.waitForFinished();
    }
};

QTEST_GUILESS_MAIN(TestShell)
#include "tst_shell.moc"
