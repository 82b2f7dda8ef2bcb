// The queue's rules, end to end: which row goes next (missing files, the space left), what the
// upload's answer makes of a row, a bundle's archive as the service stores it, stop all and
// restart all, and the saved queue under "UploadFiles".
#include "app/MainController.h"
#include "support/E2eSupport.h"
#include "support/LocalService.h"
#include "ui/SubviewController.h"

#include <QCryptographicHash>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLabel>
#include <QMainWindow>
#include <QProcess>
#include <QSettings>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

#include <ctime>
#include <memory>

namespace {

const QString savedKey = QStringLiteral("UploadFiles");

QString sha256Of(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromLatin1(
        QCryptographicHash::hash(file.readAll(), QCryptographicHash::Sha256).toHex());
}

/**
 * @brief A service that answers by request path: the account document (plenty of space), the
 * user document, and any other request (the upload) with the status line uploadStatus.
 */
class CannedService : public QTcpServer
{
public:
    QByteArray uploadStatus;

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
            const QByteArray path = head.left(head.indexOf('\r')).split(' ').value(1);
            request->clear();
            QByteArray body;
            if (path == "/api/account.xml")
                body = R"(<account><stats available_space="1000000000"/></account>)";
            else if (path == "/api/user")
                body = "<user><first-name>Dana</first-name><last-name>Demo</last-name></user>";
            const QByteArray status = body.isEmpty() ? uploadStatus : QByteArray("200 OK");
            socket->write("HTTP/1.1 " + status + "\r\nContent-Type: application/xml\r\n" +
                          "Content-Length: " + QByteArray::number(body.size()) +
                          "\r\nConnection: close\r\n\r\n" + body);
            socket->disconnectFromHost();
        });
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    }
};

} // namespace

class TestE2eQueue : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();
    void missingFileFailsAndTheNextStartsAtOnce();
    void uploadAnswerDecidesTheRow_data();
    void uploadAnswerDecidesTheRow();
    void filesBeyondTheSpaceLeftAreSkipped_data();
    void filesBeyondTheSpaceLeftAreSkipped();
    void bundleArrivesAsDeflatedArchive();
    void stopAllThenRestartAll();
    void savedQueueFollowsTheRows();

private:
    /** @brief A file of size bytes in this test's own folder. */
    QString makeFile(const QString &name, qint64 size);
    /** @brief Launches the controller against the demo account at baseUrl. */
    bool launch(MainController &controller, const QString &baseUrl);
    /** @brief Starts the service with these options, then launches against it. */
    bool launch(MainController &controller, LocalService &service, const QStringList &options);

    QTemporaryDir files;
    QTemporaryDir config;
    QString folder;
    int testNumber = 0;
};

void TestE2eQueue::initTestCase()
{
    // Local time is UTC+5:30 here, so an archive's local times cannot pass for universal ones.
    qputenv("TZ", "HLT-5:30");
    tzset();
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, config.path());
    QCoreApplication::setOrganizationName(QStringLiteral("kelvara"));
    QCoreApplication::setApplicationName(QStringLiteral("Hoplift"));
}

void TestE2eQueue::init()
{
    QSettings().clear();
    folder = files.filePath(QString::number(++testNumber));
    QVERIFY(QDir().mkpath(folder));
}

QString TestE2eQueue::makeFile(const QString &name, qint64 size)
{
    return makePatternFile(folder, name, size);
}

bool TestE2eQueue::launch(MainController &controller, const QString &baseUrl)
{
    return launchDemoAccount(controller, baseUrl);
}

bool TestE2eQueue::launch(MainController &controller, LocalService &service,
                          const QStringList &options)
{
    QString why;
    if (service.start(options, &why))
        return launch(controller, service.baseUrl());
    qWarning("%s", qPrintable(why));
    return false;
}

void TestE2eQueue::missingFileFailsAndTheNextStartsAtOnce()
{
    LocalService service;
    MainController controller;
    QVERIFY(launch(controller, service, {QStringLiteral("--delay-ms"), QStringLiteral("300")}));
    const QStringList paths = {makeFile(QStringLiteral("a.bin"), 5000),
                               makeFile(QStringLiteral("b.bin"), 5000),
                               makeFile(QStringLiteral("c.bin"), 5000)};
    controller.addFiles(paths, true);
    const auto &rows = controller.queue();
    QVERIFY(rows[0]->isUploading());
    QVERIFY(QFile::remove(paths[1]));

    QTRY_COMPARE_WITH_TIMEOUT(rows[1]->uploadState(), 5, 15000);
    QCOMPARE(rows[1]->statusLine(), QStringLiteral("file not found"));
    QCOMPARE(rows[0]->uploadState(), 3);
    QVERIFY(rows[2]->isUploading()); // the service answers late: C cannot be done yet
    QTRY_COMPARE_WITH_TIMEOUT(rows[2]->uploadState(), 3, 15000);
}

