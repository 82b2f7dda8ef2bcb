// Faults from outside Hoplift, end to end: a service that redirects an upload for ever, a file
// that changes while it is sent, a bundle holding a file nobody may read, a temporary folder
// where no archive can be made, and a settings file that cannot be written. Each test shows
// what becomes of the row at fault and that the rest of the queue is not lost.
#include "app/MainController.h"
#include "support/E2eSupport.h"
#include "support/LocalService.h"
#include "ui/SubviewController.h"

#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QScopeGuard>
#include <QSettings>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <csignal>
#include <functional>
#include <memory>
#include <sys/resource.h>

namespace {

const QString savedKey = QStringLiteral("UploadFiles");

QString sha256Of(const QByteArray &bytes)
{
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
}

QByteArray contentsOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/**
 * @brief A service that answers the account and user documents (below any path) and turns
 * every upload away with a 302 to its own upload address, so an upload never ends.
 */
class RedirectingService : public QTcpServer
{
public:
    int redirects = 0;

protected:
    void incomingConnection(qintptr descriptor) override
    {
        auto *socket = new QTcpSocket(this);
        socket->setSocketDescriptor(descriptor);
        auto request = std::make_shared<QByteArray>();
        connect(socket, &QTcpSocket::readyRead, this, [this, socket, request] {
            *request += socket->readAll();
            const qsizetype headEnd = request->indexOf("\r\n\r\n");
            if (headEnd < 0)
                return;
            const QByteArray head = request->left(headEnd).toLower();
            const qsizetype at = head.indexOf("\ncontent-length:");
            const qint64 length =
                at < 0 ? 0 : head.mid(at + 16).split('\r')[0].trimmed().toLongLong();
            if (request->size() < headEnd + 4 + length)
                return;
            const QList<QByteArray> line = head.left(head.indexOf('\r')).split(' ');
            request->clear();
            QByteArray answer =
                "302 Found\r\nLocation: http://127.0.0.1:" + QByteArray::number(serverPort()) +
                "/api/assets";
            QByteArray body;
            if (line.value(1).endsWith("/api/account.xml"))
                body = R"(<account><stats available_space="1000000000"/></account>)";
            else if (line.value(1).endsWith("/api/user"))
                body = "<user><first-name>Dana</first-name><last-name>Demo</last-name></user>";
            if (!body.isEmpty())
                answer = "200 OK\r\nContent-Type: application/xml";
            else if (line.value(0) == "post")
                ++redirects;
            socket->write("HTTP/1.1 " + answer + "\r\nContent-Length: " +
                          QByteArray::number(body.size()) + "\r\nConnection: close\r\n\r\n" + body);
            socket->disconnectFromHost();
        });
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    }
};

} // namespace

class TestE2eFaults : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();
    void redirectLoopLeavesWindowAndRowButtonsWorking();
    void fileChangedWhileSent_data();
    void fileChangedWhileSent();
    void bundleWithUnreadableFileStillUploads_data();
    void bundleWithUnreadableFileStillUploads();
    void unwritableTempFolderStopsOnlyTheBundle_data();
    void unwritableTempFolderStopsOnlyTheBundle();
    void unwritableSettingsKeepQueueWhole_data();
    void unwritableSettingsKeepQueueWhole();

private:
    QString makeFile(const QString &name, qint64 size);
    bool launch(MainController &controller, const QString &baseUrl);
    QStringList savedQueue(MainController &controller);

    QTemporaryDir files;
    QTemporaryDir config;
    QString folder;
    int testNumber = 0;
};

void TestE2eFaults::initTestCase()
{
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, config.path());
    QCoreApplication::setOrganizationName(QStringLiteral("kelvara"));
    QCoreApplication::setApplicationName(QStringLiteral("Hoplift"));
}

void TestE2eFaults::init()
{
    QSettings().clear();
    folder = files.filePath(QString::number(++testNumber));
    QVERIFY(QDir().mkpath(folder));
}

QString TestE2eFaults::makeFile(const QString &name, qint64 size)
{
    return makePatternFile(folder, name, size);
}

bool TestE2eFaults::launch(MainController &controller, const QString &baseUrl)
{
    return launchDemoAccount(controller, baseUrl);
}

QStringList TestE2eFaults::savedQueue(MainController &controller)
{
    controller.waitForSavedQueue();
    return QSettings().value(savedKey).toStringList();
}

