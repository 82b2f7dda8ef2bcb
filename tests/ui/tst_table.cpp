// The upload list: drops on the list and on the drop area, row views only for rows in
// sight, the delete keys and the selection that follows a removed row.
#include "app/MainController.h"
#include "support/LoopbackHttpServer.h"
#include "ui/QVDropView.h"
#include "ui/QVSubView.h"
#include "ui/SubviewController.h"
#include "ui/SubviewTableViewController.h"
#include "ui/iTableView.h"

#include <QDir>
#include <QDragEnterEvent>
#include <QFile>
#include <QMainWindow>
#include <QMimeData>
#include <QScrollBar>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

class TestTable : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();
    void dropsQueueLocalFilesOfferedForCopy_data();
    void dropsQueueLocalFilesOfferedForCopy();
    void onlyRowsInSightHaveViews();
    void deleteKeysRemoveTheSelectedRows();

private:
    void launch(MainController &controller);
    QStringList makeFiles(int count);

    LoopbackHttpServer refusingService;
    QTemporaryDir config;
    QTemporaryDir files;
};

void TestTable::initTestCase()
{
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, config.path());
    QCoreApplication::setOrganizationName(QStringLiteral("kelvara"));
    QCoreApplication::setApplicationName(QStringLiteral("Hoplift"));
    refusingService.setResponse("HTTP/1.1 401 Unauthorized\r\nContent-Length: 0\r\n\r\n");
    QVERIFY(refusingService.listenOnLoopback());
}

void TestTable::init()
{
    QSettings().clear();
}

void TestTable::launch(MainController &controller)
{
    // The account refuses the credentials: rows stay queued and nothing is sent.
    QSettings().setValue(QStringLiteral("Account URL"), refusingService.baseUrl());
    controller.applicationDidFinishLaunching();
    controller.mainWindow()->resize(560, 620);
    controller.mainWindow()->show();
    QVERIFY(QTest::qWaitForWindowExposed(controller.mainWindow()));
}

QStringList TestTable::makeFiles(int count)
{
    QStringList paths;
    for (int i = 0; i < count; ++i) {
        paths << files.filePath(QStringLiteral("f%1.txt").arg(i));
        QFile file(paths.last());
        if (file.open(QIODevice::WriteOnly))
            file.write("x");
    }
    return paths;
}

void TestTable::dropsQueueLocalFilesOfferedForCopy_data()
{
    QTest::addColumn<bool>("onList");
    QTest::addColumn<int>("actions");
    QTest::addColumn<bool>("withWebLink");
    QTest::addColumn<bool>("entered");
    QTest::addColumn<int>("queued");

    const int all = Qt::CopyAction | Qt::MoveAction | Qt::LinkAction;
    for (bool onList : {true, false}) {
        const char *where = onList ? "list" : "drop area";
        QTest::addRow("%s: copy, move and link", where) << onList << all << false << true << 2;
        QTest::addRow("%s: move only", where)
            << onList << int(Qt::MoveAction) << false << false << 0;
        QTest::addRow("%s: web link left out", where) << onList << all << true << true << 2;
    }
}