void TestE2eQueue::uploadAnswerDecidesTheRow_data()
{
    QTest::addColumn<QByteArray>("answer"); // empty: the service is gone
    QTest::addColumn<int>("state");
    QTest::addColumn<QString>("status");
    QTest::newRow("200") << QByteArray("200 OK") << 3 << QStringLiteral("Completed (100 Bytes)");
    QTest::newRow("201") << QByteArray("201 Created") << 3
                         << QStringLiteral("Completed (100 Bytes)");
    QTest::newRow("500") << QByteArray("500 Internal Server Error") << 5
                         << QStringLiteral("Error during upload...");
    QTest::newRow("connection refused") << QByteArray() << 1 << QString();
}

void TestE2eQueue::uploadAnswerDecidesTheRow()
{
    QFETCH(QByteArray, answer);
    QFETCH(int, state);
    QFETCH(QString, status);
    CannedService server;
    server.uploadStatus = answer;
    QVERIFY(server.listen(QHostAddress::LocalHost));
    MainController controller;
    QVERIFY(launch(controller, QStringLiteral("http://127.0.0.1:%1").arg(server.serverPort())));
    if (answer.isEmpty())
        server.close();

    controller.addFiles({makeFile(QStringLiteral("one.bin"), 100)}, true);
    SubviewController *row = controller.queue().front().get();
    if (state != 1) {
        QTRY_COMPARE_WITH_TIMEOUT(row->uploadState(), state, 10000);
        QCOMPARE(row->statusLine(), status);
        return;
    }
    // No answer comes and no error is reported: the row waits for the user.
    QTest::qWait(1500);
    QCOMPARE(row->uploadState(), 1);
    controller.buttonPressed(row, 1);
    QCOMPARE(row->uploadState(), 4);
}

void TestE2eQueue::filesBeyondTheSpaceLeftAreSkipped_data()
{
    QTest::addColumn<QString>("quota");
    QTest::addColumn<int>("bigState");
    QTest::addColumn<QString>("bigStatus");
    QTest::newRow("10 MiB left") << QStringLiteral("10 MiB") << 5
                                 << QStringLiteral("file exceeds your kelvara storage");
    QTest::newRow("unlimited") << QStringLiteral("unlimited") << 3
                               << QStringLiteral("Completed (20.00 MB)");
}

void TestE2eQueue::filesBeyondTheSpaceLeftAreSkipped()
{
    QFETCH(QString, quota);
    QFETCH(int, bigState);
    QFETCH(QString, bigStatus);
    QFile accounts(QDir(folder).filePath(QStringLiteral("accounts")));
    QVERIFY(accounts.open(QIODevice::WriteOnly));
    accounts.write("[demo]\npassword = demo\nquota = " + quota.toUtf8() + '\n');
    accounts.close();
    LocalService service;
    MainController controller;
    QVERIFY(launch(controller, service, {QStringLiteral("--accounts"), accounts.fileName()}));

    controller.addFiles({makeFile(QStringLiteral("big.bin"), 20 * 1024 * 1024),
                         makeFile(QStringLiteral("small.bin"), 1024 * 1024)},
                        true);
    const auto &rows = controller.queue();
    QTRY_COMPARE_WITH_TIMEOUT(rows[1]->uploadState(), 3, 30000);
    QCOMPARE(rows[0]->uploadState(), bigState);
    QCOMPARE(rows[0]->statusLine(), bigStatus);
    const QDir landed(service.accountFolder());
    QCOMPARE(QFileInfo::exists(landed.filePath(QStringLiteral("big.bin"))), bigState == 3);
}

