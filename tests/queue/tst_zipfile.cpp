// ZipFile's archives read back by Python's zipfile module: names, bytes, method, times and
// attributes of each entry; the logged failures and their codes; when closeArchive() finishes
// an archive; removing it.
#include "queue/ZipFile.h"
#include "support/LogCapture.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

#include <ctime>
#include <unistd.h>

#include <minizip/zip.h>

namespace {

// Local time is UTC+5:30 here, so local and universal times never agree.
const QDateTime modified(QDate(2021, 7, 14), QTime(8, 7, 43), Qt::UTC);

QString sha256(const QByteArray &bytes)
{
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
}

QByteArray makeFile(const QString &path, int size)
{
    QDir().mkpath(QFileInfo(path).path());
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator random(size);
    for (char &c : bytes)
        c = char('a' + random.bounded(6));
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly) || f.write(bytes) != size || !f.flush() ||
        !f.setFileTime(modified, QFileDevice::FileModificationTime))
        qFatal("cannot write %s", qPrintable(path));
    return bytes;
}

// Each entry as {name, method, time, attributes, sha256}; reading an entry checks its CRC.
QJsonArray readBack(const QString &archive)
{
    static const char script[] = R"(
import hashlib, json, sys, zipfile
with zipfile.ZipFile(sys.argv[1], metadata_encoding='utf-8') as z:
    print(json.dumps([dict(name=i.filename, method=i.compress_type,
                           time='%d-%02d-%02d %02d:%02d:%02d' % i.date_time,
                           attributes=i.external_attr, sha256=hashlib.sha256(z.read(i)).hexdigest())
                      for i in z.infolist()]))
)";
    QProcess python;
    python.start(QStringLiteral("/usr/bin/python3"),
                 {QStringLiteral("-c"), QString::fromLatin1(script), archive});
    if (!python.waitForFinished() || python.exitCode() != 0)
        return {QString::fromLocal8Bit(python.readAllStandardError())};
    return QJsonDocument::fromJson(python.readAllStandardOutput()).array();
}

} // namespace

class TestZipFile : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void entryReadsBackAsWritten_data();
    void entryReadsBackAsWritten();
    void filetimeGivesLocalTime_data();
    void filetimeGivesLocalTime();
    void failureIsLoggedAndArchiveGoesOn_data();
    void failureIsLoggedAndArchiveGoesOn();
    void closeFinishesOnlyAfterAnEntryOpened();
    void removeDeletesOnceAndForgetsPath();

private:
    QTemporaryDir dir;
    QString path(const QString &name) const { return dir.filePath(name); }
};

void TestZipFile::initTestCase()
{
    qputenv("TZ", "HLT-5:30");
    tzset();
    QVERIFY(dir.isValid());
}

void TestZipFile::entryReadsBackAsWritten_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("size");
    QTest::newRow("empty file") << QStringLiteral("Tool.app/empty") << 0;
    QTest::newRow("size not a multiple of 4") << QStringLiteral("Tool.app/Contents/a") << 4099;
    QTest::newRow("size a multiple of 4") << QStringLiteral("Tool.app/Contents/b") << 8192;
    QTest::newRow("non-ASCII name") << QStringLiteral("Tool.app/Résumé ✓ 日本.txt") << 13;
    QTest::newRow("a few MiB") << QStringLiteral("Tool.app/Contents/MacOS/Tool") << 3145731;
}

void TestZipFile::entryReadsBackAsWritten()
{
    QFETCH(QString, name);
    QFETCH(int, size);
    const QString source = path(QStringLiteral("src/") + name);
    const QByteArray bytes = makeFile(source, size);
    const QString archive = path(QStringLiteral("out.zip"));
    makeFile(archive, 100); // replaced, not appended to

    LogCapture log;
    ZipFile zip;
    QCOMPARE(zip.createArchive(archive), 0);
    QCOMPARE(zip.addFileToArchive(source, name), 0);
    QCOMPARE(zip.closeArchive(), 0);
    QCOMPARE(log.lines(), QByteArrayList{"Creating " + archive.toUtf8()});

    QFile f(archive);
    QVERIFY(f.open(QIODevice::ReadOnly));
    QCOMPARE(f.read(4), QByteArray("PK\3\4"));
    const QJsonObject expected{{QStringLiteral("name"), name},
                               {QStringLiteral("method"), 8},
                               {QStringLiteral("time"), QStringLiteral("2021-07-14 13:37:42")},
                               {QStringLiteral("attributes"), 0},
                               {QStringLiteral("sha256"), sha256(bytes)}};
    QCOMPARE(readBack(archive), QJsonArray{expected});
}

