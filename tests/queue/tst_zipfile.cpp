// ZipFile's archives read back by Python's zipfile module (names, bytes, method, local times,
// attributes), its logged failures and their codes, and when closeArchive() finishes an archive.
#undef QT_NO_CAST_FROM_ASCII // the texts are plain string literals
#include "queue/ZipFile.h"
#include "support/LogCapture.h"

#include <QtTest>

namespace {

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

private Q_SLOTS:
    // Entries read back as written, unreadable files as empty entries, every failure logged;
    // and only an entry that opened lets closeArchive() finish an archive, whatever came since.
    void archivesReadBackAndFailuresAreLogged()
    {
        // Local time is UTC+5:30 here, so local and universal times never agree.
        qputenv("TZ", "HLT-5:30");
        tzset();
        QTemporaryDir dir;
        const QString a = dir.filePath("a.zip"), b = dir.filePath("none/b.zip"),
                      c = dir.filePath("c.zip"), gone = dir.filePath("gone");
        LogCapture log;
        ZipFile zip;
        QCOMPARE(zip.createArchive(a), 0);
        QJsonArray expected;
        // Two stdio buffers and a tail of 3 bytes; an empty file; a name beyond ASCII. Each was
        // last modified at 08:07:43 UTC, which the archive holds as local time in two-second steps.
        for (const auto &[name, size] :
             {std::pair{"T.app/a", 131075}, {"T.app/empty", 0}, {"T.app/Résumé ✓ 日本", 13}}) {
            const QByteArray bytes = QByteArray("packed ").repeated(size / 7 + 1).left(size);
            QFile f(dir.filePath(name));
            QVERIFY(QDir().mkpath(QFileInfo(f).path()) && f.open(QIODevice::WriteOnly) &&
                    f.write(bytes) == size && f.flush());
            QVERIFY(f.setFileTime(QDateTime(QDate(2021, 7, 14), QTime(8, 7, 43), Qt::UTC),
                                  QFileDevice::FileModificationTime));
            expected << QJsonArray{
                name, 8, "2021-07-14 13:37:42", 0,
                QString(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex())};
            QCOMPARE(zip.addFileToArchive(f.fileName(), name), 0);
        }
        // Calls in order: a list's elements are evaluated from the first.
        QCOMPARE((QList<int>{zip.addFileToArchive(gone, "gone"),
                             zip.addFileToArchive(dir.path(), "folder"), zip.closeArchive()}),
                 (QList<int>{0, 0, 0}));
        const QJsonArray entries = readBack(a);
        for (const char *name : {"gone", "folder"}) // empty, of whatever time
            expected << QJsonArray{name, 8, entries[expected.size()][2], 0, expected[1][4]};
        QCOMPARE(entries, expected);
        QVERIFY(zip.removeZipArchive() && !QFile::exists(a));

        QCOMPARE((QList<int>{zip.createArchive(b), zip.addFileToArchive(gone, "gone"),
                             zip.closeArchive(), zip.createArchive(c), zip.closeArchive()}),
                 (QList<int>{-1, -102, -1, 0, -1}));
        QCOMPARE(QFileInfo(c).size(), 0);
        QCOMPARE((QList<int>{zip.createArchive(c), zip.addFileToArchive(gone, "gone"),
                             zip.createArchive(a), zip.closeArchive()}),
                 (QList<int>{0, 0, 0, 0}));
        QCOMPARE(readBack(a), QJsonArray());
        const QString unreadable = "error in opening " + gone + " for reading";
        QCOMPARE(QString(log.lines().join('\n')),
                 QStringList({"Creating " + a, unreadable, "error reading " + dir.path(),
                              "error opening " + b, "error in opening " + gone + " in zipfile",
                              "error in closing " + b + " in the zipfile", "zipfile not opened!",
                              "Creating " + c, "zipfile not opened!", "Creating " + c, unreadable,
                              "Creating " + a})
                     .join('\n'));
    }
};

QTEST_GUILESS_MAIN(TestZipFile)
#include "tst_zipfile.moc"
