// ZipFile's archives read back by Python's zipfile module (names, bytes, method, local times,
// attributes), its logged failures and their codes, and when closeArchive() finishes an archive.
// The texts are plain string literals.
#undef QT_NO_CAST_FROM_ASCII
#include "queue/ZipFile.h"
#include "support/LogCapture.h"

#include <QCryptographicHash>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

namespace {

// A file of size bytes, last modified at 08:07:43 UTC; returns an entry as readBack() gives it.
QJsonArray makeFile(const QString &path, const QString &name, int size)
{
    QDir().mkpath(QFileInfo(path).path());
    const QByteArray bytes = QByteArray("Hoplift packs ").repeated(size / 14 + 1).left(size);
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly) || f.write(bytes) != size || !f.flush() ||
        !f.setFileTime(QDateTime(QDate(2021, 7, 14), QTime(8, 7, 43), Qt::UTC),
                       QFileDevice::FileModificationTime))
        qFatal("cannot write %s", qPrintable(path));
    // Local time, in two-second steps; no attributes.
    return {name, 8, "2021-07-14 13:37:42", 0,
            QString(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex())};
}

// Each entry as [name, method, time, attributes, sha256]; reading an entry checks its CRC.
QJsonArray readBack(const QString &archive)
{
    QProcess python;
    python.setProcessChannelMode(QProcess::ForwardedErrorChannel); // errors into the test's log
    python.start("/usr/bin/python3", {"-c", R"(
import hashlib, json, sys, zipfile
with zipfile.ZipFile(sys.argv[1], metadata_encoding='utf-8') as z:
    print(json.dumps([[i.filename, i.compress_type, '%d-%02d-%02d %02d:%02d:%02d' % i.date_time,
                       i.external_attr, hashlib.sha256(z.read(i)).hexdigest()] for i in z.infolist()]))
)",
                                      archive});
    python.waitForFinished();
    return QJsonDocument::fromJson(python.readAllStandardOutput()).array();
}

} // namespace

class TestZipFile : public QObject
{
    Q_OBJECT
    QTemporaryDir dir;

private Q_SLOTS:
    void initTestCase()
    {
        // Local time is UTC+5:30 here, so local and universal times never agree.
        qputenv("TZ", "HLT-5:30");
        tzset();
    }

    // Entries read back as written, unreadable files as empty entries, every failure logged;
    // and only an entry that opened lets closeArchive() finish an archive, whatever came since.
    void archivesReadBackAndFailuresAreLogged()
    {
        const QString a = dir.filePath("a.zip"), b = dir.filePath("none/b.zip"),
                      c = dir.filePath("c.zip"), gone = dir.filePath("gone");
        LogCapture log;
        ZipFile zip;
        QCOMPARE(zip.createArchive(a), 0);
        QJsonArray expected;
        // Two stdio buffers and a tail of 3 bytes; an empty file; a name beyond ASCII.
        for (const auto &[name, size] :
             {std::pair{"T.app/a", 131075}, {"T.app/empty", 0}, {"T.app/Résumé ✓ 日本", 13}}) {
            expected << makeFile(dir.filePath(name), name, size);
            QCOMPARE(zip.addFileToArchive(dir.filePath(name), name), 0);
        }
        QCOMPARE(zip.addFileToArchive(gone, "gone"), 0);
        QCOMPARE(zip.addFileToArchive(dir.path(), "folder"), 0);
        QCOMPARE(zip.closeArchive(), 0);
        const QJsonArray entries = readBack(a);
        for (const char *name : {"gone", "folder"}) // empty, of whatever time
            expected << QJsonArray{name, 8, entries[expected.size()][2], 0, expected[1][4]};
        QCOMPARE(entries, expected);
        QVERIFY(zip.removeZipArchive() && !QFile::exists(a));

        QCOMPARE(zip.createArchive(b), -1);
        QCOMPARE(zip.addFileToArchive(gone, "gone"), -102);
        QCOMPARE(zip.closeArchive(), -1);
        QCOMPARE(zip.createArchive(c), 0);
        QCOMPARE(zip.closeArchive(), -1);
        QCOMPARE(QFileInfo(c).size(), 0);
        QCOMPARE(zip.createArchive(c), 0);
        QCOMPARE(zip.addFileToArchive(gone, "gone"), 0);
        QCOMPARE(zip.createArchive(a), 0);
        QCOMPARE(zip.closeArchive(), 0);
        QCOMPARE(readBack(a), QJsonArray());
        const QString unreadable = "error in opening " + gone + " for reading";
        QCOMPARE(log.lines().join('\n'),
                 QStringList({"Creating " + a, unreadable, "error reading " + dir.path(),
                              "error opening " + b, "error in opening " + gone + " in zipfile",
                              "error in closing " + b + " in the zipfile", "zipfile not opened!",
                              "Creating " + c, "zipfile not opened!", "Creating " + c, unreadable,
                              "Creating " + a})
                     .join('\n')
                     .toUtf8());
    }
};

QTEST_GUILESS_MAIN(TestZipFile)
#include "tst_zipfile.moc"