void TestZipFile::filetimeGivesLocalTime_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("result");
    QTest::addColumn<QString>("record"); // sec min hour mday mon (from 0) year (since 1900)
    const QString file = path(QStringLiteral("stamped"));
    makeFile(file, 1);
    const QString longName = path(QString(260, QLatin1Char('x')).insert(200, QLatin1Char('/')));
    makeFile(longName, 1);
    QTest::newRow("file") << file << 1 << QStringLiteral("43 37 13 14 6 121");
    QTest::newRow("trailing slash")
        << file + QLatin1Char('/') << 1 << QStringLiteral("43 37 13 14 6 121");
    QTest::newRow("missing") << path(QStringLiteral("gone")) << 0
                             << QStringLiteral("0 30 5 1 0 70");
    QTest::newRow("standard input") << QStringLiteral("-") << 0 << QStringLiteral("0 30 5 1 0 70");
    QTest::newRow("name cut at 255") << longName << 0 << QStringLiteral("0 30 5 1 0 70");
}

void TestZipFile::filetimeGivesLocalTime()
{
    QFETCH(QString, name);
    QFETCH(int, result);
    QFETCH(QString, record);
    tm_zip t;
    unsigned long dosDate = 7;
    QCOMPARE(filetime(QFile::encodeName(name).constData(), &t, &dosDate), result);
    QCOMPARE(QStringLiteral("%1 %2 %3 %4 %5 %6")
                 .arg(t.tm_sec)
                 .arg(t.tm_min)
                 .arg(t.tm_hour)
                 .arg(t.tm_mday)
                 .arg(t.tm_mon)
                 .arg(t.tm_year),
             record);
    QCOMPARE(dosDate, 7ul);
}

void TestZipFile::failureIsLoggedAndArchiveGoesOn_data()
{
    // In log: %1 the failing source, %2 the archive, %3 the good file added after it.
    QTest::addColumn<QString>("source");
    QTest::addColumn<QString>("archive");
    QTest::addColumn<int>("created");
    QTest::addColumn<int>("added");
    QTest::addColumn<int>("closed");
    QTest::addColumn<QStringList>("log");
    const QString created = QStringLiteral("Creating %2");
    QTest::newRow("source vanished")
        << QStringLiteral("gone") << QStringLiteral("a.zip") << 0 << 0 << 0
        << QStringList{created, QStringLiteral("error in opening %1 for reading")};
    QTest::newRow("source unreadable")
        << QStringLiteral("locked") << QStringLiteral("a.zip") << 0 << 0 << 0
        << QStringList{created, QStringLiteral("error in opening %1 for reading")};
    QTest::newRow("source fails while read")
        << QStringLiteral("folder") << QStringLiteral("a.zip") << 0 << 0 << 0
        << QStringList{created, QStringLiteral("error reading %1")};
    QTest::newRow("archive in a missing folder")
        << QStringLiteral("good") << QStringLiteral("none/a.zip") << -1 << -102 << -1
        << QStringList{QStringLiteral("error opening %2"),
                       QStringLiteral("error in opening %1 in zipfile"),
                       QStringLiteral("error in closing %2 in the zipfile"),
                       QStringLiteral("error in opening %3 in zipfile"),
                       QStringLiteral("error in closing %2 in the zipfile"),
                       QStringLiteral("zipfile not opened!")};
}

