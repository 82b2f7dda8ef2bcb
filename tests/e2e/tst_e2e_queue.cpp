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
#include <sys/resource.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int Queued = 0, Uploading = 1, Done = 3, Stopped = 4, Failed = 5;

QByteArray contentsOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QList<int> statesOf(const MainController &controller)
{
    QList<int> states;
    for (const auto &row : controller.queue())
        states << row->uploadState();
    return states;
}

QStringList saved(MainController &controller)
{
    controller.waitForSavedQueue();
    return QSettings().value(u"UploadFiles"_s).toStringList();
}

// Answers the account document (plenty of space) for the account and user documents below
// any path, and every other request, an upload, with the status line `answer`; counts those.
class ScriptedService : public QTcpServer
{
public:
    QByteArray answer;
    int uploads = 0;
    QString url() const { return u"http://127.0.0.1:%1"_s.arg(serverPort()); }

protected:
    void incomingConnection(qintptr descriptor) override
    {
        auto *socket = new QTcpSocket(this);
        socket->setSocketDescriptor(descriptor);
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] {
            const QByteArray request = socket->peek(socket->bytesAvailable()).toLower();
            const qsizetype headEnd = request.indexOf("\r\n\r\n");
            const qsizetype at = request.indexOf("\ncontent-length: ");
            const qint64 length = at < 0 ? 0 : request.mid(at + 17).split('\r')[0].toLongLong();
            if (headEnd < 0 || request.size() < headEnd + 4 + length)
                return;
            socket->readAll();
            const QByteArray line = request.left(request.indexOf('\r'));
            const bool document = line.contains("/api/account.xml") || line.contains("/api/user");
            uploads += !document;
            const QByteArray body =
                document ? R"(<account><stats available_space="1000000000"/></account>)" : "";
            socket->write("HTTP/1.1 " + (document ? QByteArray("200 OK") : answer) +
                          "\r\nContent-Length: " + QByteArray::number(body.size()) +
                          "\r\nConnection: close\r\n\r\n" + body);
            socket->disconnectFromHost();
        });
    }
};

} // namespace

class TestE2eQueue : public QObject
{
    Q_OBJECT
    QTemporaryDir files, config;
    QString folder;
    int testNumber = 0;

