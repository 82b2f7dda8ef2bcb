// The queue end to end against a real kelvara-local or a scripted service: what an answer, the
// user, or a fault from outside makes of a row, and that the rest of the queue is not lost.
#include "app/MainController.h"
#include "support/E2eSupport.h"
#include "support/LocalService.h"
#include "ui/SubviewController.h"

#include <QElapsedTimer>
#include <QLabel>
#include <QMainWindow>
#include <QScopeGuard>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <csignal>
#include <cstdlib>
#include <sys/resource.h>

using namespace Qt::StringLiterals;

namespace {

QByteArray contentsOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// A letter for each row's state: Queued, Uploading, Registering, Done, Stopped, Failed.
QString statesOf(const MainController &controller)
{
    QString states;
    for (const auto &row : controller.queue())
        states += QChar(u"QURDSF"[row->uploadState()]);
    return states;
}

QStringList saved(MainController &controller)
{
    controller.waitForSavedQueue();
    return QSettings().value(u"UploadFiles"_s).toStringList();
}

} // namespace

class TestE2eQueue : public QObject
{
    Q_OBJECT
    QTemporaryDir files, config;
    QString folder;
    int testNumber = 0;

    QString makeFile(QString name, int size = 3000) { return makePatternFile(folder, name, size); }

private Q_SLOTS:
    void init()
    {
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, config.path());
        QCoreApplication::setOrganizationName(u"kelvara"_s);
        QCoreApplication::setApplicationName(u"Hoplift"_s);
        QSettings().clear();
        folder = files.filePath(QString::number(++testNumber)); // made with its first file
    }

    void answerDecidesTheRowAndTheUserEndsTheWait_data()
    {
        QTest::addColumn<QByteArray>("answer"); // to each upload; empty: nobody listens any more
        QTest::addColumn<QString>("expected");  // a's and b's states, then a's status line
        QTest::newRow("500") << "500 Server Error"_ba << u"FF Error during upload..."_s;
        // No answer and no error: the row stays "uploading" until the user acts.
        QTest::newRow("connection refused") << QByteArray() << u"SU Stopped (2.9 KB)"_s;
        // Redirects are followed without a limit: the same, request after request.
        QTest::newRow("redirect to itself") << "302"_ba << u"SU Stopped (2.9 KB)"_s;
    }

    void answerDecidesTheRowAndTheUserEndsTheWait()
    {
        QFETCH(QByteArray, answer);
        QFETCH(QString, expected);
        QTcpServer server;
        QVERIFY(server.listen(QHostAddress::LocalHost));
        const QString url = u"http://127.0.0.1:%1"_s.arg(server.serverPort());
        const bool loop = answer == "302";
        if (loop)
            answer += " Found\r\nLocation: " + url.toUtf8() + "/api/assets";
        // The documents, fetched below whatever path, tell of plenty of space; uploads are counted.
        int uploads = 0;
        connect(&server, &QTcpServer::newConnection, [&] {
            QTcpSocket *socket = server.nextPendingConnection();
            connect(socket, &QTcpSocket::readyRead, socket, [&, socket] {
                const QByteArray request = socket->peek(socket->bytesAvailable()).toLower();
                const qsizetype headEnd = request.indexOf("\r\n\r\n");
                const qsizetype at = request.indexOf("\ncontent-length: ");
                const qint64 length = at < 0 ? 0 : std::atoll(request.constData() + at + 17);
                if (headEnd < 0 || request.size() < headEnd + 4 + length)
                    return;
                const bool document = request.startsWith("get ");
                uploads += !document;
                socket->write(document
                                  ? "HTTP/1.1 200 OK\r\nContent-Length: 55\r\n\r\n"
                                    "<account><stats available_space='999999999'/></account>"_ba
                                  : "HTTP/1.1 " + answer + "\r\nContent-Length: 0\r\n\r\n");
                socket->disconnectFromHost();
            });
        });
        MainController controller;
        QVERIFY(launchDemoAccount(controller, url));
        if (answer.isEmpty())
            server.close();
        const QString a = makeFile(u"a.bin"_s);
        controller.addFiles({a, makeFile(u"b.bin"_s)}, true);
        const auto &rows = controller.queue();
        // However long the row waits, the window's events get their turn.
        QElapsedTimer sinceTick;
        qint64 gap = 0;
        QTimer tick;
        connect(&tick, &QTimer::timeout, [&] { gap = qMax(gap, sinceTick.restart()); });
        sinceTick.start();
        tick.start(10);
        const bool ended =
            QTest::qWaitFor([&] { return !rows[0]->isUploading() || uploads >= 100; },
                            answer.isEmpty() ? 1500 : 20000);
        QVERIFY2(gap < 500, qPrintable(u"events waited %1 ms"_s.arg(gap)));
        QVERIFY(ended != answer.isEmpty() && (uploads >= 100) == loop);
        if (rows[0]->isUploading())
            controller.buttonPressed(rows[0].get(), 1);
        // b goes next and fares the same, until the user deletes it: then nothing more is sent.
        QTRY_COMPARE(statesOf(controller) + u' ' + rows[0]->statusLine(), expected);
        const int beforeDelete = uploads;
        QTRY_VERIFY(!loop || uploads > beforeDelete + 10);
        controller.buttonPressed(rows[1].get(), 2);
        const int afterDelete = uploads; // one request may have been under way
        QVERIFY(!QTest::qWaitFor([&] { return uploads > afterDelete + 1; }, 1000));
        QCOMPARE(statesOf(controller), expected.left(1));
        QCOMPARE(saved(controller), QStringList{a});
    }

    void savedQueueMirrorsTheRowsAndOutlivesAFullDisk()
    {
        LocalService service;
        MainController controller;
        QVERIFY(service.start({u"--delay-ms"_s, u"500"_s}));
        QVERIFY(launchDemoAccount(controller, service.baseUrl()));
        const auto *caption = controller.mainWindow()->findChild<QLabel *>(u"StopRestartText"_s);
        const auto look = [&] { return statesOf(controller) + u' ' + caption->text(); };
        const auto &rows = controller.queue();
        const QString a = makeFile(u"a.bin"_s), b = makeFile(u"b.bin"_s), c = makeFile(u"c.bin"_s);
        const QString gone = QDir(folder).filePath(u"gone.bin"_s);
        controller.addFiles({a, b, gone, c}, true);
        QCOMPARE(saved(controller), (QStringList{a, b, gone, c}));
        QCOMPARE(look(), u"UQQQ Stop all"_s);
        QVERIFY(!controller.mainWindow()->close()); // closing only minimises: uploads go on
        QVERIFY(controller.mainWindow()->isMinimized() && rows[0]->isUploading());
        controller.stopRestartPressed();
        QCOMPARE(look(), u"SSSS Restart all"_s);
        controller.stopRestartPressed();
        QCOMPARE(look(), u"UQQQ Stop all"_s);
        controller.buttonPressed(rows[1].get(), 2); // a is being sent: it is not saved
        QCOMPARE(saved(controller), (QStringList{gone, c}));
        QTRY_COMPARE_WITH_TIMEOUT(statesOf(controller), u"DFD"_s, 15000);
        QCOMPARE(saved(controller), QStringList{gone}); // the failed row stays
        controller.buttonPressed(rows[1].get(), 2);     // nothing left to save
        QVERIFY(saved(controller).isEmpty() && !QSettings().contains(u"UploadFiles"_s));
        // A full disk, where no file may grow by a byte: a save fails without a hang and leaves
        // the last good file whole; the first save once it is writable writes the queue as it is.
        const QString e = makeFile(u"e.bin"_s);
        controller.addFiles({e}, true);
        QCOMPARE(saved(controller), QStringList{e});
        const QString settingsFile = QSettings().fileName();
        const QByteArray lastGood = contentsOf(settingsFile);
        std::signal(SIGXFSZ, SIG_IGN); // a write past the limit fails instead of ending the test
        rlimit old{};
        QCOMPARE(getrlimit(RLIMIT_FSIZE, &old), 0);
        const rlimit none{0, old.rlim_max};
        QCOMPARE(setrlimit(RLIMIT_FSIZE, &none), 0);
        auto restore = qScopeGuard([&] { setrlimit(RLIMIT_FSIZE, &old); });
        QTRY_COMPARE_WITH_TIMEOUT(statesOf(controller), u"DDD"_s, 15000);
        controller.waitForSavedQueue();
        QCOMPARE(contentsOf(settingsFile), lastGood);
        QCOMPARE(setrlimit(RLIMIT_FSIZE, &old), 0);
        controller.saveUploadFiles();
        controller.waitForSavedQueue();
        QCOMPARE(contentsOf(settingsFile),
                 "[General]\nAccount%20URL=" + service.baseUrl().toUtf8() + "\nUsername=demo\n");
    }

    void rowThatCannotGoLeavesTheNextAlone_data()
    {
        QTest::addColumn<QString>("expected"); // its state and the next's, then its status line
        QTest::newRow("file missing") << u"FD file not found"_s;
        // A 20 MiB file, and the space the service reports.
        QTest::newRow("10 MiB") << u"FD file exceeds your kelvara storage"_s;
        QTest::newRow("unlimited") << u"DD Completed (20.00 MB)"_s;
        // Changed while sent: a body short (after the service's 15 s wait) or long is refused.
        QTest::newRow("file truncated") << u"FD Error during upload..."_s;
        QTest::newRow("file grown") << u"FD Error during upload..."_s;
        // Deleted, the file open since the upload began still reads whole.
        QTest::newRow("file deleted") << u"DD Completed (293.0 KB)"_s;
        // A read-only temporary folder (/proc, even for root): the failed archive goes unchecked,
        // and the row waits, "uploading", with nothing sent, for the user.
        QTest::newRow("/proc") << u"SD Stopped (empty file)"_s;
        // No temporary folder at all: no archive name can be had, and the row fails at once.
        QTest::newRow("nowhere") << u"FD no room for a temporary archive"_s;
    }

    void rowThatCannotGoLeavesTheNextAlone()
    {
        QFETCH(QString, expected);
        const QByteArray fault = QTest::currentDataTag(); // a quota, or a temporary folder
        const bool quota = fault == "10 MiB" || fault == "unlimited";
        const bool bundle = fault == "/proc" || fault == "nowhere";
        const bool done = expected.startsWith(u"DD");
        const QString next = makeFile(u"next.bin"_s, 300000);
        QFile accounts(QDir(folder).filePath(u"accounts"_s));
        QVERIFY(accounts.open(QIODevice::WriteOnly));
        accounts.write("[demo]\npassword = demo\nquota = " + (quota ? fault : "2 GiB") + '\n');
        accounts.close();
        LocalService service;
        MainController controller;
        QVERIFY(service.start({u"--accounts"_s, accounts.fileName()}));
        QVERIFY(launchDemoAccount(controller, service.baseUrl()));
        if (bundle) {
            makeFile(u"Tool.app/Contents/Info.plist"_s, 5000);
            qputenv("TMPDIR", QFile::encodeName(QDir(folder).filePath(QString::fromUtf8(fault))));
        } else if (fault != "file missing") {
            makeFile(u"subject.bin"_s, quota ? 20 << 20 : 300000);
        }
        const QString subject = QDir(folder).filePath(bundle ? u"Tool.app"_s : u"subject.bin"_s);
        const QByteArray original = contentsOf(subject);
        // The subject's file is open, or its archive made or not, when addFiles() returns.
        controller.addFiles({subject, next}, true);
        qunsetenv("TMPDIR");
        const auto &rows = controller.queue();
        QVERIFY(!statesOf(controller).startsWith(u'F') || rows[1]->isUploading()); // at once
        QFile file(subject);
        if (fault == "file truncated")
            QVERIFY(file.resize(1000));
        else if (fault == "file grown")
            QVERIFY(file.open(QIODevice::Append) && file.write(QByteArray(100000, 'x')) == 100000);
        else if (fault == "file deleted")
            QVERIFY(file.remove());
        file.close();
        if (expected.startsWith(u'S')) { // nothing is sent, so nothing but the user ends the wait
            QVERIFY(!QTest::qWaitFor([&] { return statesOf(controller) != u"UQ"; }, 1000));
            controller.buttonPressed(rows[0].get(), 1);
        }
        QTRY_COMPARE_WITH_TIMEOUT(statesOf(controller) + u' ' + rows[0]->statusLine(), expected,
                                  30000);
        const QDir landed(service.accountFolder());
        QVERIFY(contentsOf(landed.filePath(u"next.bin"_s)) == contentsOf(next));
        const QString stored = landed.filePath(bundle ? u"Tool.app.zip"_s : u"subject.bin"_s);
        QCOMPARE(QFileInfo::exists(stored), done);
        QVERIFY(!done || contentsOf(stored) == original);
        // A row that did not go stays in the saved queue by its own path, to try again.
        QCOMPARE(saved(controller), done ? QStringList() : QStringList{subject});
    }
};

QTEST_MAIN(TestE2eQueue)
#include "tst_e2e_queue.moc"