void TestZipFile::failureIsLoggedAndArchiveGoesOn()
{
    QFETCH(QString, source);
    QFETCH(QString, archive);
    QFETCH(int, created);
    QFETCH(int, added);
    QFETCH(int, closed);
    QFETCH(QStringList, log);
    const QString bad = path(source);
    const QString good = path(QStringLiteral("good"));
    const QByteArray goodBytes = makeFile(good, 4097);
    archive = path(archive);
    QFile::remove(archive);
    if (source == QLatin1String("folder"))
        QDir().mkpath(bad);
    if (source == QLatin1String("locked")) {
        if (geteuid() == 0)
            QSKIP("root reads files without read permission");
        makeFile(bad, 8);
        QFile::setPermissions(bad, {});
    }

    LogCapture capture;
    ZipFile zip;
    QCOMPARE(zip.createArchive(archive), created);
    QCOMPARE(zip.addFileToArchive(bad, QStringLiteral("Tool.app/a")), added);
    QCOMPARE(zip.addFileToArchive(good, QStringLiteral("Tool.app/b")), added);
    QCOMPARE(zip.closeArchive(), closed);
    QByteArrayList expected;
    for (const QString &line : log)
        expected << QString(line)
                        .replace(QLatin1String("%1"), bad)
                        .replace(QLatin1String("%2"), archive)
                        .replace(QLatin1String("%3"), good)
                        .toUtf8();
    QCOMPARE(capture.lines(), expected);

    if (created != 0) {
        QVERIFY(!QFile::exists(archive));
        return;
    }
    const QJsonArray entries = readBack(archive);
    QCOMPARE(entries.size(), 2);
    QCOMPARE(entries[0][QStringLiteral("sha256")].toString(), sha256({}));
    QCOMPARE(entries[1][QStringLiteral("name")].toString(), QStringLiteral("Tool.app/b"));
    QCOMPARE(entries[1][QStringLiteral("sha256")].toString(), sha256(goodBytes));
}

void TestZipFile::closeFinishesOnlyAfterAnEntryOpened()
{
    const QString file = path(QStringLiteral("one"));
    makeFile(file, 5);
    LogCapture log;
    ZipFile zip;

    QCOMPARE(zip.createArchive(path(QStringLiteral("nothing-yet.zip"))), 0);
    QCOMPARE(zip.closeArchive(), -1);
    QCOMPARE(log.count("zipfile not opened!"), 1);
    QCOMPARE(QFileInfo(path(QStringLiteral("nothing-yet.zip"))).size(), 0);

    QCOMPARE(zip.createArchive(path(QStringLiteral("one.zip"))), 0);
    QCOMPARE(zip.addFileToArchive(file, QStringLiteral("one")), 0);
    QCOMPARE(zip.closeArchive(), 0);
    QCOMPARE(readBack(path(QStringLiteral("one.zip"))).size(), 1);

    // The last entry tried, in an earlier archive, had opened: this empty one is finished.
    QCOMPARE(zip.createArchive(path(QStringLiteral("empty.zip"))), 0);
    QCOMPARE(zip.closeArchive(), 0);
    QCOMPARE(readBack(path(QStringLiteral("empty.zip"))), QJsonArray());

    QCOMPARE(zip.createArchive(path(QStringLiteral("none/failed.zip"))), -1);
    QCOMPARE(zip.addFileToArchive(file, QStringLiteral("one")), -102);
    QCOMPARE(zip.createArchive(path(QStringLiteral("after-failure.zip"))), 0);
    log.clear();
    QCOMPARE(zip.closeArchive(), -1);
    QCOMPARE(log.lines(), QByteArrayList{"zipfile not opened!"});
    QCOMPARE(QFileInfo(path(QStringLiteral("after-failure.zip"))).size(), 0);
}

void TestZipFile::removeDeletesOnceAndForgetsPath()
{
    const QString file = path(QStringLiteral("kept"));
    makeFile(file, 5);
    ZipFile zip;
    QVERIFY(!zip.removeZipArchive());
    const QString archive = path(QStringLiteral("removed.zip"));
    QCOMPARE(zip.createArchive(archive), 0);
    QCOMPARE(zip.addFileToArchive(file, QStringLiteral("kept")), 0);
    QCOMPARE(zip.closeArchive(), 0);
    QCOMPARE(zip.archivePath(), archive);
    QVERIFY(zip.removeZipArchive());
    QVERIFY(!QFile::exists(archive));
    QVERIFY(zip.archivePath().isNull());
    QVERIFY(!zip.removeZipArchive());
}

QTEST_GUILESS_MAIN(TestZipFile)
#include "tst_zipfile.moc"