void TestE2eFaults::redirectLoopLeavesWindowAndRowButtonsWorking()
{
    RedirectingService server;
    QVERIFY(server.listen(QHostAddress::LocalHost));
    MainController controller;
    QVERIFY(launch(controller, QStringLiteral("http://127.0.0.1:%1").arg(server.serverPort())));
    const QString a = makeFile(QStringLiteral("a.bin"), 3000);
    const QString b = makeFile(QStringLiteral("b.bin"), 3000);
    controller.addFiles({a, b}, true);
    const auto &rows = controller.queue();

    // Redirects are followed without a limit; the window's events must still get their turn.
    QElapsedTimer sinceTick;
    qint64 longestGap = 0;
    QTimer tick;
    connect(&tick, &QTimer::timeout, [&] { longestGap = qMax(longestGap, sinceTick.restart()); });
    sinceTick.start();
    tick.start(10);
    QTRY_VERIFY_WITH_TIMEOUT(server.redirects >= 100, 20000);
    tick.stop();
    QVERIFY2(longestGap < 500, qPrintable(QStringLiteral("events waited %1 ms").arg(longestGap)));
    QVERIFY(rows[0]->isUploading());
    QCOMPARE(rows[1]->uploadState(), 0);

    controller.buttonPressed(rows[0].get(), 1);
    QCOMPARE(rows[0]->uploadState(), 4);
    QVERIFY(rows[1]->isUploading()); // b goes next, and loops in its turn
    const int beforeDelete = server.redirects;
    QTRY_VERIFY(server.redirects > beforeDelete + 10);
    controller.buttonPressed(rows[1].get(), 2);
    QCOMPARE(rows.size(), size_t(1));
    const int afterDelete = server.redirects;
    QTest::qWait(1000); // one request may have been under way; nothing follows it
    QVERIFY(server.redirects <= afterDelete + 1);
    QCOMPARE(savedQueue(controller), QStringList{a});
}

void TestE2eFaults::fileChangedWhileSent_data()
{
    QTest::addColumn<QString>("change");
    QTest::addColumn<int>("state");
    // Cut short, the body ends early: the service waits for the promised rest, gives up
    // after its 15 s read time-out and refuses the upload.
    QTest::newRow("truncated") << QStringLiteral("truncated") << 5;
    // Grown, the body runs past its Content-Length: the part's closing line is not where the
    // service reads it, and it refuses the upload.
    QTest::newRow("grown") << QStringLiteral("grown") << 5;
    // Deleted, the file open since the upload began still reads whole.
    QTest::newRow("deleted") << QStringLiteral("deleted") << 3;
}

void TestE2eFaults::fileChangedWhileSent()
{
    QFETCH(QString, change);
    QFETCH(int, state);
    LocalService service;
    MainController controller;
    QVERIFY(service.start());
    QVERIFY(launch(controller, service.baseUrl()));
    const QString changed = makeFile(QStringLiteral("changed.bin"), 300000);
    const QString original = sha256Of(contentsOf(changed));
    const QString next = makeFile(QStringLiteral("next.bin"), 300000);
    controller.addFiles({changed, next}, true);
    const auto &rows = controller.queue();
    QVERIFY(rows[0]->isUploading()); // the file is open; its first piece is read once connected

    QFile file(changed);
    if (change == QLatin1String("truncated")) {
        QVERIFY(file.resize(1000));
    } else if (change == QLatin1String("grown")) {
        QVERIFY(file.open(QIODevice::Append));
        QCOMPARE(file.write(QByteArray(100000, 'x')), qint64(100000));
        file.close();
    } else {
        QVERIFY(file.remove());
    }

    QTRY_COMPARE_WITH_TIMEOUT(rows[1]->uploadState(), 3, 30000);
    QCOMPARE(rows[0]->uploadState(), state);
    const QDir landed(service.accountFolder());
    const QString stored = landed.filePath(QStringLiteral("changed.bin"));
    if (state == 5) {
        QCOMPARE(rows[0]->statusLine(), QStringLiteral("Error during upload..."));
        QVERIFY(!QFileInfo::exists(stored));
        QCOMPARE(savedQueue(controller), QStringList{changed}); // ready to be restarted
    } else {
        QCOMPARE(sha256Of(contentsOf(stored)), original);
        QCOMPARE(savedQueue(controller), QStringList());
    }
    QCOMPARE(sha256Of(contentsOf(landed.filePath(QStringLiteral("next.bin")))),
             sha256Of(contentsOf(next)));
}

void TestE2eFaults::bundleWithUnreadableFileStillUploads_data()
{
    QTest::addColumn<bool>("danglingLink");
    QTest::newRow("no read permission") << false;
    QTest::newRow("dangling link") << true;
}

