// Turning paths into rows: what a batch counts and weighs, which rows a folder walk
// makes, bundles, hidden names, link cycles, the "Sanity check" question and the saved queue.
// The tables are plain string literals.
#undef QT_NO_CAST_FROM_ASCII
#include "app/MainController.h"
#include "support/LoopbackHttpServer.h"
#include "ui/SubviewController.h"

#include <QApplication>
#include <QDir>
#include <QMainWindow>
#include <QMessageBox>
#include <QPushButton>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

namespace {

// "dir/name:size" makes a file, "dir/name*:size" an executable one, "dir/name@target" a link.
void makeTree(const QString &root, const QStringList &layout)
{
    for (const QString &item : layout) {
        if (item.contains(QLatin1Char('@'))) {
            const QStringList parts = item.split(QLatin1Char('@'));
            const QString link = root + QLatin1Char('/') + parts[0];
            QDir().mkpath(QFileInfo(link).path());
            QVERIFY(QFile::link(parts[1], link));
            continue;
        }
        const QStringList parts = item.split(QLatin1Char(':'));
        QString name = parts[0];
        const bool executable = name.endsWith(QLatin1Char('*'));
        if (executable)
            name.chop(1);
        const QString path = root + QLatin1Char('/') + name;
        QDir().mkpath(QFileInfo(path).path());
        QFile f(path);
        QVERIFY(f.open(QIODevice::WriteOnly));
        QVERIFY(f.resize(parts.value(1).toLongLong()));
        if (executable)
            f.setPermissions(f.permissions() | QFileDevice::ExeOwner);
    }
}

} // namespace

class TestAddFiles : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();
    void batchCountsWeighsAndMakesRows_data();
    void batchCountsWeighsAndMakesRows();
    void largeBatchAsksFirst_data();
    void largeBatchAsksFirst();
    void savedQueueComesBackWithoutQuestion();

private:
    /** @brief Answers the next modal question with the button labelled answer; records its text. */
    void answerQuestion(const QString &answer);

    /** @brief Launches against an account that refuses the credentials: nothing uploads. */
    void launch(MainController &controller);

    LoopbackHttpServer refusingService;
    QTemporaryDir config;
    QTemporaryDir files;
    QString asked;
};

void TestAddFiles::initTestCase()
{
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, config.path());
    QCoreApplication::setOrganizationName(QStringLiteral("kelvara"));
    QCoreApplication::setApplicationName(QStringLiteral("Hoplift"));
    refusingService.setResponse("HTTP/1.1 401 Unauthorized\r\nContent-Length: 0\r\n\r\n");
    QVERIFY(refusingService.listenOnLoopback());
}

void TestAddFiles::launch(MainController &controller)
{
    QSettings().setValue(QStringLiteral("Account URL"), refusingService.baseUrl());
    controller.applicationDidFinishLaunching();
}

void TestAddFiles::init()
{
    QSettings().clear();
    asked.clear();
    QDir(files.path()).removeRecursively();
    QDir().mkpath(files.path());
}

void TestAddFiles::answerQuestion(const QString &answer)
{
    auto *poll = new QTimer(this);
    connect(poll, &QTimer::timeout, this, [this, poll, answer] {
        auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
        if (!box)
            return;
        asked = box->text() + QLatin1Char('|') + box->informativeText();
        for (QAbstractButton *b : box->buttons()) {
            if (b->text() == answer)
                b->click();
        }
        poll->deleteLater();
    });
    poll->start(10);
}

void TestAddFiles::batchCountsWeighsAndMakesRows_data()
{
    QTest::addColumn<QStringList>("tree");
    QTest::addColumn<QStringList>("batch");
    QTest::addColumn<int>("count");
    QTest::addColumn<qulonglong>("size");
    QTest::addColumn<QStringList>("rows"); // sorted; "+" marks a bundle

    QTest::newRow("hidden names left out")
        << QStringList{"d/a.txt:3", "d/.DS_Store:5", "d/sub/b.txt:4", "d/.git/c:9"}
        << QStringList{"d"} << 2 << 7ull << QStringList{"d/a.txt", "d/sub/b.txt"};
    QTest::newRow("application bundle is one row weighing its visible files")
        << QStringList{"Photos.app/Contents/Info.plist:10", "Photos.app/Contents/.hidden:99",
                       "Photos.app/Contents/MacOS/run:20", "Photos.app/.cache/x:7"}
        << QStringList{"Photos.app"} << 1 << 30ull << QStringList{"+Photos.app"};
    QTest::newRow("bundle inside a plain folder")
        << QStringList{"d/x.txt:1", "d/Notes.rtfd/TXT.rtf:2", "d/Tool.app/bin:4"}
        << QStringList{"d"} << 3 << 7ull << QStringList{"+d/Notes.rtfd", "+d/Tool.app", "d/x.txt"};
    QTest::newRow("AppDir with executable AppRun")
        << QStringList{"Tool/AppRun*:4", "Tool/lib/so:6"} << QStringList{"Tool"} << 1 << 10ull
        << QStringList{"+Tool"};
    QTest::newRow("AppRun not executable is a plain folder")
        << QStringList{"Tool/AppRun:4", "Tool/lib/so:6"} << QStringList{"Tool"} << 2 << 10ull
        << QStringList{"Tool/AppRun", "Tool/lib/so"};
    QTest::newRow("hidden file named by the user is taken")
        << QStringList{".profile:12"} << QStringList{".profile"} << 1 << 12ull
        << QStringList{".profile"};
    QTest::newRow("missing path is a row of size 0")
        << QStringList{} << QStringList{"gone.bin"} << 1 << 0ull << QStringList{"gone.bin"};
    QTest::newRow("same file twice gives two rows")
        << QStringList{"a:1"} << QStringList{"a", "a"} << 2 << 2ull << QStringList{"a", "a"};
    QTest::newRow("link to its own parent ends")
        << QStringList{"d/f:1", "d/sub/g:2", "d/sub/up@.."} << QStringList{"d"} << 2 << 3ull
        << QStringList{"d/f", "d/sub/g"};
    QTest::newRow("linked file is read through")
        << QStringList{"real:5", "d/alias@../real"} << QStringList{"d"} << 1 << 5ull
        << QStringList{"d/alias"};
}

