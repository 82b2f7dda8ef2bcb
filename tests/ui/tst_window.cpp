// The main window: adding paths (hidden names, bundles, links, "Sanity check"), drops, deleting
// rows; each row's texts, layout, buttons and reveal; the header's gradient and link field.
#undef QT_NO_CAST_FROM_ASCII // the tables are plain string literals
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

#include <QtDBus>
#include <QtTest>
#include <QtWidgets>

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

template <typename Row, size_t N> void addRows(const Row (&rows)[N])
{
    QTest::addColumn<const Row *>("row");
    for (const Row &r : rows)
        QTest::newRow(r.name) << &r;
}

// One row per "input=expected" of a table written as one string, ";" between rows.
void addTextRows(const QString &table)
{
    QTest::addColumn<QString>("input");
    QTest::addColumn<QString>("expected");
    for (const QString &row : table.split(';'))
        QTest::newRow(qPrintable(row)) << row.section('=', 0, 0) << row.section('=', 1);
}

QStringList expand(const QString &layout, const QString &prefix = {})
{
    QStringList items;
    for (const QString &item : layout.split(';', Qt::SkipEmptyParts)) {
        const QString n = item.section('#', 1).section(':', 0, 0);
        for (int i = 0; i < std::max(n.toInt(), 1); ++i)
            items << prefix + QString(item).replace('#' + n, QString::number(i));
    }
    return items;
}

} // namespace

class TestWindow : public QObject, public SubviewActionObject
{
    Q_OBJECT
    LoopbackHttpServer refusingService;
    QTemporaryDir config, files;
    QString rowFile, presses;
    QList<QUrl> opened;
    static inline SubviewController::Clock::time_point fakeNow;