void TestE2eFaults::bundleWithUnreadableFileStillUploads()
{
    QFETCH(bool, danglingLink);
    const QString bundle = QDir(folder).filePath(QStringLiteral("Tool.app"));
    const QString readable = makeFile(QStringLiteral("Tool.app/Contents/Info.plist"), 5000);
    const QString blocked = QDir(bundle).filePath(QStringLiteral("Contents/secret.bin"));
    if (danglingLink) {
        QVERIFY(QFile::link(QDir(folder).filePath(QStringLiteral("gone.bin")), blocked));
    } else {
        makeFile(QStringLiteral("Tool.app/Contents/secret.bin"), 5000);
        QVERIFY(QFile::setPermissions(blocked, {}));
        if (QFile(blocked).open(QIODevice::ReadOnly))
            QSKIP("running as root: a file without read permission is still readable");
    }
    const QString after = makeFile(QStringLiteral("after.bin"), 5000);
    LocalService service;
    MainController controller;
    QVERIFY(service.start());
    QVERIFY(launch(controller, service.baseUrl()));

    controller.addFiles({bundle, after}, true);
    const auto &rows = controller.queue();
    QTRY_COMPARE_WITH_TIMEOUT(rows[1]->uploadState(), 3, 15000);
    // The file that cannot be read becomes an empty entry; the bundle is sent all the same.
    QCOMPARE(rows[0]->uploadState(), 3);
    const QJsonArray expected{
        QJsonArray{QStringLiteral("Tool.app/Contents/Info.plist"), 5000,
                   sha256Of(contentsOf(readable))},
        QJsonArray{QStringLiteral("Tool.app/Contents/secret.bin"), 0, sha256Of({})}};
    QProcess python;
    python.start(QStringLiteral("python3"),
                 {QStringLiteral("-c"), QStringLiteral(R"(
import hashlib, json, sys, zipfile
with zipfile.ZipFile(sys.argv[1]) as z:
    print(json.dumps(sorted([i.filename, i.file_size, hashlib.sha256(z.read(i)).hexdigest()]
                            for i in z.infolist())))
)"),
                  QDir(service.accountFolder()).filePath(QStringLiteral("Tool.app.zip"))});
    QVERIFY(python.waitForFinished());
    QCOMPARE(python.readAllStandardError(), QByteArray());
    QCOMPARE(QJsonDocument::fromJson(python.readAllStandardOutput()).array(), expected);
    QCOMPARE(
        sha256Of(contentsOf(QDir(service.accountFolder()).filePath(QStringLiteral("after.bin")))),
        sha256Of(contentsOf(after)));
}

void TestE2eFaults::unwritableTempFolderStopsOnlyTheBundle_data()
{
    QTest::addColumn<QString>("temp"); // relative names are made in the test's folder
    QTest::addColumn<int>("state");
    QTest::addColumn<QString>("status");
    // The archive cannot be created, which goes unchecked: the upload of the missing archive
    // never starts, and the row waits, "uploading", for the user to act on it.
    QTest::newRow("read-only folder") << QStringLiteral("read-only") << 1 << QString();
    QTest::newRow("kernel's /proc, read-only for root too")
        << QStringLiteral("/proc") << 1 << QString();
    // No temporary folder at all: no archive name can be had, and the row fails at once.
    QTest::newRow("missing folder")
        << QStringLiteral("missing") << 5 << QStringLiteral("no room for a temporary archive");
}

void TestE2eFaults::unwritableTempFolderStopsOnlyTheBundle()
{
    QFETCH(QString, temp);
    QFETCH(int, state);
    QFETCH(QString, status);
    const QString bundle = QDir(folder).filePath(QStringLiteral("Tool.app"));
    makeFile(QStringLiteral("Tool.app/Contents/Info.plist"), 5000);
    const QString after = makeFile(QStringLiteral("after.bin"), 5000);
    temp = QDir(folder).filePath(temp);
    if (temp.endsWith(QLatin1String("/read-only"))) {
        QVERIFY(QDir().mkpath(temp));
        QVERIFY(QFile::setPermissions(temp, QFileDevice::ReadOwner | QFileDevice::ExeOwner));
        QFile probe(QDir(temp).filePath(QStringLiteral("probe")));
        if (probe.open(QIODevice::WriteOnly))
            QSKIP("running as root: a read-only folder still takes new files");
    }
    LocalService service;
    MainController controller;
    QVERIFY(service.start());
    QVERIFY(launch(controller, service.baseUrl()));
    // The archive is made, or not, before addFiles() returns.
    qputenv("TMPDIR", QFile::encodeName(temp));
    controller.addFiles({bundle, after}, true);
    qunsetenv("TMPDIR");
    const auto &rows = controller.queue();
    QCOMPARE(rows[0]->uploadState(), state);
    if (state == 5)
        QCOMPARE(rows[0]->statusLine(), status);
    if (state == 1) {
        QCOMPARE(rows[1]->uploadState(), 0);
        QTest::qWait(1000); // nothing is being sent, so nothing ends the wait but the user
        QCOMPARE(rows[0]->uploadState(), 1);
        QCOMPARE(rows[1]->uploadState(), 0);
        controller.buttonPressed(rows[0].get(), 1);
        QCOMPARE(rows[0]->uploadState(), 4);
    }
    QTRY_COMPARE_WITH_TIMEOUT(rows[1]->uploadState(), 3, 15000);
    QVERIFY(
        !QFileInfo::exists(QDir(service.accountFolder()).filePath(QStringLiteral("Tool.app.zip"))));
    QVERIFY(QFileInfo::exists(QDir(bundle).filePath(QStringLiteral("Contents/Info.plist"))));
    QCOMPARE(savedQueue(controller), QStringList{bundle}); // by its own path, to try again
}