void TestAddFiles::batchCountsWeighsAndMakesRows()
{
    QFETCH(QStringList, tree);
    QFETCH(QStringList, batch);
    QFETCH(int, count);
    QFETCH(qulonglong, size);
    QFETCH(QStringList, rows);
    makeTree(files.path(), tree);
    QStringList paths;
    for (const QString &b : batch)
        paths << files.filePath(b);

    MainController controller;
    launch(controller);
    qint32 counted = 0;
    quint64 weighed = 0;
    controller.checkFiles(paths, counted, weighed);
    QCOMPARE(counted, count);
    QCOMPARE(weighed, quint64(size));

    controller.addFiles(paths, false);
    QStringList made;
    for (const auto &row : controller.queue()) {
        QCOMPARE(row->uploadState(), 0);
        made << (row->isBundle() ? QStringLiteral("+") : QString()) +
                    QDir(files.path()).relativeFilePath(row->fileWithPath());
    }
    made.sort();
    QCOMPARE(made, rows);

    controller.waitForSavedQueue();
    QStringList saved = QSettings().value(QStringLiteral("UploadFiles")).toStringList();
    QCOMPARE(saved.size(), rows.size());
}

void TestAddFiles::largeBatchAsksFirst_data()
{
    QTest::addColumn<int>("files");
    QTest::addColumn<qlonglong>("fileSize");
    QTest::addColumn<bool>("check");
    QTest::addColumn<QString>("answer");
    QTest::addColumn<QString>("question"); // empty: no question
    QTest::addColumn<int>("rows");

    QTest::newRow("100 files pass") << 100 << 1024ll << true << QString() << QString() << 100;
    QTest::newRow("101 files ask, yes")
        << 101 << 0ll << true << QStringLiteral("Yes, I want to")
        << QStringLiteral("Sanity check|Do you want to upload 101 files with empty file?") << 101;
    QTest::newRow("1001 files ask, cancel")
        << 1001 << 0ll << true << QStringLiteral("Cancel")
        << QStringLiteral("Sanity check|Do you want to upload 1,001 files with empty file?") << 0;
    QTest::newRow("exactly 100 MiB passes")
        << 1 << 104857600ll << true << QString() << QString() << 1;
    QTest::newRow("one byte more asks")
        << 1 << 104857601ll << true << QStringLiteral("Cancel")
        << QStringLiteral("Sanity check|Do you want to upload 1 files with 100.00 MB?") << 0;
    QTest::newRow("restoring never asks") << 101 << 0ll << false << QString() << QString() << 101;
}

void TestAddFiles::largeBatchAsksFirst()
{
    QFETCH(int, files);
    QFETCH(qlonglong, fileSize);
    QFETCH(bool, check);
    QFETCH(QString, answer);
    QFETCH(QString, question);
    QFETCH(int, rows);
    QStringList tree;
    for (int i = 0; i < files; ++i)
        tree << QStringLiteral("batch/f%1:%2").arg(i).arg(fileSize);
    makeTree(this->files.path(), tree);
    MainController controller;
    launch(controller);
    QSettings().setValue(QStringLiteral("UploadFiles"), QStringList{QStringLiteral("/earlier")});
    if (!answer.isEmpty())
        answerQuestion(answer);
    controller.addFiles({this->files.filePath(QStringLiteral("batch"))}, check);
    QCOMPARE(asked, question);
    QCOMPARE(int(controller.queue().size()), rows);
    // Refusing leaves the saved queue as it was.
    if (rows == 0)
        QCOMPARE(QSettings().value(QStringLiteral("UploadFiles")).toStringList(),
                 QStringList{QStringLiteral("/earlier")});
    auto *info = controller.mainWindow()->findChild<QWidget *>(QStringLiteral("textaddFiles"));
    QVERIFY(!info->isVisible());
}

void TestAddFiles::savedQueueComesBackWithoutQuestion()
{
    QStringList tree;
    for (int i = 0; i < 150; ++i)
        tree << QStringLiteral("f%1:1").arg(i, 3, 10, QLatin1Char('0'));
    makeTree(files.path(), tree);
    QStringList saved;
    for (int i = 0; i < 150; ++i)
        saved << files.filePath(QStringLiteral("f%1").arg(i, 3, 10, QLatin1Char('0')));
    QSettings().setValue(QStringLiteral("UploadFiles"), saved);

    MainController controller;
    launch(controller);
    QStringList restored;
    for (const auto &row : controller.queue())
        restored << row->fileWithPath();
    QCOMPARE(restored, saved); // in the saved order
    QVERIFY(asked.isEmpty());
    controller.applicationWillTerminate();
    QCOMPARE(QSettings().value(QStringLiteral("UploadFiles")).toStringList(), saved);
}

QTEST_MAIN(TestAddFiles)
#include "tst_addfiles.moc"
