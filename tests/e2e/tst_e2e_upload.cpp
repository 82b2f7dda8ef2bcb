// The road of an upload, against a real local kelvara service: the account is checked at
// start, files, folders and bundles are queued, sent one at a time, and land byte for byte.
#include "app/MainController.h"
#include "support/LocalService.h"
#include "ui/SubviewController.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QMainWindow>
#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

namespace {

QByteArray sha256Of(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QCryptographicHash hash(QCryptographicHash::Sha256);
    hash.addData(&file);
    return hash.result().toHex();
}

void writeFile(const QString &path, qint64 size, char seed)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QByteArray block(65536, Qt::Uninitialized);
    for (qsizetype i = 0; i < block.size(); ++i)
        block[i] = char(seed + i * 7);
    for (qint64 left = size; left > 0; left -= block.size())
        file.write(block.constData(), qMin<qint64>(left, block.size()));
}

/** @brief Runs the event loop until every row is done or failed, or the time is up. */
bool waitForQueue(const MainController &controller, int ms)
{
    return QTest::qWaitFor(
        [&controller] {
            for (const auto &row : controller.queue()) {
                if (row->uploadState() != 3 && row->uploadState() != 5)
                    return false;
            }
            return true;
        },
        ms);
}

} // namespace

class TestE2eUpload : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();
    void filesFoldersAndBundlesLandIntact();
    void openedFilesJoinAfterTheRestoredQueue();
    void closingTheWindowMinimisesAndTheUploadGoesOn();

private:
    /** @brief Settings and password of the demo account at the service, and a saved queue. */
    void useAccount(MainController &controller, const LocalService &service,
                    const QStringList &savedQueue = {});
    QStringList pathsOf(const MainController &controller) const;

    QTemporaryDir config;
    QTemporaryDir files;
};

void TestE2eUpload::initTestCase()
{
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, config.path());
    QCoreApplication::setOrganizationName(QStringLiteral("kelvara"));
    QCoreApplication::setApplicationName(QStringLiteral("Hoplift"));
}

void TestE2eUpload::init()
{
    QSettings().clear();
}

void TestE2eUpload::filesFoldersAndBundlesLandIntact()
{
    LocalService service;
    QString why;
    QVERIFY2(service.start({}, &why), qPrintable(why));

    writeFile(files.filePath(QStringLiteral("big.bin")), 12 * 1024 * 1024 + 17, 'a');
    writeFile(files.filePath(QStringLiteral("Photos/one.jpg")), 300000, 'b');
    writeFile(files.filePath(QStringLiteral("Photos/two.jpg")), 1, 'c');
    writeFile(files.filePath(QStringLiteral("Viewer.app/Contents/Info.plist")), 900, 'd');
    writeFile(files.filePath(QStringLiteral("empty.txt")), 0, 'e');

    QSettings().setValue(QStringLiteral("Account URL"), service.baseUrl());
    QSettings().setValue(QStringLiteral("Username"), QStringLiteral("demo"));
    MainController controller;
    QVERIFY(controller.savePassword(QStringLiteral("demo")));
    controller.applicationDidFinishLaunching();
    controller.mainWindow()->show();

    controller.addFiles(
        {files.filePath(QStringLiteral("big.bin")), files.filePath(QStringLiteral("Photos")),
         files.filePath(QStringLiteral("Viewer.app")), files.filePath(QStringLiteral("empty.txt"))},
        true);
    QCOMPARE(int(controller.queue().size()), 5);
    QVERIFY(waitForQueue(controller, 60000));
    for (const auto &row : controller.queue())
        QVERIFY2(row->uploadState() == 3, qPrintable(row->fileWithPath() + row->statusLine()));

    const QDir landed(service.accountFolder());
    for (const char *name : {"big.bin", "one.jpg", "two.jpg", "empty.txt"}) {
        const QString sent = name == QByteArray("one.jpg") || name == QByteArray("two.jpg")
                                 ? files.filePath(QStringLiteral("Photos/") + QLatin1String(name))
                                 : files.filePath(QLatin1String(name));
        QCOMPARE(sha256Of(landed.filePath(QLatin1String(name))), sha256Of(sent));
    }
    // The bundle went as one archive holding its files below the bundle's name.
    QProcess unzip;
    unzip.start(QStringLiteral("unzip"),
                {QStringLiteral("-Z1"), landed.filePath(QStringLiteral("Viewer.app.zip"))});
    QVERIFY(unzip.waitForFinished());
    QCOMPARE(QString::fromUtf8(unzip.readAllStandardOutput()).split(u'\n', Qt::SkipEmptyParts),
             QStringList{QStringLiteral("Viewer.app/Contents/Info.plist")});
    // Finished rows leave the saved queue.
    controller.waitForSavedQueue();
    QVERIFY(!QSettings().contains(QStringLiteral("UploadFiles")));
}

