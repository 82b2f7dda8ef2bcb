// The main window: what a batch of paths adds to the upload list (hidden names, bundles, links,
// the "Sanity check" question), drops, the delete keys and row buttons; each row's texts, views
// and presses, and revealing its file; the header's gradient and clickable link field.
// The tables are plain string literals.
#undef QT_NO_CAST_FROM_ASCII
#include "app/MainController.h"
#include "support/LoopbackHttpServer.h"
#include "ui/QVDropView.h"
#include "ui/QVGradient.h"
#include "ui/QVRolloverButton.h"
#include "ui/QVSubView.h"
#include "ui/SubviewController.h"
#include "ui/SubviewTableViewController.h"
#include "ui/ZRClickableURLTextField.h"
#include "ui/iTableView.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDesktopServices>
#include <QDragEnterEvent>
#include <QLabel>
#include <QMainWindow>
#include <QMessageBox>
#include <QMimeData>
#include <QProgressBar>
#include <QRegularExpression>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

namespace {

struct Batch
{
    // Files as "name:size", executables as "name*:size", links as "name@target"; "#N" in a
    // name stands for N names, with 0 to N-1 in its place.
    const char *name, *tree, *paths; // paths handed over, or restored from the saved queue
    bool restored;
    const char *weight, *question, *rows; // as counted; as asked, if at all; "+" for a bundle
};
const Batch batches[] = {
    {"hidden names left out", "d/a.txt:3;d/.DS_Store:5;d/sub/b.txt:4;d/.git/c:9", "d", false,
     "2 files with 7 Bytes", "", "d/a.txt;d/sub/b.txt"},
    {"application bundle is one row weighing its visible files",
     "P.app/Info.plist:10;P.app/C/.hidden:99;P.app/C/run:20;P.app/.cache/x:7", "P.app", false,
     "1 files with 30 Bytes", "", "+P.app"},
    {"folders: a package, an AppDir, an AppRun that does not run, a link up, a linked file",
     "d/x:1;d/N.rtfd/TXT.rtf:2;d/T/AppRun*:4;d/T/lib:6;d/U/AppRun:4;d/U/lib:6;d/U/up@..;real:5;"
     "d/alias@../real",
     "d", false, "6 files with 28 Bytes", "", "+d/N.rtfd;+d/T;d/U/AppRun;d/U/lib;d/alias;d/x"},
    {"named files taken as they are: hidden, missing, twice", ".p:12", ".p;gone;.p", false,
     "3 files with 24 Bytes", "", ".p;.p;gone"},
    {"100 files of 100 MiB pass", "b/f#99:0;b/big:104857600", "b", false,
     "100 files with 100.00 MB", "", "b/big;b/f#99"},
    {"101 files ask, yes", "b/f#101:0", "b", false, "101 files with empty file",
     "101 files with empty file", "b/f#101"},
    {"1001 files ask, cancel", "b/f#1001:0", "b", false, "1001 files with empty file",
     "1,001 files with empty file", ""},
    {"one byte more asks, cancel", "b:104857601", "b", false, "1 files with 100.00 MB",
     "1 files with 100.00 MB", ""},
    {"restored queue never asks", "b/f#101:0", "b", true, "101 files with empty file", "",
     "b/f#101"}};

QStringList expand(const QString &layout, const QString &prefix = {})
{
    QStringList items;
    for (const QString &item : layout.split(';', Qt::SkipEmptyParts)) {
        const int n = QRegularExpression("#(\\d+)").match(item).captured(1).toInt();
        for (int i = 0; i < std::max(n, 1); ++i)
            items << prefix +
                         QString(item).replace(QRegularExpression("#\\d+"), QString::number(i));
    }
    return items;
}

QStringList queuedPaths(const MainController &controller)
{
    QStringList paths;
    for (const auto &row : controller.queue())
        paths << row->fileWithPath();
    return paths;
}

SubviewController::Clock::time_point fakeNow;

struct StateRow
{
    const char *name, *path; // states entered, in order
    bool bundle;
    const char *status, *badge, *button;
    const char *flags;   // uploading, canStop, canReStart, retry shown
    const char *presses; // sent by retry when shown, then by the cancel button
};
const StateRow stateRows[] = {
    {"queued", "0", false, "Queued (5.00 GB)", "", "delete", "-s--", "2"},
    {"queued bundle", "0", true, "Queued", "", "delete", "-s--", "2"},
    {"uploading", "1", false, "uploading (5.00 GB)", "", "cancel", "us--", "1"},
    {"processing", "12", false, "Processing...", "", "cancel", "u---", "2"},
    {"processing keeps the button", "02", false, "Processing...", "", "delete", "u---", "2"},
    {"completed", "123", false, "Completed (5.00 GB)", "status-ok", "delete", "----", "2"},
    {"stopped", "14", false, "Stopped (5.00 GB)", "status-stopped", "delete", "--rR", "32"},
    {"failed", "15", false, "Error during upload...", "status-error", "delete", "--rR", "32"},
    {"requeued", "150", false, "Queued (5.00 GB)", "", "delete", "-s--", "2"}};

} // namespace

