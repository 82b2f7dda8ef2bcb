// One upload row: its size and time-left texts, what each state shows, where its button
// presses go, views made only on demand, and revealing its file over D-Bus.
#include "ui/QVRolloverButton.h"
#include "ui/QVSubView.h"
#include "ui/SubviewController.h"

#include <QApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusContext>
#include <QDesktopServices>
#include <QLabel>
#include <QPointer>
#include <QProgressBar>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

namespace {

using Clock = SubviewController::Clock;
Clock::time_point fakeNow;

void advance(double seconds)
{
    fakeNow += std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

class Presses : public SubviewActionObject
{
public:
    void buttonPressed(SubviewController *sender, int buttonIndex) override
    {
        indexes << buttonIndex;
        if (onPress)
            onPress(sender);
    }
    QList<int> indexes;
    std::function<void(SubviewController *)> onPress;
};

class UrlCatcher : public QObject
{
    Q_OBJECT
public Q_SLOTS:
    void open(const QUrl &url) { Q_EMIT opened(url); }
Q_SIGNALS:
    void opened(const QUrl &url);
};

// Stands in for the desktop's file manager on the session bus.
class FakeFileManager : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.FileManager1")
public:
    bool fail = false;
public Q_SLOTS:
    void ShowItems(const QStringList &uris, const QString &startupId)
    {
        Q_UNUSED(startupId);
        if (fail)
            sendErrorReply(QDBusError::Failed, QStringLiteral("no window"));
        Q_EMIT shown(uris);
    }
Q_SIGNALS:
    void shown(const QStringList &uris);
};

const QString fileManager = QStringLiteral("org.freedesktop.FileManager1");

} // namespace

class TestSubviewController : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void cleanup();
    void sizeString_data();
    void sizeString();
    void timeLeft_data();
    void timeLeft();
    void progressRewritesOnlyTheUploadingLine();
    void eachStateShowsItsRow_data();
    void eachStateShowsItsRow();
    void rowLayoutFollowsWidthAndKeepsBottomDistances();
    void buttonPressesReachTheQueue_data();
    void buttonPressesReachTheQueue();
    void deletingTheRowFromItsOwnButtonIsSafe();
    void rowsHoldNoWidgetsUntilShown();
    void releasedViewComesBackWithTheSameRow();
    void sizeFollowsLinksArchivesAndLargeFiles();
    void revealAsksTheFileManagerWithAnEncodedUri();
    void revealFallsBackToTheFolder_data();
    void revealFallsBackToTheFolder();

private:
    std::unique_ptr<SubviewController> row(const QString &path, bool bundle = false);
    QString kib; // a file of 1024 bytes
    QTemporaryDir dir;
    UrlCatcher catcher;
};

void TestSubviewController::initTestCase()
{
    SubviewController::setClock([] { return fakeNow; });
    // Nothing here may start a real browser or file manager window.
    QDesktopServices::setUrlHandler(QStringLiteral("file"), &catcher, "open");
    kib = dir.filePath(QStringLiteral("one kib.bin"));
    QFile file(kib);
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(QByteArray(1024, 'x')) == 1024);
}

void TestSubviewController::cleanup()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

std::unique_ptr<SubviewController> TestSubviewController::row(const QString &path, bool bundle)
{
    auto controller = SubviewController::controller();
    controller->setFileWithPath(path);
    controller->setIsBundle(bundle);
    controller->updateUI();
    return controller;
}