void TestTable::dropsQueueLocalFilesOfferedForCopy()
{
    QFETCH(bool, onList);
    QFETCH(int, actions);
    QFETCH(bool, withWebLink);
    QFETCH(bool, entered);
    QFETCH(int, queued);

    MainController controller;
    launch(controller);
    if (onList) // the list shows once it has rows; a drop on it adds more
        controller.addFiles(makeFiles(1), false);
    const int before = int(controller.queue().size());
    QWidget *target =
        onList ? controller.mainWindow()->findChild<iTableView *>()->viewport()
               : static_cast<QWidget *>(controller.mainWindow()->findChild<QVDropView *>());
    QVERIFY(target->isVisible());

    QList<QUrl> urls{QUrl::fromLocalFile(files.filePath(QStringLiteral("a.txt"))),
                     QUrl::fromLocalFile(files.filePath(QStringLiteral("b.txt")))};
    if (withWebLink)
        urls.insert(1, QUrl(QStringLiteral("https://example.org/c.txt")));
    QMimeData data;
    data.setUrls(urls);
    const QPoint at = target->rect().center();
    QDragEnterEvent enter(at, Qt::DropActions(actions), &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(target, &enter);
    QCOMPARE(enter.isAccepted(), entered);
    if (!entered)
        return;
    QCOMPARE(enter.dropAction(), Qt::CopyAction);
    QDropEvent drop(at, Qt::DropActions(actions), &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(target, &drop);
    QVERIFY(drop.isAccepted());
    QCOMPARE(drop.dropAction(), Qt::CopyAction);
    QCOMPARE(int(controller.queue().size()) - before, queued);
    QCOMPARE(controller.queue().back()->fileWithPath(), files.filePath(QStringLiteral("b.txt")));
}

void TestTable::onlyRowsInSightHaveViews()
{
    MainController controller;
    launch(controller);
    controller.addFiles(makeFiles(3000), false);
    auto *list = controller.mainWindow()->findChild<iTableView *>();
    SubviewTableViewController *table = controller.tableController();

    const auto check = [&](int expectFirst, int expectLast) {
        const QList<QVSubView *> views = table->placedViews();
        const int inSight = list->viewport()->height() / 45 + 2;
        QVERIFY2(views.size() <= inSight + 8, qPrintable(QString::number(views.size())));
        int made = 0;
        for (const auto &row : controller.queue())
            made += row->hasView() ? 1 : 0;
        QCOMPARE(made, int(views.size()));
        QVERIFY(controller.queue()[size_t(expectFirst)]->hasView());
        QVERIFY(controller.queue()[size_t(expectLast)]->hasView());
        for (QVSubView *view : views) {
            QVERIFY(view->isVisible());
            QCOMPARE(view->parentWidget(), list->viewport());
            QCOMPARE(view->width(), list->viewport()->width());
        }
    };
    // Added rows scroll the last one into sight.
    check(2999 - 5, 2999);
    QVERIFY(!controller.queue().front()->hasView());
    list->verticalScrollBar()->setValue(0);
    QCoreApplication::processEvents();
    check(0, 5);
    QVERIFY(!controller.queue().back()->hasView());
    // A taller window shows more rows, each at its cell.
    controller.mainWindow()->resize(560, 900);
    QTRY_VERIFY(controller.queue()[12]->hasView());
    const QRect cell = list->visualRect(table->index(12, 0));
    QCOMPARE(controller.queue()[12]->view()->geometry(), cell);
}

void TestTable::deleteKeysRemoveTheSelectedRows()
{
    MainController controller;
    launch(controller);
    const QStringList paths = makeFiles(5);
    controller.addFiles(paths, false);
    auto *list = controller.mainWindow()->findChild<iTableView *>();
    SubviewTableViewController *table = controller.tableController();
    QItemSelection rows;
    for (int r : {1, 3})
        rows.select(table->index(r, 0), table->index(r, 0));
    list->selectionModel()->select(rows,
                                   QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
    list->setFocus();
    QTest::keyClick(list, Qt::Key_Delete);
    QStringList left;
    for (const auto &row : controller.queue())
        left << row->fileWithPath();
    QCOMPARE(left, (QStringList{paths[0], paths[2], paths[4]}));
    controller.waitForSavedQueue();
    QCOMPARE(QSettings().value(QStringLiteral("UploadFiles")).toStringList(), left);
    QVERIFY(!list->selectionModel()->hasSelection());

    // Deleting a selected row by its button keeps the others selected, moved up past it.
    QItemSelection both;
    for (int r : {0, 2})
        both.select(table->index(r, 0), table->index(r, 0));
    list->selectionModel()->select(both,
                                   QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
    controller.buttonPressed(controller.queue()[0].get(), 2);
    QCOMPARE(int(controller.queue().size()), 2);
    QCOMPARE(list->selectionModel()->selectedRows().size(), 1);
    QCOMPARE(list->selectionModel()->selectedRows().value(0).row(), 1);

    // An emptied list keeps no row views.
    QTest::keyClick(list, Qt::Key_Backspace);
    list->selectAll();
    QTest::keyClick(list, Qt::Key_Backspace);
    QVERIFY(controller.queue().empty());
    QVERIFY(table->placedViews().isEmpty());
    for (QVSubView *view : list->viewport()->findChildren<QVSubView *>())
        QVERIFY(!view->isVisible());
}

QTEST_MAIN(TestTable)
#include "tst_table.moc"