void TestE2eQueue::bundleArrivesAsDeflatedArchive()
{
    LocalService service;
    MainController controller;
    QVERIFY(launch(controller, service, {}));

    // Odd seconds: the archive keeps times in steps of two.
    const QDate day(2021, 7, 14);
    const struct
    {
        QString name;
        QDateTime modified;
    } contents[] = {
        {QStringLiteral("Contents/Info.plist"), QDateTime(day, QTime(8, 7, 43))},
        {QStringLiteral("Contents/Resources/pic.jpg"), QDateTime(day, QTime(23, 59, 59))},
        {QStringLiteral(".DS_Store"), {}},
        {QStringLiteral("Contents/._pic.jpg"), {}}};
    QJsonArray expected;
    for (const auto &entry : contents) {
        const QString path = makeFile(QStringLiteral("Photos.app/") + entry.name, 70000);
        if (!entry.modified.isValid())
            continue; // hidden: left out
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadWrite));
        QVERIFY(file.setFileTime(entry.modified, QFileDevice::FileModificationTime));
        const QDateTime stored = entry.modified.addSecs(-(entry.modified.time().second() % 2));
        expected << QJsonArray{QStringLiteral("Photos.app/") + entry.name, 8,
                               stored.toString(QStringLiteral("yyyy-MM-dd HH:mm:ss")),
                               sha256Of(path)};
    }
    controller.addFiles({QDir(folder).filePath(QStringLiteral("Photos.app"))}, true);
    QTRY_COMPARE_WITH_TIMEOUT(controller.queue().front()->uploadState(), 3, 15000);

    const QString archive =
        QDir(service.accountFolder()).filePath(QStringLiteral("Photos.app.zip"));
    QProcess python;
    python.start(QStringLiteral("python3"), {QStringLiteral("-c"), QStringLiteral(R"(
import hashlib, json, sys, zipfile
with zipfile.ZipFile(sys.argv[1]) as z:
    print(json.dumps(sorted([i.filename, i.compress_type, '%d-%02d-%02d %02d:%02d:%02d' % i.date_time,
                             hashlib.sha256(z.read(i)).hexdigest()] for i in z.infolist())))
)"),
                                             archive});
    QVERIFY(python.waitForFinished());
    QCOMPARE(python.readAllStandardError(), QByteArray());
    QCOMPARE(QJsonDocument::fromJson(python.readAllStandardOutput()).array(), expected);
    QProcess unzip;
    unzip.start(QStringLiteral("unzip"), {QStringLiteral("-tq"), archive});
    QVERIFY(unzip.waitForFinished());
    QCOMPARE(unzip.exitCode(), 0);
}

void TestE2eQueue::stopAllThenRestartAll()
{
    LocalService service;
    MainController controller;
    QVERIFY(launch(controller, service, {QStringLiteral("--delay-ms"), QStringLiteral("1000")}));
    const auto *caption =
        controller.mainWindow()->findChild<QLabel *>(QStringLiteral("StopRestartText"));
    QVERIFY(caption);
    controller.addFiles({makeFile(QStringLiteral("a.bin"), 3000),
                         makeFile(QStringLiteral("b.bin"), 3000),
                         makeFile(QStringLiteral("c.bin"), 3000)},
                        true);
    const auto &rows = controller.queue();
    QVERIFY(rows[0]->isUploading());
    QCOMPARE(caption->text(), QStringLiteral("Stop all"));

    controller.stopRestartPressed();
    for (const auto &row : rows)
        QCOMPARE(row->uploadState(), 4);
    QCOMPARE(caption->text(), QStringLiteral("Restart all"));

    controller.stopRestartPressed();
    QVERIFY(rows[0]->isUploading());
    QCOMPARE(rows[1]->uploadState(), 0);
    QCOMPARE(rows[2]->uploadState(), 0);
    QCOMPARE(caption->text(), QStringLiteral("Stop all"));
    QTRY_COMPARE_WITH_TIMEOUT(rows[2]->uploadState(), 3, 20000);
}

void TestE2eQueue::savedQueueFollowsTheRows()
{
    LocalService service;
    MainController controller;
    QVERIFY(launch(controller, service, {QStringLiteral("--delay-ms"), QStringLiteral("500")}));
    const auto saved = [&controller] {
        controller.waitForSavedQueue();
        return QSettings().value(savedKey).toStringList();
    };
    const auto &rows = controller.queue();
    const QString a = makeFile(QStringLiteral("a.bin"), 3000);
    const QString b = makeFile(QStringLiteral("b.bin"), 3000);
    const QString gone = QDir(folder).filePath(QStringLiteral("gone.bin"));
    const QString c = makeFile(QStringLiteral("c.bin"), 3000);

    controller.addFiles({a, b, gone, c}, true);
    QCOMPARE(saved(), (QStringList{a, b, gone, c}));
    QVERIFY(rows[0]->isUploading());
    controller.buttonPressed(rows[1].get(), 2); // the row being sent is not saved
    QCOMPARE(saved(), (QStringList{gone, c}));
    QTRY_COMPARE_WITH_TIMEOUT(rows[2]->uploadState(), 3, 15000);
    QCOMPARE(saved(), QStringList{gone}); // the failed row stays
    controller.buttonPressed(rows[1].get(), 2);
    controller.waitForSavedQueue();
    QVERIFY(!QSettings().contains(savedKey));

    const QString e = makeFile(QStringLiteral("e.bin"), 3000);
    const QString f = makeFile(QStringLiteral("f.bin"), 3000);
    controller.addFiles({e, f}, true);
    QCOMPARE(saved(), (QStringList{e, f}));
    controller.buttonPressed(rows[2].get(), 1); // e stops, f starts
    QVERIFY(rows[3]->isUploading());
    controller.buttonPressed(rows[0].get(), 2);
    QCOMPARE(saved(), QStringList{e});
    controller.applicationWillTerminate(); // f goes back to the queue
    QCOMPARE(saved(), (QStringList{e, f}));
}

QTEST_MAIN(TestE2eQueue)
#include "tst_e2e_queue.moc"