void TestSubviewController::sizeString_data()
{
    QTest::addColumn<quint64>("bytes");
    QTest::addColumn<QString>("text");
    const quint64 KiB = 1024, MiB = KiB * KiB, GiB = MiB * KiB, TiB = GiB * KiB;
    QTest::newRow("0") << quint64(0) << "empty file";
    QTest::newRow("1") << quint64(1) << "1 Bytes";
    QTest::newRow("1023") << KiB - 1 << "1023 Bytes";
    QTest::newRow("1 KiB") << KiB << "1.0 KB";
    QTest::newRow("1.5 KiB") << KiB + 512 << "1.5 KB";
    QTest::newRow("1 MiB - 1") << MiB - 1 << "1024.0 KB";
    QTest::newRow("1 MiB") << MiB << "1.00 MB";
    QTest::newRow("MB truncates to KiB") << MiB + 1023 << "1.00 MB";
    QTest::newRow("1 GiB - 1") << GiB - 1 << "1024.00 MB";
    QTest::newRow("1 GiB") << GiB << "1.00 GB";
    QTest::newRow("5 GiB") << 5 * GiB << "5.00 GB";
    QTest::newRow("1 TiB - 1") << TiB - 1 << "1024.00 GB";
    QTest::newRow("1 TiB counts GiB") << TiB << "1024 TB";
    QTest::newRow("2 TiB") << 2 * TiB << "2048 TB";
    QTest::newRow("GiB count cut to 32 bits") << (quint64(1) << 62) << "0 TB";
}

void TestSubviewController::sizeString()
{
    QFETCH(quint64, bytes);
    QFETCH(QString, text);
    QCOMPARE(SubviewController::initSizeString(bytes), text);
}

void TestSubviewController::timeLeft_data()
{
    QTest::addColumn<double>("percent");
    QTest::addColumn<double>("elapsed");
    QTest::addColumn<QString>("suffix");
    // At 50 % the time left equals the time elapsed; x.5 seconds truncate to x.
    const auto left = [](const char *name, double seconds, const char *suffix) {
        QTest::newRow(name) << 50.0 << seconds << QString::fromLatin1(suffix);
    };
    left("under a second", 0.5, "");
    left("5 s", 5.5, " - less than 5 seconds remaining");
    left("6 s", 6.5, " - less than 10 seconds remaining");
    left("10 s", 10.5, " - less than 10 seconds remaining");
    left("11 s", 11.5, " - less than 20 seconds remaining");
    left("20 s", 20.5, " - less than 20 seconds remaining");
    left("21 s", 21.5, " - half a minute remaining");
    left("40 s", 40.5, " - half a minute remaining");
    left("41 s", 41.5, " - 1 minute remaining");
    left("60 s", 60.5, " - 1 minute remaining");
    left("119 s", 119.5, " - 1 minute remaining");
    left("120 s", 120.5, " - 2 minutes remaining");
    left("3599 s", 3599.5, " - 59 minutes remaining");
    left("1 h", 3600.5, " - 1 hour remaining");
    left("2 h - 1 s", 7199.5, " - 1 hour remaining");
    left("2 h", 7200.5, " - 2 hours remaining");
    left("1 d - 1 s", 86399.5, " - 23 hours remaining");
    left("1 d", 86400.5, " - 1 day(s) remaining");
    left("2 d 5 h", 2 * 86400 + 5 * 3600 + 0.5, " - 2 day(s) remaining");
    QTest::newRow("no progress") << 0.0 << 100.0 << "";
    QTest::newRow("done") << 100.0 << 100.0 << "";
    QTest::newRow("early, under 3 %") << 2.0 << 5.0 << "";
    QTest::newRow("early, 3 %") << 3.0 << 4.0 << " - 2 minutes remaining";
    QTest::newRow("late, under 3 %") << 2.0 << 10.0 << " - 8 minutes remaining";
    QTest::newRow("clamped to 32 bits") << 1e-9 << 100.0 << " - 49710 day(s) remaining";
}

void TestSubviewController::timeLeft()
{
    QFETCH(double, percent);
    QFETCH(double, elapsed);
    QFETCH(QString, suffix);
    auto controller = row(kib);
    controller->startUpload();
    QCOMPARE(controller->statusLine(), QStringLiteral("Uploading (1.0 KB)"));
    advance(elapsed);
    controller->doProgress(percent);
    QCOMPARE(controller->statusLine(), QStringLiteral("uploading (1.0 KB)") + suffix);
}