    std::unique_ptr<SubviewController> pressed;
    void buttonPressed(SubviewController *, int i) override
    {
        presses += QChar('0' + i);
        pressed.reset();
    }
    std::unique_ptr<SubviewController> rowOf(const QString &path, bool bundle = false)
    {
        auto controller = SubviewController::controller();
        controller->setFileWithPath(path);
        controller->setIsBundle(bundle);
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
    // The queue's files relative to the test's folder, "+" before a bundle.
    QStringList queued(const MainController &controller) const
    {
        QStringList paths;
        for (const auto &row : controller.queue())
            paths << (row->isBundle() ? "+" : "") +
                         QDir(files.path()).relativeFilePath(row->fileWithPath());
        return paths;
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
        QVERIFY(QDir(files.path()).removeRecursively() && QDir().mkpath(files.path()));
    }

    void batchMakesRowsAfterAnyQuestion_data() { addRows(batches); }
    void batchMakesRowsAfterAnyQuestion()
    {
        QFETCH(const Batch *, row);
        for (const QString &item : expand(row->tree)) {
            const QStringList parts = item.split(QRegularExpression("[:@]"));
            QFile f(files.filePath(QString(parts[0]).remove('*')));
            QVERIFY(QDir().mkpath(QFileInfo(f).path()));
            QVERIFY(item.contains('@')
                        ? QFile::link(parts[1], f.fileName())
                        : f.open(QIODevice::WriteOnly) && f.resize(parts[1].toLongLong()));
            QVERIFY(!item.contains('*') || f.setPermissions(f.permissions() | QFile::ExeOwner));
        }
        const QStringList paths = expand(row->paths, files.path() + '/');
        // The question is answered, so one asked by mistake fails the test instead of hanging it.
        QString asked;
        QTimer poll;
        connect(&poll, &QTimer::timeout, this, [&asked, row] {
            if (auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget())) {
                asked = box->text() + '|' + box->informativeText();
                for (QAbstractButton *button : box->buttons())
                    if (button->text() == (*row->rows ? "Yes, I want to" : "Cancel"))
                        button->click();
            }
        });
        poll.start(10);
        MainController controller;
        if (row->restored)
            QSettings().setValue("UploadFiles", paths);
        launch(controller);
        if (!row->restored) {
            controller.waitForSavedQueue();
            QSettings().setValue("UploadFiles", QStringList{"/earlier"});
            controller.addFiles(paths, true);
        }
        qint32 count = 0;
        quint64 size = 0;
        controller.checkFiles(paths, count, size);
        QCOMPARE(
            QString("%1 files with %2").arg(count).arg(SubviewController::initSizeString(size)),
            row->weight);
        QCOMPARE(asked, *row->question
                            ? "Sanity check|Do you want to upload " + QString(row->question) + "?"
                            : "");
        QStringList made = queued(controller), rows = expand(row->rows);
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
        auto *list = controller.mainWindow()->findChild<iTableView *>();
        SubviewTableViewController *table = controller.tableController();
        // Local files offered with copy land as a copy, on the drop area of the empty list and
        // on the list; a link to the web is no file, and a drag without a copy is refused.
        const auto drop = [&](QWidget *target, Qt::DropActions actions, const QString &names) {
            const QString uris = expand(names, "file://" + files.path() + '/').join("\r\n");
            QMimeData data;
            data.setData("text/uri-list", ("https://example.org/c\r\n" + uris).toUtf8());
            const bool visible = target->isVisible();
            QDragEnterEvent enter(target->rect().center(), actions, &data, Qt::LeftButton, {});
            QDropEvent drop(target->rect().center(), actions, &data, Qt::LeftButton, {});
            QApplication::sendEvent(target, &enter);
            if (enter.isAccepted())
                QApplication::sendEvent(target, &drop);
            return visible && enter.isAccepted() && drop.isAccepted() &&
                   enter.dropAction() == Qt::CopyAction && drop.dropAction() == Qt::CopyAction;
        };
        const Qt::DropActions all = Qt::CopyAction | Qt::MoveAction | Qt::LinkAction;
        QWidget *dropArea = controller.mainWindow()->findChild<QVDropView *>();
        QVERIFY(!drop(dropArea, Qt::MoveAction | Qt::LinkAction, "#5"));
        QVERIFY(drop(dropArea, all, "0;1;2"));
        QVERIFY(!drop(list->viewport(), Qt::MoveAction, "#5"));
        QVERIFY(drop(list->viewport(), all, "3;4"));
        QCOMPARE(queued(controller), expand("#5"));

        const auto select = [&](std::initializer_list<int> rows) {
            for (int r : rows)
                list->selectionModel()->select(table->index(r, 0), QItemSelectionModel::Select |
                                                                       QItemSelectionModel::Rows);
        };
        // Rows fill the list's width, their buttons at its right edge, each row at its cell;
        // selected rows write in the theme's highlighted text colour.
        select({1, 3});
        for (int row = 0; row < 5; ++row) {
            QVSubView *view = controller.queue()[row]->view();
            QCOMPARE(view->geometry(), list->visualRect(table->index(row, 0)));
            QCOMPARE(view->buttonOpen()->geometry().right(), list->viewport()->width() - 7);
            QCOMPARE(view->fileName()->palette().color(QPalette::WindowText),
                     list->palette().color(row % 2 ? QPalette::HighlightedText : QPalette::Text));
        }
        QTest::keyClick(list, Qt::Key_Delete);
        QCOMPARE(queued(controller), QStringList({"0", "2", "4"}));
        controller.waitForSavedQueue();
        QCOMPARE(QSettings().value("UploadFiles").toStringList(),
                 expand("0;2;4", files.path() + '/'));
        QVERIFY(!list->selectionModel()->hasSelection());

        // A selected row deleted by a click on its own button (its view outlives the click,
        // the row does not): the other stays selected, moved up past it.
        select({0, 2});
        QTest::mouseClick(controller.queue()[0]->view()->buttonCancelDel(), Qt::LeftButton);
        QCOMPARE(queued(controller), QStringList({"2", "4"}));
        QCOMPARE(list->selectionModel()->selectedRows(), QModelIndexList{table->index(1, 0)});
        // Backspace deletes too; an emptied list keeps no row views.
        list->selectAll();
        QTest::keyClick(list, Qt::Key_Backspace);
        QVERIFY(controller.queue().empty());
        QVERIFY(table->placedViews().isEmpty());
    }

    // Each threshold from both sides; MB and GB count whole KiB and MiB; "TB" counts GiB.
    void sizeString_data()
    {
        addTextRows("0=empty file;1=1 Bytes;1023=1023 Bytes;1024=1.0 KB;1536=1.5 KB;"
                    "1048575=1024.0 KB;1048576=1.00 MB;1054719=1.00 MB;1073741823=1024.00 MB;"
                    "1073741824=1.00 GB;1080033279=1.00 GB;1099511627775=1024.00 GB;"
                    "1099511627776=1024 TB;2199023255552=2048 TB;4611686018427387904=0 TB");
    }
    void sizeString()
    {
        QFETCH(QString, input);
        QFETCH(QString, expected);
        QCOMPARE(SubviewController::initSizeString(input.toULongLong()), expected);
    }