void TestE2eFaults::unwritableSettingsKeepQueueWhole_data()
{
    QTest::addColumn<bool>("diskFull");
    QTest::newRow("read-only folder") << false;
    // No file may grow by a byte, as on a full disk: unwritable for root too.
    QTest::newRow("disk full") << true;
}

void TestE2eFaults::unwritableSettingsKeepQueueWhole()
{
    QFETCH(bool, diskFull);
    LocalService service;
    MainController controller;
    QVERIFY(service.start({QStringLiteral("--delay-ms"), QStringLiteral("300")}));
    QVERIFY(launch(controller, service.baseUrl()));
    const QString a = makeFile(QStringLiteral("a.bin"), 3000);
    const QString gone = QDir(folder).filePath(QStringLiteral("gone.bin"));
    const QString b = makeFile(QStringLiteral("b.bin"), 3000);
    const QString c = makeFile(QStringLiteral("c.bin"), 3000);
    controller.addFiles({a, gone, b}, true);
    QCOMPARE(savedQueue(controller), (QStringList{a, gone, b}));
    const QString settingsFile = QSettings().fileName();
    const QByteArray lastGood = contentsOf(settingsFile);
    QVERIFY(lastGood.contains("UploadFiles"));

    std::function<void()> makeWritable;
    const auto restore = qScopeGuard([&] {
        if (makeWritable)
            makeWritable();
    });
    if (diskFull) {
        rlimit old{};
        QCOMPARE(getrlimit(RLIMIT_FSIZE, &old), 0);
        rlimit none = old;
        none.rlim_cur = 0;
        const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN); // writes fail, as on a full disk
        QCOMPARE(setrlimit(RLIMIT_FSIZE, &none), 0);
        makeWritable = [=] {
            setrlimit(RLIMIT_FSIZE, &old);
            std::signal(SIGXFSZ, oldHandler);
        };
    } else {
        const QString settingsFolder = QFileInfo(settingsFile).path();
        const auto permissions = QFile::permissions(settingsFolder);
        QVERIFY(QFile::setPermissions(settingsFolder, QFile::ReadOwner | QFile::ExeOwner));
        makeWritable = [=] { QFile::setPermissions(settingsFolder, permissions); };
        if (QFile(QDir(settingsFolder).filePath(QStringLiteral("probe")))
                .open(QIODevice::WriteOnly))
            QSKIP("running as root: a read-only folder still takes new files");
    }

    // Every change now fails to reach the disk: completions, a failed row, a new batch.
    const auto &rows = controller.queue();
    QTRY_COMPARE_WITH_TIMEOUT(rows[2]->uploadState(), 3, 15000);
    controller.addFiles({c}, true);
    QTRY_COMPARE_WITH_TIMEOUT(rows[3]->uploadState(), 3, 15000);
    controller.waitForSavedQueue();               // the writer gave up rather than hang
    QCOMPARE(contentsOf(settingsFile), lastGood); // the last good file is kept, not truncated

    QCOMPARE(rows.size(), size_t(4));
    const QStringList paths{a, gone, b, c};
    const QList<int> states{3, 5, 3, 3};
    for (int i = 0; i < 4; ++i) {
        QCOMPARE(rows[i]->fileWithPath(), paths[i]);
        QCOMPARE(rows[i]->uploadState(), states[i]);
    }

    // Writable again: the next save writes the queue as it is now, and keeps the account.
    makeWritable();
    makeWritable = nullptr;
    controller.saveUploadFiles();
    controller.waitForSavedQueue();
    const QString copy = QDir(folder).filePath(QStringLiteral("settings-copy.conf"));
    QVERIFY(QFile::copy(settingsFile, copy));
    const QSettings onDisk(copy, QSettings::IniFormat);
    QCOMPARE(onDisk.value(savedKey).toStringList(), QStringList{gone});
    QCOMPARE(onDisk.value(QStringLiteral("Account URL")).toString(), service.baseUrl());
}

QTEST_MAIN(TestE2eFaults)
#include "tst_e2e_faults.moc"