void TestE2eUpload::useAccount(MainController &controller, const LocalService &service,
                               const QStringList &savedQueue)
{
    QSettings().setValue(QStringLiteral("Account URL"), service.baseUrl());
    QSettings().setValue(QStringLiteral("Username"), QStringLiteral("demo"));
    if (!savedQueue.isEmpty())
        QSettings().setValue(QStringLiteral("UploadFiles"), savedQueue);
    QVERIFY(controller.savePassword(QStringLiteral("demo")));
}

QStringList TestE2eUpload::pathsOf(const MainController &controller) const
{
    QStringList paths;
    for (const auto &row : controller.queue())
        paths << row->fileWithPath();
    return paths;
}

void TestE2eUpload::openedFilesJoinAfterTheRestoredQueue()
{
    LocalService service;
    QString why;
    QVERIFY2(service.start({}, &why), qPrintable(why));
    QStringList paths;
    for (const char *name : {"saved1.txt", "saved2.txt", "opened.txt", "later.txt"}) {
        paths << files.filePath(QLatin1String(name));
        writeFile(paths.last(), 1000, name[0]);
    }
    MainController controller;
    useAccount(controller, service, paths.mid(0, 2));

    // The desktop hands a file over while Hoplift is still starting.
    controller.applicationOpenFiles({paths[2]});
    controller.applicationDidFinishLaunching();
    QCOMPARE(pathsOf(controller), paths.mid(0, 3));
    QVERIFY(waitForQueue(controller, 30000));

    // Handed to the running Hoplift with nothing uploading: it is sent at once.
    controller.applicationOpenFiles({paths[3]});
    QCOMPARE(pathsOf(controller), paths);
    QVERIFY(waitForQueue(controller, 30000));
    QCOMPARE(controller.queue().back()->uploadState(), 3);
    QVERIFY(QFileInfo::exists(QDir(service.accountFolder()).filePath(QStringLiteral("later.txt"))));
}

void TestE2eUpload::closingTheWindowMinimisesAndTheUploadGoesOn()
{
    // The service answers late, so the upload is still under way when the window closes.
    LocalService service;
    QString why;
    QVERIFY2(service.start({QStringLiteral("--delay-ms"), QStringLiteral("800")}, &why),
             qPrintable(why));
    const QString path = files.filePath(QStringLiteral("patient.bin"));
    writeFile(path, 2 * 1024 * 1024, 'p');
    MainController controller;
    useAccount(controller, service);
    controller.applicationDidFinishLaunching();
    controller.mainWindow()->show();
    controller.addFiles({path}, true);
    QTRY_VERIFY(controller.queue().front()->isUploading());

    QVERIFY(!controller.mainWindow()->close());
    QVERIFY(controller.mainWindow()->isMinimized());
    QVERIFY(waitForQueue(controller, 30000));
    QCOMPARE(controller.queue().front()->uploadState(), 3);
    QCOMPARE(sha256Of(QDir(service.accountFolder()).filePath(QStringLiteral("patient.bin"))),
             sha256Of(path));
}

QTEST_MAIN(TestE2eUpload)
#include "tst_e2e_upload.moc"