    // "percent elapsed=time left": at 50 % as long as elapsed, x.5 s cut to x; under 3 %, none
    // in the first ten seconds; clamped to 32 bits.
    void timeLeft_data()
    {
        addTextRows("50 0.5=;50 5.5=less than 5 seconds;50 6.5=less than 10 seconds;"
                    "50 10.5=less than 10 seconds;50 11.5=less than 20 seconds;"
                    "50 20.5=less than 20 seconds;50 21.5=half a minute;50 40.5=half a minute;"
                    "50 41.5=1 minute;50 119.5=1 minute;50 120.5=2 minutes;50 3599.5=59 minutes;"
                    "50 3600.5=1 hour;50 7199.5=1 hour;50 7200.5=2 hours;50 86399.5=23 hours;"
                    "50 86400.5=1 day(s);50 190800.5=2 day(s);0 100=;100 100=;2 5=;"
                    "3 4=2 minutes;2 10=8 minutes;1e-9 100=49710 day(s)");
    }
    void timeLeft()
    {
        QFETCH(QString, input);
        QFETCH(QString, expected);
        auto controller = rowOf(rowFile);
        controller->startUpload();
        QCOMPARE(controller->statusLine(), "Uploading (5.00 GB)");
        fakeNow += std::chrono::microseconds(qint64(input.section(' ', 1).toDouble() * 1e6));
        controller->doProgress(input.section(' ', 0, 0).toDouble());
        QCOMPARE(controller->statusLine(),
                 "uploading (5.00 GB)" +
                     (expected.isEmpty() ? expected : " - " + expected + " remaining"));
    }

    void eachStateShowsItsRowAndSendsItsPresses_data() { addRows(stateRows); }
    void eachStateShowsItsRowAndSendsItsPresses()
    {
        QFETCH(const StateRow *, row);
        void (SubviewController::*const enter[])() = {
            &SubviewController::requeue, &SubviewController::startUpload,
            &SubviewController::registering, &SubviewController::completed,
            &SubviewController::stopUpload};
        // One row shows its view all along, the other makes one only at the end.
        auto shown = rowOf(rowFile, row->bundle), lazy = rowOf(rowFile, row->bundle);
        shown->view();
        for (SubviewController *c : {shown.get(), lazy.get()}) {
            for (const char *s = row->path; *s; ++s)
                *s == '5' ? c->errorOccurred(-1, "Error during upload...")
                          : (c->*enter[*s - '0'])();
            c->doProgress(40); // rewrites the status line only while uploading
        }
        QVERIFY(!lazy->hasView());
        // The list's notifications never give a row button a hover area.
        postButtonTrackingNotification(ButtonTrackingEnable, this);
        postButtonTrackingNotification(ButtonTrackingReset, this);
        const bool uploading = row->flags[0] == 'u', processing = *row->status == 'P';
        for (SubviewController *c : {shown.get(), lazy.get()}) {
            QVSubView *view = c->view();
            QVRolloverButton *button = view->buttonCancelDel();
            const QProgressBar *progress = view->progressIndicator();
            QCOMPARE(
                (QStringList{QString(c->isUploading() ? "u" : "-") + (c->canStop() ? "s" : "-") +
                                 (c->canReStart() ? "r" : "-") +
                                 (view->buttonRetry()->isVisibleTo(view) ? "R" : "-"),
                             c->statusLine(), view->statusText()->text(), view->fileName()->text(),
                             view->fileName()->toolTip(), button->image(), button->toolTip()}),
                (QStringList{row->flags, row->status, row->status, "five gib.bin", rowFile,
                             row->button,
                             *row->button == 'c' ? "Cancel upload" : "Remove from list"}));
            const QLabel *badge = view->imageState();
            const qreal ratio = badge->devicePixelRatioF();
            QCOMPARE(badge->isVisibleTo(view) ? badge->pixmap().cacheKey() : 0,
                     *row->badge ? QVRolloverButton::namedImage(row->badge, ratio).cacheKey() : 0);
            // Top-left geometry: the layout keeps distances from the bottom edge.
            QCOMPARE(
                (QList<int>{progress->maximum(), button->trackingTag(), int(c->rowHeight()),
                            view->height(), view->fileName()->y(), view->statusText()->y(),
                            button->y(), view->buttonOpen()->y(), progress->isVisibleTo(view)}),
                (QList<int>{processing ? 0 : 100, -1} +
                 (uploading ? QList<int>{55, 55, 6, 36, 14, 14, 1}
                            : QList<int>{45, 45, 6, 26, 9, 9, 0})));
            QCOMPARE(view->imageView()->geometry(), QRect(10, 2, 47, uploading ? 51 : 41));
            if (row->path == QLatin1String("1"))
                QCOMPARE(progress->value(), 40);
        }
        presses.clear();
        shown->setActionObject(this);
        QVSubView *view = shown->view();
        if (view->buttonRetry()->isVisibleTo(view))
            QTest::mouseClick(view->buttonRetry(), Qt::LeftButton);
        pressed = std::move(shown); // deleted by its own delete button, as the queue does
        QTest::mouseClick(view->buttonCancelDel(), Qt::LeftButton);
        QCOMPARE(presses, row->presses);
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
        auto controller = rowOf(files.filePath("gone/x.txt"));
        controller->doRevealinFinder();
        QTRY_COMPARE(opened, QList<QUrl>{QUrl::fromLocalFile(files.filePath("gone"))});
    }