    QString makeFile(const QString &name, qint64 size = 3000)
    {
        return makePatternFile(folder, name, size);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, config.path());
        QCoreApplication::setOrganizationName(u"kelvara"_s);
        QCoreApplication::setApplicationName(u"Hoplift"_s);
    }

    void init()
    {
        QSettings().clear();
        folder = files.filePath(QString::number(++testNumber));
        QVERIFY(QDir().mkpath(folder));
    }

    void answerDecidesTheRowAndTheUserEndsTheWait_data()
    {
        QTest::addColumn<QByteArray>("answer"); // empty: nobody listens any more
        QTest::addColumn<int>("state");
        QTest::addColumn<QString>("status");
        QTest::newRow("500") << QByteArray("500 Internal Server Error") << Failed
                             << u"Error during upload..."_s;
        // No answer and no error: the row stays "uploading" until the user acts.
        QTest::newRow("connection refused") << QByteArray() << Stopped << u"Stopped (2.9 KB)"_s;
        // Redirects are followed without a limit: the same, request after request.
        QTest::newRow("redirect to itself")
            << QByteArray("302") << Stopped << u"Stopped (2.9 KB)"_s;
    }

    void answerDecidesTheRowAndTheUserEndsTheWait()
    {
        QFETCH(QByteArray, answer);
        QFETCH(int, state);
        QFETCH(QString, status);
        ScriptedService server;
        QVERIFY(server.listen(QHostAddress::LocalHost));
        const bool loop = answer == "302";
        server.answer =
            loop ? "302 Found\r\nLocation: " + server.url().toUtf8() + "/api/assets" : answer;
        MainController controller;
        QVERIFY(launchDemoAccount(controller, server.url()));
        if (answer.isEmpty())
            server.close();
        const QString a = makeFile(u"a.bin"_s);
        controller.addFiles({a, makeFile(u"b.bin"_s)}, true);
        const auto &rows = controller.queue();
        // However long the row waits, the window's events get their turn.
        QElapsedTimer sinceTick;
        qint64 longestGap = 0;
        QTimer tick;
        connect(&tick, &QTimer::timeout,
                [&] { longestGap = qMax(longestGap, sinceTick.restart()); });
        sinceTick.start();
        tick.start(10);
        const bool ended =
            QTest::qWaitFor([&] { return !rows[0]->isUploading() || server.uploads >= 100; },
                            answer.isEmpty() ? 1500 : 20000);
        tick.stop();
        QVERIFY2(longestGap < 500, qPrintable(u"events waited %1 ms"_s.arg(longestGap)));
        QVERIFY(ended != answer.isEmpty() && (server.uploads >= 100) == loop);
        if (rows[0]->isUploading())
            controller.buttonPressed(rows[0].get(), 1);
        QCOMPARE(rows[0]->uploadState(), state);
        QCOMPARE(rows[0]->statusLine(), status);
        // b goes next and fares the same, until the user deletes it: then nothing more is sent.
        QTRY_COMPARE(rows[1]->uploadState(), state == Failed ? Failed : Uploading);
        const int beforeDelete = server.uploads;
        QTRY_VERIFY(!loop || server.uploads > beforeDelete + 10);
        controller.buttonPressed(rows[1].get(), 2);
        const int afterDelete = server.uploads; // one request may have been under way
        QVERIFY(!QTest::qWaitFor([&] { return server.uploads > afterDelete + 1; }, 1000));
        QCOMPARE(statesOf(controller), QList<int>{state});
        QCOMPARE(saved(controller), QStringList{a});
    }

    void savedQueueMirrorsTheRowsAndOutlivesAFullDisk()
    {
        LocalService service;
        MainController controller;
        QVERIFY(service.start({u"--delay-ms"_s, u"500"_s}));
        QVERIFY(launchDemoAccount(controller, service.baseUrl()));
        const auto *caption = controller.mainWindow()->findChild<QLabel *>(u"StopRestartText"_s);
        const auto &rows = controller.queue();
        const QString a = makeFile(u"a.bin"_s), b = makeFile(u"b.bin"_s), c = makeFile(u"c.bin"_s);
        const QString gone = QDir(folder).filePath(u"gone.bin"_s);
        controller.addFiles({a, b, gone, c}, true);
        QCOMPARE(saved(controller), (QStringList{a, b, gone, c}));
        QCOMPARE(statesOf(controller), (QList<int>{Uploading, Queued, Queued, Queued}));
        QCOMPARE(caption->text(), u"Stop all"_s);
        QVERIFY(!controller.mainWindow()->close()); // closing only minimises: uploads go on
        QVERIFY(controller.mainWindow()->isMinimized() && rows[0]->isUploading());
        controller.stopRestartPressed();
        QCOMPARE(statesOf(controller), (QList<int>{Stopped, Stopped, Stopped, Stopped}));
        QCOMPARE(caption->text(), u"Restart all"_s);
        controller.stopRestartPressed();
        QCOMPARE(statesOf(controller), (QList<int>{Uploading, Queued, Queued, Queued}));
        QCOMPARE(caption->text(), u"Stop all"_s);
        controller.buttonPressed(rows[1].get(), 2); // a is being sent: it is not saved
        QCOMPARE(saved(controller), (QStringList{gone, c}));
        QTRY_COMPARE_WITH_TIMEOUT(statesOf(controller), (QList<int>{Done, Failed, Done}), 15000);
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
        QTRY_COMPARE_WITH_TIMEOUT(statesOf(controller), (QList<int>{Done, Done, Done}), 15000);
        controller.waitForSavedQueue();
        QCOMPARE(contentsOf(settingsFile), lastGood);
        QCOMPARE(setrlimit(RLIMIT_FSIZE, &old), 0);
        controller.saveUploadFiles();
        controller.waitForSavedQueue();
        const QByteArray now = contentsOf(settingsFile);
        QVERIFY(!now.contains("UploadFiles"));
        QVERIFY(now.contains("Account%20URL=" + service.baseUrl().toUtf8() + '\n'));
    }

    void rowThatCannotGoLeavesTheNextAlone_data()
    {
        QTest::addColumn<QByteArray>("fault");
        QTest::addColumn<int>("state");
        QTest::addColumn<QString>("status");
        QTest::newRow("file missing") << QByteArray("missing") << Failed << u"file not found"_s;
        // A 20 MiB file, and the space the service reports.
        QTest::newRow("10 MiB left")
            << QByteArray("10 MiB") << Failed << u"file exceeds your kelvara storage"_s;
        QTest::newRow("unlimited (-1)")
            << QByteArray("unlimited") << Done << u"Completed (20.00 MB)"_s;
        // The body ends short: the service waits for the rest, times out after 15 s, refuses.
        QTest::newRow("file truncated while sent")
            << QByteArray("truncated") << Failed << u"Error during upload..."_s;
        // The body runs past its Content-Length, so the service misses its end and refuses.
        QTest::newRow("file grown while sent")
            << QByteArray("grown") << Failed << u"Error during upload..."_s;
        // Deleted, the file open since the upload began still reads whole.
        QTest::newRow("file deleted while sent")
            << QByteArray("deleted") << Done << u"Completed (293.0 KB)"_s;
        // No archive can be created there, which goes unchecked: the row waits, "uploading",
        // with nothing sent, for the user. /proc is read-only for root too.
        QTest::newRow("temporary folder read-only")
            << QByteArray("/proc") << Stopped << u"Stopped (empty file)"_s;
        // No temporary folder at all: no archive name can be had, and the row fails at once.
        QTest::newRow("temporary folder missing")
            << QByteArray("nowhere") << Failed << u"no room for a temporary archive"_s;
    }

    void rowThatCannotGoLeavesTheNextAlone()
    {
        QFETCH(QByteArray, fault);
        QFETCH(int, state);
        QFETCH(QString, status);
        const bool quota = fault.endsWith("MiB") || fault == "unlimited";
        const bool bundle = fault == "/proc" || fault == "nowhere";
        QStringList options;
        if (quota) {
            options = {u"--accounts"_s, QDir(folder).filePath(u"accounts"_s)};
            QFile accounts(options[1]);
            QVERIFY(accounts.open(QIODevice::WriteOnly) &&
                    accounts.write("[demo]\npassword = demo\nquota = " + fault + '\n') > 0);
        }
        LocalService service;
        MainController controller;
        QVERIFY(service.start(options));
        QVERIFY(launchDemoAccount(controller, service.baseUrl()));
        const QString subject = bundle ? QDir(folder).filePath(u"Tool.app"_s)
                                : fault == "missing"
                                    ? QDir(folder).filePath(u"subject.bin"_s)
                                    : makeFile(u"subject.bin"_s, quota ? 20 << 20 : 300000);
        const QByteArray original = contentsOf(subject);
        const QString next = makeFile(u"next.bin"_s, 300000);
        if (bundle) {
            makeFile(u"Tool.app/Contents/Info.plist"_s, 5000);
            qputenv("TMPDIR", QFile::encodeName(QDir(folder).filePath(QString::fromUtf8(fault))));
        }
        // The subject's file is open, or its archive made or not, when addFiles() returns.
        controller.addFiles({subject, next}, true);
        qunsetenv("TMPDIR");
        const auto &rows = controller.queue();
        if (rows[0]->uploadState() == Failed) // the next starts at once
            QVERIFY(rows[1]->isUploading());
        QFile file(subject);
        if (fault == "truncated")
            QVERIFY(file.resize(1000));
        else if (fault == "grown")
            QVERIFY(file.open(QIODevice::Append) && file.write(QByteArray(100000, 'x')) == 100000);
        else if (fault == "deleted")
            QVERIFY(file.remove());
        file.close();
        if (state == Stopped) { // nothing is sent, so nothing but the user ends the wait
            const QList<int> waiting{Uploading, Queued};
            QVERIFY(!QTest::qWaitFor([&] { return statesOf(controller) != waiting; }, 1000));
            controller.buttonPressed(rows[0].get(), 1);
        }
        QTRY_COMPARE_WITH_TIMEOUT(statesOf(controller), (QList<int>{state, Done}), 30000);
        QCOMPARE(rows[0]->statusLine(), status);
        const QDir landed(service.accountFolder());
        QVERIFY(contentsOf(landed.filePath(u"next.bin"_s)) == contentsOf(next));
        const QString stored = landed.filePath(bundle ? u"Tool.app.zip"_s : u"subject.bin"_s);
        QCOMPARE(QFileInfo::exists(stored), state == Done);
        QVERIFY(state != Done || contentsOf(stored) == original);
        // A row that did not go stays in the saved queue by its own path, to try again.
        QCOMPARE(saved(controller), state == Done ? QStringList() : QStringList{subject});
    }
};

QTEST_MAIN(TestE2eQueue)
#include "tst_e2e_queue.moc"