class TestWindow : public QObject, public SubviewActionObject
{
    Q_OBJECT
    LoopbackHttpServer refusingService;
    QTemporaryDir config, files;
    QString rowFile, presses;
    QList<QUrl> opened;

    std::unique_ptr<SubviewController> pressed;
    void buttonPressed(SubviewController *, int i) override
    {
        presses += QChar('0' + i);
        pressed.reset();
    }
    std::unique_ptr<SubviewController> row(const QString &path, bool bundle = false)
    {
        auto controller = SubviewController::controller();
        controller->setFileWithPath(path);
        controller->setIsBundle(bundle);
        controller->updateUI();
        return controller;
    }
    // Shows the window and launches against an account refusing the credentials: nothing is sent.
    void launch(MainController &controller)
    {
        QSettings().setValue("Account URL", refusingService.baseUrl());
        controller.mainWindow()->resize(560, 620);
        controller.mainWindow()->show();
        QVERIFY(QTest::qWaitForWindowExposed(controller.mainWindow()));
        controller.applicationDidFinishLaunching();
    }

public Q_SLOTS:
    void recordUrl(const QUrl &url) { opened << url; }

private Q_SLOTS:
    void initTestCase()
    {
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, config.path());
        QCoreApplication::setOrganizationName("kelvara");
        QCoreApplication::setApplicationName("Hoplift");
        refusingService.setResponse("HTTP/1.1 401 Unauthorized\r\nContent-Length: 0\r\n\r\n");
        QVERIFY(refusingService.listenOnLoopback());
        SubviewController::setClock([] { return fakeNow; });
        // Nothing here may open a real browser or file manager window.
        QDesktopServices::setUrlHandler("file", this, "recordUrl");
        // Rows show a link to a file of 5 GiB, whose size is read through the link in full.
        QFile file(config.filePath("sparse"));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.resize(5LL << 30));
        QVERIFY(file.link(rowFile = config.filePath("five gib.bin")));
    }
    void cleanupTestCase() { QDesktopServices::unsetUrlHandler("file"); }
    void init()
    {
        opened.clear();
        QSettings().clear();
        QDir(files.path()).removeRecursively();
        QDir().mkpath(files.path());
    }

    void batchMakesRowsAfterAnyQuestion_data()
    {
        QTest::addColumn<int>("index");
        for (const Batch &b : batches)
            QTest::newRow(b.name) << int(&b - batches);
    }
    void batchMakesRowsAfterAnyQuestion()
    {
        QFETCH(int, index);
        const Batch &b = batches[index];
        for (const QString &item : expand(b.tree)) {
            const QStringList parts = item.split(item.contains('@') ? '@' : ':');
            const QString path = files.filePath(QString(parts[0]).remove('*'));
            QDir().mkpath(QFileInfo(path).path());
            QFile f(path);
            if (item.contains('@'))
                QVERIFY(QFile::link(parts[1], path));
            else
                QVERIFY(f.open(QIODevice::WriteOnly) && f.resize(parts[1].toLongLong()));
            if (item.contains('*'))
                QVERIFY(f.setPermissions(f.permissions() | QFile::ExeOwner));
        }
        const QStringList paths = expand(b.paths, files.path() + '/');
        QStringList rows = expand(b.rows);
        // The question is answered, so one asked by mistake fails the test instead of hanging it.
        QString asked;
        QTimer poll;
        connect(&poll, &QTimer::timeout, this, [&asked, &rows] {
            if (auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget())) {
                asked = box->text() + '|' + box->informativeText();
                for (QAbstractButton *button : box->buttons()) {
                    if (button->text() == (rows.isEmpty() ? "Cancel" : "Yes, I want to"))
                        button->click();
                }
            }
        });
        poll.start(10);
        MainController controller;
        if (b.restored)
            QSettings().setValue("UploadFiles", paths);
        launch(controller);
        if (!b.restored) {
            controller.waitForSavedQueue();
            QSettings().setValue("UploadFiles", QStringList{"/earlier"});
            controller.addFiles(paths, true);
        }
        qint32 count = 0;
        quint64 size = 0;
        controller.checkFiles(paths, count, size);
        QCOMPARE(
            QString("%1 files with %2").arg(count).arg(SubviewController::initSizeString(size)),
            b.weight);
        QCOMPARE(asked, *b.question
                            ? "Sanity check|Do you want to upload " + QString(b.question) + "?"
                            : "");
        QStringList made;
        for (const auto &row : controller.queue())
            made << (row->isBundle() ? "+" : "") +
                        QDir(files.path()).relativeFilePath(row->fileWithPath());
        made.sort();
        rows.sort();
        QCOMPARE(made, rows);
        controller.waitForSavedQueue();
        if (rows.isEmpty()) // refusing adds nothing and saves nothing
            QCOMPARE(QSettings().value("UploadFiles").toStringList(), QStringList{"/earlier"});
        auto *info = controller.mainWindow()->findChild<QLabel *>("textaddFiles");
        QVERIFY(!info->isVisible());
        if (!rows.isEmpty()) // the progress line was shown on the way
            QCOMPARE(info->text(),
                     QString("Added %1 of %2 files/folders").arg(rows.size()).arg(count));
        // Only the rows in sight, a window's worth, have views.
        const auto views =
            std::ranges::count_if(controller.queue(), [](auto &row) { return row->hasView(); });
        QCOMPARE(views, controller.tableController()->placedViews().size());
        QVERIFY(views <= 20);
    }

    void dropsQueueCopiesAndDeletionsRemoveExactlyTheirRows()
    {
        MainController controller;
        launch(controller);
        const QStringList paths = expand("#5", files.path() + '/');
        auto *list = controller.mainWindow()->findChild<iTableView *>();
        // Local files offered with copy land as a copy, on the drop area of the empty list and
        // on the list; a link to the web is no file, and a drag without a copy is refused.
        const auto drop = [&](QWidget *target, Qt::DropActions actions,
                              const QStringList &dropped) {
            QList<QUrl> urls{QUrl("https://example.org/c")};
            for (const QString &path : dropped)
                urls << QUrl::fromLocalFile(path);
            QMimeData data;
            data.setUrls(urls);
            const bool visible = target->isVisible();
            const QPoint at = target->rect().center();
            QDragEnterEvent enter(at, actions, &data, Qt::LeftButton, Qt::NoModifier);
            QDropEvent drop(at, actions, &data, Qt::LeftButton, Qt::NoModifier);
            QApplication::sendEvent(target, &enter);
            if (enter.isAccepted())
                QApplication::sendEvent(target, &drop);
            return visible && enter.isAccepted() && drop.isAccepted() &&
                   enter.dropAction() == Qt::CopyAction && drop.dropAction() == Qt::CopyAction;
        };
        const Qt::DropActions all = Qt::CopyAction | Qt::MoveAction | Qt::LinkAction;
        QWidget *dropArea = controller.mainWindow()->findChild<QVDropView *>();
        QVERIFY(!drop(dropArea, Qt::MoveAction | Qt::LinkAction, paths));
        QVERIFY(drop(dropArea, all, paths.mid(0, 3)));
        QVERIFY(!drop(list->viewport(), Qt::MoveAction, paths));
        QVERIFY(drop(list->viewport(), all, paths.mid(3)));
        QCOMPARE(queuedPaths(controller), paths);

        const auto select = [&](const QList<int> &rows) {
            for (int r : rows)
                list->selectionModel()->select(controller.tableController()->index(r, 0),
                                               QItemSelectionModel::Select |
                                                   QItemSelectionModel::Rows);
        };
        // Rows fill the list's width, their buttons at its right edge, each row at its cell;
        // selected rows write in the theme's highlighted text colour.
        select({1, 3});
        for (size_t row = 0; row < 5; ++row) {
            QVSubView *view = controller.queue()[row]->view();
            QCOMPARE(view->geometry(),
                     list->visualRect(controller.tableController()->index(row, 0)));
            QCOMPARE(view->buttonOpen()->geometry().right(), list->viewport()->width() - 7);
            QCOMPARE(view->fileName()->palette().color(QPalette::WindowText),
                     list->palette().color(row % 2 ? QPalette::HighlightedText : QPalette::Text));
        }
        list->setFocus();
        QTest::keyClick(list, Qt::Key_Delete);
        QCOMPARE(queuedPaths(controller), (QStringList{paths[0], paths[2], paths[4]}));
        controller.waitForSavedQueue();
        QCOMPARE(QSettings().value("UploadFiles").toStringList(), queuedPaths(controller));
        QVERIFY(!list->selectionModel()->hasSelection());

        // A selected row deleted by a click on its own button (its view outlives the click,
        // the row does not): the other stays selected, moved up past it.
        select({0, 2});
        QTest::mouseClick(controller.queue()[0]->view()->buttonCancelDel(), Qt::LeftButton);
        QCOMPARE(queuedPaths(controller), (QStringList{paths[2], paths[4]}));
        QCOMPARE(list->selectionModel()->selectedRows().value(0).row(), 1);
        QCOMPARE(list->selectionModel()->selectedRows().size(), 1);
        // Backspace deletes too; an emptied list keeps no row views.
        QTest::keyClick(list, Qt::Key_Backspace);
        QCOMPARE(queuedPaths(controller), QStringList{paths[2]});
        list->selectAll();
        QTest::keyClick(list, Qt::Key_Backspace);
        QVERIFY(controller.queue().empty());
        QVERIFY(controller.tableController()->placedViews().isEmpty());
    }

    void sizeString_data()
    {
        QTest::addColumn<quint64>("bytes");
        QTest::addColumn<QString>("text");
        const quint64 K = 1024, M = K * K, G = M * K, T = G * K;
        // Each threshold from both sides; MB and GB count whole KiB and MiB; "TB" counts GiB.
        const std::pair<quint64, const char *> sizes[] = {
            {0, "empty file"}, {1, "1 Bytes"},        {K - 1, "1023 Bytes"},
            {K, "1.0 KB"},     {K + 512, "1.5 KB"},   {M - 1, "1024.0 KB"},
            {M, "1.00 MB"},    {M + 1023, "1.00 MB"}, {G - 1, "1024.00 MB"},
            {G, "1.00 GB"},    {5 * G, "5.00 GB"},    {T - 1, "1024.00 GB"},
            {T, "1024 TB"},    {2 * T, "2048 TB"},    {quint64(1) << 62, "0 TB"}};
        for (const auto &[bytes, text] : sizes)
            QTest::addRow("%llu", qulonglong(bytes)) << bytes << QString(text);
    }
    void sizeString()
    {
        QFETCH(quint64, bytes);
        QFETCH(QString, text);
        QCOMPARE(SubviewController::initSizeString(bytes), text);
    }

    void timeLeft_data()
    {
        QTest::addColumn<double>("percent");
        QTest::addColumn<double>("elapsed");
        QTest::addColumn<QString>("left");
        // "percent elapsed=time left": at 50 % as long as elapsed, x.5 s cut to x; under 3 %,
        // none in the first ten seconds; clamped to 32 bits.
        const QStringList cases =
            QString("50 0.5=;50 5.5=less than 5 seconds;50 6.5=less than 10 seconds;"
                    "50 10.5=less than 10 seconds;50 11.5=less than 20 seconds;"
                    "50 20.5=less than 20 seconds;50 21.5=half a minute;50 40.5=half a minute;"
                    "50 41.5=1 minute;50 119.5=1 minute;50 120.5=2 minutes;50 3599.5=59 minutes;"
                    "50 3600.5=1 hour;50 7199.5=1 hour;50 7200.5=2 hours;50 86399.5=23 hours;"
                    "50 86400.5=1 day(s);50 190800.5=2 day(s);0 100=;100 100=;2 5=;"
                    "3 4=2 minutes;2 10=8 minutes;1e-9 100=49710 day(s)")
                .split(';');
        for (const QString &c : cases) {
            const auto p = QRegularExpression("(\\S+) (\\S+)=(.*)").match(c);
            QTest::newRow(qPrintable(c))
                << p.captured(1).toDouble() << p.captured(2).toDouble() << p.captured(3);
        }
    }
    void timeLeft()
    {
        QFETCH(double, percent);
        QFETCH(double, elapsed);
        QFETCH(QString, left);
        auto controller = row(rowFile);
        controller->startUpload();
        QCOMPARE(controller->statusLine(), "Uploading (5.00 GB)");
        fakeNow += std::chrono::microseconds(qint64(elapsed * 1e6));
        controller->doProgress(percent);
        QCOMPARE(controller->statusLine(),
                 "uploading (5.00 GB)" + (left.isEmpty() ? left : " - " + left + " remaining"));
    }

    void eachStateShowsItsRowAndSendsItsPresses_data()
    {
        QTest::addColumn<int>("index");
        for (const StateRow &r : stateRows)
            QTest::newRow(r.name) << int(&r - stateRows);
    }
    void eachStateShowsItsRowAndSendsItsPresses()
    {
        QFETCH(int, index);
        const StateRow &r = stateRows[index];
        const std::function<void(SubviewController *)> enter[] = {
            &SubviewController::requeue,
            &SubviewController::startUpload,
            &SubviewController::registering,
            &SubviewController::completed,
            &SubviewController::stopUpload,
            [](SubviewController *c) { c->errorOccurred(-1, "Error during upload..."); }};
        // One row shows its view all along, the other makes one only at the end.
        auto shown = row(rowFile, r.bundle), lazy = row(rowFile, r.bundle);
        shown->view();
        for (SubviewController *c : {shown.get(), lazy.get()}) {
            for (const char *s = r.path; *s; ++s)
                enter[*s - '0'](c);
            c->doProgress(40); // rewrites the status line only while uploading
        }
        QVERIFY(!lazy->hasView());
        // The list's notifications never give a row button a hover area.
        postButtonTrackingNotification(ButtonTrackingEnable, this);
        postButtonTrackingNotification(ButtonTrackingReset, this);
        const int last = r.path[strlen(r.path) - 1] - '0';
        const bool uploading = r.flags[0] == 'u';
        for (SubviewController *c : {shown.get(), lazy.get()}) {
            QVSubView *view = c->view();
            QCOMPARE(QString(c->isUploading() ? "u" : "-") + (c->canStop() ? "s" : "-") +
                         (c->canReStart() ? "r" : "-") +
                         (view->buttonRetry()->isVisibleTo(view) ? "R" : "-"),
                     r.flags);
            QCOMPARE(c->statusLine(), r.status);
            QCOMPARE(c->rowHeight(), uploading ? 55.0f : 45.0f);
            QCOMPARE(view->height(), uploading ? 55 : 45);
            QCOMPARE(view->statusText()->text(), r.status);
            QCOMPARE(view->fileName()->text() + '|' + view->fileName()->toolTip(),
                     "five gib.bin|" + rowFile);
            QCOMPARE(view->imageState()->isVisibleTo(view), *r.badge != 0);
            if (*r.badge) {
                QCOMPARE(
                    view->imageState()->pixmap().cacheKey(),
                    QVRolloverButton::namedImage(r.badge, view->devicePixelRatioF()).cacheKey());
            }
            QCOMPARE(view->buttonCancelDel()->trackingTag(), -1);
            QCOMPARE(view->buttonCancelDel()->image(), r.button);
            QCOMPARE(view->buttonCancelDel()->toolTip(),
                     r.button == QLatin1String("cancel") ? "Cancel upload" : "Remove from list");
            QCOMPARE(view->progressIndicator()->isVisibleTo(view), uploading);
            QCOMPARE(view->progressIndicator()->maximum(), last == 2 ? 0 : 100);
            if (last == 1)
                QCOMPARE(view->progressIndicator()->value(), 40);
            // Top-left geometry: the layout keeps distances from the bottom edge.
            QCOMPARE((QList<int>{view->fileName()->y(), view->statusText()->y(),
                                 view->buttonCancelDel()->y(), view->buttonOpen()->y()}),
                     (uploading ? QList<int>{6, 36, 14, 14} : QList<int>{6, 26, 9, 9}));
            QCOMPARE(view->imageView()->geometry(), QRect(10, 2, 47, uploading ? 51 : 41));
        }
        presses.clear();
        shown->setActionObject(this);
        QVSubView *view = shown->view();
        if (view->buttonRetry()->isVisibleTo(view))
            QTest::mouseClick(view->buttonRetry(), Qt::LeftButton);
        pressed = std::move(shown); // deleted by its own delete button, as the queue does
        QTest::mouseClick(view->buttonCancelDel(), Qt::LeftButton);
        QCOMPARE(presses, r.presses);
        // Gone rows leave no button behind for the next row's notifications to reach.
        pressed.reset();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QVRolloverButton::notifyExitTracking();
    }

    void revealOpensTheFolderWithoutAFileManager()
    {
        const QDBusConnectionInterface *bus = QDBusConnection::sessionBus().interface();
        if (bus && bus->activatableServiceNames().value().contains("org.freedesktop.FileManager1"))
            QSKIP("a file manager on this bus would open a window");
        auto controller = row(files.filePath("gone/x.txt"));
        controller->doRevealinFinder();
        QTRY_COMPARE(opened, QList<QUrl>{QUrl::fromLocalFile(files.filePath("gone"))});
    }

    void gradientPaintsBottomToTopOpaque_data()
    {
        QTest::addColumn<QColor>("top");
        QTest::addColumn<QColor>("bottom");
        QTest::addColumn<qreal>("ratio");
        const QColor grey3(0x33, 0x33, 0x33), grey2(0x22, 0x22, 0x22), blue(Qt::blue);
        for (qreal ratio : {1.0, 2.0}) {
            QTest::addRow("greys @%g", ratio) << grey3 << grey2 << ratio;
            // Alpha only grows from the bottom one, while the hue still reaches the top's.
            QTest::addRow("transparent top @%g", ratio) << QColor(0xff, 0, 0, 0) << blue << ratio;
        }
    }
    void gradientPaintsBottomToTopOpaque()
    {
        QFETCH(QColor, top);
        QFETCH(QColor, bottom);
        QFETCH(qreal, ratio);
        QVGradient gradient;
        gradient.resize(20, 100);
        gradient.setTopColor(top);
        gradient.setBottomColor(bottom);
        QImage image(QSize(20, 100) * ratio, QImage::Format_ARGB32);
        image.setDevicePixelRatio(ratio);
        image.fill(Qt::transparent);
        gradient.render(&image, QPoint(), QRegion(), QWidget::RenderFlags());
        const auto near = [](const QColor &a, const QColor &b) {
            return qAbs(a.red() - b.red()) <= 1 && qAbs(a.green() - b.green()) <= 1 &&
                   qAbs(a.blue() - b.blue()) <= 1;
        };
        QVERIFY(near(image.pixelColor(0, 0), top));
        QVERIFY(near(image.pixelColor(0, image.height() - 1), bottom));
        for (int y = 0; y < image.height(); ++y) { // every row, across the whole width
            QCOMPARE(image.pixelColor(0, y).alpha(), 255);
            QCOMPARE(image.pixelColor(image.width() - 1, y), image.pixelColor(0, y));
        }
    }

    void clickOpensTheLinkOnlyOnItsRun_data()
    {
        QTest::addColumn<bool>("onLink");
        QTest::addColumn<QUrl>("target");
        QTest::addColumn<QList<QUrl>>("expected");
        const QUrl link = QUrl::fromLocalFile("/run & <2>"), target = QUrl::fromLocalFile("/t");
        QTest::newRow("link wins over target") << true << target << QList<QUrl>{link};
        QTest::newRow("plain, with target") << false << target << QList<QUrl>{target};
        QTest::newRow("plain, no target") << false << QUrl() << QList<QUrl>{};
    }
    void clickOpensTheLinkOnlyOnItsRun()
    {
        QFETCH(bool, onLink);
        QFETCH(QUrl, target);
        QFETCH(QList<QUrl>, expected);
        ZRClickableURLTextField field;
        field.resize(300, 30);
        // Markup in the text and in the address is escaped on the way.
        const QString plain = "Open <the> file & ", run = "open it";
        field.setAttributedStringValue(ZRClickableURLTextField::hyperlinkFromString(
            plain + run, run, QUrl::fromLocalFile("/run & <2>")));
        field.setTargetURL(target);
        field.show();
        QVERIFY(QTest::qWaitForWindowExposed(&field));
        const QFontMetrics metrics(field.font());
        const int x = onLink ? metrics.horizontalAdvance(plain) + metrics.horizontalAdvance(run) / 2
                             : metrics.horizontalAdvance(plain) / 2;
        QSignalSpy clicked(&field, &ZRClickableURLTextField::clicked);
        QTest::mouseClick(&field, Qt::LeftButton, {}, QPoint(x, field.height() / 2));
        QCOMPARE(opened, expected);
        QCOMPARE(clicked.size(), 1);
    }
};

QTEST_MAIN(TestWindow)
#include "tst_window.moc"