    // "top bottom ratio=top pixel bottom pixel", each pixel the colour at the middle of its row.
    // From a transparent top, alpha only grows from the bottom's while the hue reaches the top's.
    void gradientPaintsBottomToTopOpaque_data()
    {
        addTextRows("#333333 #222222 1=#333333 #222222;#333333 #222222 2=#333333 #222222;"
                    "#00ff0000 #0000ff 1=#fe0001 #0100fe;#00ff0000 #0000ff 2=#fe0001 #0100fe");
    }
    void gradientPaintsBottomToTopOpaque()
    {
        QFETCH(QString, input);
        QFETCH(QString, expected);
        const QStringList colours = input.split(' ');
        const qreal ratio = colours[2].toDouble();
        QVGradient gradient;
        gradient.resize(20, 100);
        gradient.setTopColor(QColor::fromString(colours[0]));
        gradient.setBottomColor(QColor::fromString(colours[1]));
        QImage image(QSize(20, 100) * ratio, QImage::Format_ARGB32);
        image.setDevicePixelRatio(ratio);
        image.fill(Qt::transparent);
        gradient.render(&image, {}, {}, {}); // without the window's background
        QCOMPARE(image.pixelColor(0, 0).name() + ' ' +
                     image.pixelColor(0, image.height() - 1).name(),
                 expected);
        for (int y = 0; y < image.height(); ++y) { // every row, across the whole width
            QCOMPARE(image.pixelColor(0, y).alpha(), 255);
            QCOMPARE(image.pixelColor(image.width() - 1, y), image.pixelColor(0, y));
        }
    }

    void clickOpensTheLinkOnlyOnItsRun()
    {
        ZRClickableURLTextField field;
        field.resize(300, 30);
        // Markup in the text and in the address is escaped on the way.
        const QString plain = "Open <the> file & ", run = "open it";
        const QUrl link = QUrl::fromLocalFile("/run & <2>"), target = QUrl::fromLocalFile("/t");
        field.setAttributedStringValue(
            ZRClickableURLTextField::hyperlinkFromString(plain + run, run, link));
        field.show();
        QVERIFY(QTest::qWaitForWindowExposed(&field));
        const QFontMetrics metrics(field.font());
        const QPoint onPlain(metrics.horizontalAdvance(plain) / 2, field.height() / 2),
            onLink(metrics.horizontalAdvance(plain) + metrics.horizontalAdvance(run) / 2,
                   onPlain.y());
        QSignalSpy clicked(&field, &ZRClickableURLTextField::clicked);
        QTest::mouseClick(&field, Qt::LeftButton, {}, onPlain); // no target yet: opens nothing
        field.setTargetURL(target);
        QTest::mouseClick(&field, Qt::LeftButton, {}, onLink);
        QTest::mouseClick(&field, Qt::LeftButton, {}, onPlain);
        QCOMPARE(opened, (QList<QUrl>{link, target}));
        QCOMPARE(clicked.size(), 3);
    }
};

QTEST_MAIN(TestWindow)
#include "tst_window.moc"
