// The account password in the desktop's secret store: what is kept, how it reads back after
// a restart, and what happens on a desktop without a secret store.
#include "app/Keychain.h"
#include "app/MainController.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

class TestKeychain : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void savedPasswordSurvivesRestart_data();
    void savedPasswordSurvivesRestart();
    void withoutSecretStore_data();
    void withoutSecretStore();
};

void TestKeychain::savedPasswordSurvivesRestart_data()
{
    QTest::addColumn<QString>("password");
    QTest::addColumn<QByteArray>("stored");
    QTest::addColumn<QString>("readBack");
    QTest::newRow("ascii") << QStringLiteral("s3cret pass") << QByteArray("s3cret pass\0", 12)
                           << QStringLiteral("s3cret pass");
    // The sheet's box off: the item stays, holding an empty password.
    QTest::newRow("box off") << QStringLiteral("") << QByteArray("\0", 1) << QStringLiteral("");
    // Eight characters, ten bytes: nine are kept and no zero byte ends them.
    QTest::newRow("beyond ascii cut")
        << QStringLiteral("p\u00e4ssw\u00f6rd") << QByteArray("p\xc3\xa4ssw\xc3\xb6r")
        << QStringLiteral("p\u00e4ssw\u00f6r");
}

void TestKeychain::savedPasswordSurvivesRestart()
{
    QFETCH(QString, password);
    QFETCH(QByteArray, stored);
    QFETCH(QString, readBack);
    {
        MainController before;
        QVERIFY(before.savePassword(QStringLiteral("an older password")));
        QVERIFY(before.savePassword(password));
    }
    QByteArray data;
    quint32 length = 0;
    QCOMPARE(GetPasswordKeychain(&data, &length, nullptr), 0);
    QCOMPARE(data, stored);
    QCOMPARE(length, quint32(stored.size()));

    MainController restarted;
    const QString read = restarted.retrievePassword();
    QVERIFY(!read.isNull());
    QCOMPARE(read, readBack);

    // Whatever follows the first zero byte is not part of the password.
    QCOMPARE(StorePasswordKeychain("first\0second", 13), 0);
    QCOMPARE(restarted.retrievePassword(), QStringLiteral("first"));
}

void TestKeychain::withoutSecretStore_data()
{
    QTest::addColumn<bool>("emptyBus");
    QTest::newRow("bus without a secret service") << true;
    QTest::newRow("no session bus") << false;
}

void TestKeychain::withoutSecretStore()
{
    if (qEnvironmentVariableIsSet("HOPLIFT_NO_SECRET_STORE")) {
        // The child: this process talks to a bus where no secret store answers.
        MainController controller;
        QVERIFY(controller.retrievePassword().isNull());
        QVERIFY(!controller.savePassword(QStringLiteral("demo")));
        const int status = GetPasswordKeychain(nullptr, nullptr, nullptr);
        QVERIFY2(status < 0 && status != KeychainItemNotFound, QByteArray::number(status));
        return;
    }
    QFETCH(bool, emptyBus);
    QTemporaryDir dir;
    QProcess bus;
    QString address = QStringLiteral("unix:path=%1/no-bus").arg(dir.path());
    if (emptyBus) {
        // A session bus of its own that can start no services, so no keyring appears.
        QFile config(dir.filePath(QStringLiteral("bus.conf")));
        QVERIFY(config.open(QIODevice::WriteOnly));
        config.write("<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration "
                     "1.0//EN\" \"http://www.freedesktop.org/standards/dbus/1.0/"
                     "busconfig.dtd\"><busconfig><type>session</type><listen>unix:dir=" +
                     dir.path().toUtf8() +
                     "</listen><policy context=\"default\"><allow send_destination=\"*\" "
                     "eavesdrop=\"true\"/><allow eavesdrop=\"true\"/><allow own=\"*\"/>"
                     "</policy></busconfig>");
        config.close();
        bus.start(QStringLiteral("dbus-daemon"),
                  {QStringLiteral("--nofork"), QStringLiteral("--print-address"),
                   QStringLiteral("--config-file=") + config.fileName()});
        QVERIFY(bus.waitForStarted());
        QTRY_VERIFY(bus.canReadLine());
        address = QString::fromUtf8(bus.readLine()).trimmed();
    }
    QProcess child;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), address);
    environment.insert(QStringLiteral("HOPLIFT_NO_SECRET_STORE"), QStringLiteral("1"));
    child.setProcessEnvironment(environment);
    child.setProcessChannelMode(QProcess::MergedChannels);
    child.start(QCoreApplication::applicationFilePath(),
                {QStringLiteral("withoutSecretStore:") + QLatin1String(QTest::currentDataTag())});
    // Both processes are ended by their QProcess on the way out, also after a failure.
    QVERIFY2(child.waitForFinished(15000), "the secret store calls took over 15 s");
    const QByteArray output = child.readAll();
    QVERIFY2(child.exitCode() == 0 && output.contains("Totals: 3 passed, 0 failed"),
             output.constData());
}

QTEST_MAIN(TestKeychain)
#include "tst_keychain.moc"