void TestSubviewController::progressRewritesOnlyTheUploadingLine()
{
    auto controller = row(kib);
    controller->view();
    controller->startUpload();
    controller->registering();
    controller->doProgress(100);
    QCOMPARE(controller->statusLine(), QStringLiteral("Processing..."));
    QCOMPARE(controller->view()->statusText()->text(), QStringLiteral("Processing..."));
    QCOMPARE(controller->progressValue(), 100.0);
}

void TestSubviewController::eachStateShowsItsRow_data()
{
    QTest::addColumn<QList<int>>("path"); // states entered, in order
    QTest::addColumn<bool>("bundle");
    QTest::addColumn<QString>("status");
    QTest::addColumn<QString>("badge");
    QTest::addColumn<QString>("cancelImage");
    QTest::addColumn<QString>("cancelTip");
    QTest::addColumn<QString>("flags"); // uploading, canStop, canReStart, retry shown

    const QString del = QStringLiteral("delete"), remove = QStringLiteral("Remove from list");
    const QString cancel = QStringLiteral("cancel"), cancelTip = QStringLiteral("Cancel upload");
    QTest::newRow("queued") << QList<int>{0} << false << "Queued (1.0 KB)"
                            << "" << del << remove << "-s--";
    QTest::newRow("queued bundle") << QList<int>{0} << true << "Queued"
                                   << "" << del << remove << "-s--";
    QTest::newRow("uploading") << QList<int>{1} << false << "Uploading (1.0 KB)"
                               << "" << cancel << cancelTip << "us--";
    QTest::newRow("processing") << QList<int>{1, 2} << false << "Processing..."
                                << "" << cancel << cancelTip << "u---";
    QTest::newRow("processing keeps the button") << QList<int>{0, 2} << false << "Processing..."
                                                 << "" << del << remove << "u---";
    QTest::newRow("completed") << QList<int>{1, 2, 3} << false << "Completed (1.0 KB)"
                               << "status-ok" << del << remove << "----";
    QTest::newRow("stopped") << QList<int>{1, 4} << false << "Stopped (1.0 KB)"
                             << "status-stopped" << del << remove << "--rR";
    QTest::newRow("failed") << QList<int>{1, 5} << false << "Error during upload..."
                            << "status-error" << del << remove << "--rR";
    QTest::newRow("restarting") << QList<int>{6} << false << "Restarting"
                                << "restart" << del << remove << "----";
    QTest::newRow("requeued") << QList<int>{1, 5, 0} << false << "Queued (1.0 KB)"
                              << "" << del << remove << "-s--";
}

void TestSubviewController::eachStateShowsItsRow()
{
    QFETCH(QList<int>, path);
    QFETCH(bool, bundle);
    QFETCH(QString, status);
    QFETCH(QString, badge);
    QFETCH(QString, cancelImage);
    QFETCH(QString, cancelTip);
    QFETCH(QString, flags);

    // One row shows its view all along, the other gets one only at the end.
    auto shown = row(kib, bundle);
    auto lazy = row(kib, bundle);
    shown->view();
    for (SubviewController *controller : {shown.get(), lazy.get()}) {
        for (int state : path) {
            switch (state) {
            case 0:
                controller->requeue();
                break;
            case 1:
                controller->startUpload();
                break;
            case 2:
                controller->registering();
                break;
            case 3:
                controller->completed();
                break;
            case 4:
                controller->stopUpload();
                break;
            case 5:
                controller->errorOccurred(-1, QStringLiteral("Error during upload..."));
                break;
            default:
                controller->setUploadState(state);
                controller->updateUI();
                break;
            }
        }
    }
    QVERIFY(!lazy->hasView());
    const bool uploading = flags[0] == QLatin1Char('u');
    for (SubviewController *controller : {shown.get(), lazy.get()}) {
        QCOMPARE(controller->uploadState(), path.last());
        QCOMPARE(controller->statusLine(), status);
        QCOMPARE(controller->isUploading(), uploading);
        QCOMPARE(controller->canStop(), flags[1] == QLatin1Char('s'));
        QCOMPARE(controller->canReStart(), flags[2] == QLatin1Char('r'));
        QCOMPARE(controller->rowHeight(), uploading ? 55.0f : 45.0f);

        QVSubView *view = controller->view();
        QCOMPARE(view->height(), uploading ? 55 : 45);
        QCOMPARE(view->statusText()->text(), status);
        QCOMPARE(view->fileName()->text(), QStringLiteral("one kib.bin"));
        QCOMPARE(view->fileName()->toolTip(), kib);
        QCOMPARE(view->imageState()->isVisibleTo(view), !badge.isEmpty());
        if (!badge.isEmpty()) {
            QCOMPARE(view->imageState()->pixmap().cacheKey(),
                     QVRolloverButton::namedImage(badge, view->devicePixelRatioF()).cacheKey());
        }
        QCOMPARE(view->buttonCancelDel()->image(), cancelImage);
        QCOMPARE(view->buttonCancelDel()->rolloverImageName(), cancelImage);
        QCOMPARE(view->buttonCancelDel()->toolTip(), cancelTip);
        QCOMPARE(view->buttonRetry()->isVisibleTo(view), flags[3] == QLatin1Char('R'));
        QCOMPARE(view->progressIndicator()->isVisibleTo(view), uploading);
        QCOMPARE(view->progressIndicator()->maximum() == 0, path.last() == 2);

        QCOMPARE(view->controlFrame(view->fileName()).y(), uploading ? 35 : 25);
        QCOMPARE(view->controlFrame(view->buttonCancelDel()).y(), uploading ? 15 : 10);
        QCOMPARE(view->controlFrame(view->buttonOpen()).y(), uploading ? 15 : 10);
        QCOMPARE(view->controlFrame(view->imageView()).height(), uploading ? 51 : 41);
        QCOMPARE(view->controlFrame(view->statusText()).y(), 5);
        const QList<QWidget *> controls{view->progressIndicator(), view->imageView(),
                                        view->imageState(),        view->fileName(),
                                        view->statusText(),        view->buttonRetry(),
                                        view->buttonCancelDel(),   view->buttonOpen()};
        for (QWidget *control : controls) {
            const QRect f = view->controlFrame(control);
            QCOMPARE(control->geometry(),
                     QRect(f.x(), view->height() - f.y() - f.height(), f.width(), f.height()));
        }
    }
}

void TestSubviewController::rowLayoutFollowsWidthAndKeepsBottomDistances()
{
    QVSubView view;
    // Top-left geometry of a 350 x 45 row.
    const QList<QPair<QWidget *, QRect>> expected{
        {view.fileName(), {68, 6, 190, 14}},           {view.statusText(), {68, 26, 190, 14}},
        {view.progressIndicator(), {68, 12, 190, 14}}, {view.imageView(), {10, 2, 47, 41}},
        {view.imageState(), {38, 23, 20, 19}},         {view.buttonRetry(), {270, 10, 24, 26}},
        {view.buttonCancelDel(), {295, 10, 24, 26}},   {view.buttonOpen(), {320, 10, 24, 26}},
    };
    for (const auto &[control, rect] : expected)
        QCOMPARE(control->geometry(), rect);
    for (QVRolloverButton *b : {view.buttonRetry(), view.buttonCancelDel(), view.buttonOpen()})
        QCOMPARE(b->trackingTag(), -1);
    QCOMPARE(view.buttonRetry()->image(), QStringLiteral("restart"));
    QCOMPARE(view.buttonCancelDel()->image(), QStringLiteral("cancel"));
    QCOMPARE(view.buttonOpen()->image(), QStringLiteral("show"));

    view.resize(500, 45);
    view.setFrameHeight(55);
    QCOMPARE(view.fileName()->geometry(), QRect(68, 16, 340, 14));
    QCOMPARE(view.statusText()->geometry(), QRect(68, 36, 340, 14));
    QCOMPARE(view.buttonOpen()->geometry(), QRect(470, 20, 24, 26));
    QCOMPARE(view.imageView()->geometry(), QRect(10, 12, 47, 41));

    view.setTextColor(Qt::white);
    QCOMPARE(view.fileName()->palette().color(QPalette::WindowText), QColor(Qt::white));
    QCOMPARE(view.statusText()->palette().color(QPalette::WindowText), QColor(Qt::white));
}

void TestSubviewController::buttonPressesReachTheQueue_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<QString>("button");
    QTest::addColumn<QList<int>>("sent");
    QTest::newRow("cancel while queued") << 0 << "cancel" << QList<int>{2};
    QTest::newRow("cancel while uploading") << 1 << "cancel" << QList<int>{1};
    QTest::newRow("cancel while processing") << 2 << "cancel" << QList<int>{2};
    QTest::newRow("cancel when completed") << 3 << "cancel" << QList<int>{2};
    QTest::newRow("cancel when stopped") << 4 << "cancel" << QList<int>{2};
    QTest::newRow("cancel when failed") << 5 << "cancel" << QList<int>{2};
    QTest::newRow("retry when failed") << 5 << "retry" << QList<int>{3};
    QTest::newRow("reveal is not a press") << 4 << "open" << QList<int>{};
    QTest::newRow("no view, no button") << 4 << "none" << QList<int>{};
}

void TestSubviewController::buttonPressesReachTheQueue()
{
    QFETCH(int, state);
    QFETCH(QString, button);
    QFETCH(QList<int>, sent);
    Presses presses;
    auto controller = row(kib);
    controller->setActionObject(&presses);
    controller->setUploadState(state);
    if (button == QLatin1String("none")) {
        controller->doButtonAction(nullptr);
    } else {
        QVSubView *view = controller->view();
        if (button == QLatin1String("open"))
            controller->doButtonAction(view->buttonOpen());
        else
            QTest::mouseClick(button == QLatin1String("cancel") ? view->buttonCancelDel()
                                                                : view->buttonRetry(),
                              Qt::LeftButton);
    }
    QCOMPARE(presses.indexes, sent);
}

void TestSubviewController::deletingTheRowFromItsOwnButtonIsSafe()
{
    Presses presses;
    auto controller = row(kib);
    controller->setActionObject(&presses);
    presses.onPress = [&controller](SubviewController *) { controller.reset(); };
    QPointer<QVSubView> view = controller->view();
    QTest::mouseClick(view->buttonCancelDel(), Qt::LeftButton);
    QCOMPARE(presses.indexes, QList<int>{2});
    QVERIFY(!controller);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QVERIFY(view.isNull());
}

void TestSubviewController::rowsHoldNoWidgetsUntilShown()
{
    const qsizetype widgets = QApplication::allWidgets().size();
    std::vector<std::unique_ptr<SubviewController>> queue;
    for (int i = 0; i < 1000; ++i)
        queue.push_back(row(kib));
    queue[10]->startUpload();
    QCOMPARE(QApplication::allWidgets().size(), widgets);
    QVERIFY(!queue[10]->hasView());

    queue[10]->view();
    QVERIFY(queue[10]->hasView());
    QCOMPARE(QApplication::allWidgets().size(), widgets + 9);
    queue[10]->releaseView();
    QVERIFY(!queue[10]->hasView());
    QCOMPARE(QApplication::allWidgets().size(), widgets);
}

void TestSubviewController::releasedViewComesBackWithTheSameRow()
{
    auto controller = row(kib);
    controller->startUpload();
    QPointer<QVSubView> first = controller->view();
    advance(60);
    controller->doProgress(40);
    const QString line = controller->statusLine();
    QCOMPARE(line, QStringLiteral("uploading (1.0 KB) - 1 minute remaining"));
    controller->releaseView();
    QVERIFY(first.isNull());

    QVSubView *again = controller->view();
    QCOMPARE(again->statusText()->text(), line);
    QCOMPARE(again->progressIndicator()->value(), 40);
    QVERIFY(again->progressIndicator()->isVisibleTo(again));
    QCOMPARE(again->buttonCancelDel()->toolTip(), QStringLiteral("Cancel upload"));
    QCOMPARE(again->height(), 55);
}

void TestSubviewController::sizeFollowsLinksArchivesAndLargeFiles()
{
    const QString big = dir.filePath(QStringLiteral("big"));
    QFile file(big);
    QVERIFY(file.open(QIODevice::WriteOnly) && file.resize(5LL << 30)); // sparse
    file.close();
    const QString link = dir.filePath(QStringLiteral("link"));
    QVERIFY(QFile::link(big, link));

    auto controller = row(link);
    QCOMPARE(controller->calcFileSize(), quint32(1) << 30);
    QCOMPARE(controller->uploadSize(), quint64(5) << 30);
    QVERIFY(controller->checkFile());

    auto bundle = row(dir.path(), true);
    QCOMPARE(bundle->uploadSize(), quint64(0)); // no archive yet
    QCOMPARE(bundle->statusLine(), QStringLiteral("Queued"));
    bundle->setBundleFile(kib);
    QCOMPARE(bundle->uploadSize(), quint64(1024));
    QVERIFY(bundle->checkFile());

    QVERIFY(QFile::remove(big));
    QCOMPARE(controller->uploadSize(), quint64(0));
    QVERIFY(!controller->checkFile());
}

void TestSubviewController::revealAsksTheFileManagerWithAnEncodedUri()
{
    QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus,
                                                        QStringLiteral("fake-file-manager"));
    if (!bus.isConnected())
        QSKIP("no session bus");
    FakeFileManager fake;
    QVERIFY(bus.registerObject(QStringLiteral("/org/freedesktop/FileManager1"), &fake,
                               QDBusConnection::ExportAllSlots));
    if (!bus.registerService(fileManager))
        QSKIP("a file manager owns org.freedesktop.FileManager1 on this bus");
    QSignalSpy shown(&fake, &FakeFileManager::shown);
    QSignalSpy opened(&catcher, &UrlCatcher::opened);

    QVERIFY(QDir(dir.path()).mkpath(QStringLiteral("a b")));
    const QString path = dir.filePath(QStringLiteral("a b/\u00fcn\u00ef \u6f22.txt"));
    auto controller = row(path);
    controller->doRevealinFinder();
    QVERIFY(shown.wait());
    QCOMPARE(shown.first().first().toStringList(),
             QStringList{QStringLiteral("file://") + dir.path() +
                         QStringLiteral("/a%20b/%C3%BCn%C3%AF%20%E6%BC%A2.txt")});

    // A file manager that cannot do it: the folder opens instead.
    fake.fail = true;
    controller->doRevealinFinder();
    QVERIFY(opened.wait());
    QCOMPARE(opened.first().first().toUrl(),
             QUrl::fromLocalFile(dir.filePath(QStringLiteral("a b"))));
    QCOMPARE(shown.size(), 2);
    bus.unregisterService(fileManager);
    QDBusConnection::disconnectFromBus(QStringLiteral("fake-file-manager"));
}

void TestSubviewController::revealFallsBackToTheFolder_data()
{
    QTest::addColumn<QString>("file");
    QTest::newRow("plain") << QStringLiteral("x.txt");
    QTest::newRow("missing file") << QStringLiteral("gone/x.txt");
}

void TestSubviewController::revealFallsBackToTheFolder()
{
    QFETCH(QString, file);
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (bus.isConnected() &&
        bus.interface()->activatableServiceNames().value().contains(fileManager))
        QSKIP("a file manager on this bus would open a window");
    QSignalSpy opened(&catcher, &UrlCatcher::opened);
    auto controller = row(dir.filePath(file));
    controller->doRevealinFinder();
    QVERIFY(opened.size() == 1 || opened.wait());
    QCOMPARE(opened.first().first().toUrl(),
             QUrl::fromLocalFile(QFileInfo(dir.filePath(file)).absolutePath()));
}

QTEST_MAIN(TestSubviewController)
#include "tst_subviewcontroller.moc"
