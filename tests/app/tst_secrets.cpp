// Where the password goes, and where it must not: an account with a password no other test
// uses is checked through a redirect and its files and a bundle are uploaded; then every line
// Hoplift logged, the settings file and every file in the temporary folder are searched for the
// password and for the authorization value made from it. A crash log, written while the
// password is in memory and in the environment, holds neither. Settings and crash logs are the
// user's alone.
#include "app/CrashReporter.h"
#include "app/MainController.h"
#include "support/LocalService.h"
#include "support/LogCapture.h"
#include "ui/SubviewController.h"

#include <QCheckBox>
#include <QDialog>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QLineEdit>
#include <QMainWindow>
#include <QPushButton>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>
#include <QUrl>

#include <algorithm>

#include <csignal>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const QString user = QStringLiteral("vault.keeper");
const QByteArray password = "Tr0ub4dor&9Qz+hoplift-secret";
// What the engine sends: "Authorization: Basic " and this.
const QByteArray credentials = (user.toUtf8() + ':' + password).toBase64();

/** @brief The permission bits of a file or folder, or -1 when it cannot be read. */
int modeOf(const QString &path)
{
    struct stat info = {};
    return stat(QFile::encodeName(path).constData(), &info) == 0 ? int(info.st_mode & 07777) : -1;
}

/** @brief What a text holds of the secret, or an empty list. */
QByteArrayList secretsIn(const QByteArray &text)
{
    QByteArrayList found;
    for (const QByteArray &secret :
         {password, credentials, QUrl::toPercentEncoding(QString::fromUtf8(password))}) {
        if (text.contains(secret))
            found << secret;
    }
    return found;
}

void writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(content) == content.size());
}

// The crashing child: the password in its environment and its memory, then a fault.
int crashChild()
{
    const rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    qputenv("HOPLIFT_SECRET_UNDER_TEST", password);
    const QString inMemory = QString::fromUtf8(password);
    Q_UNUSED(inMemory);
    CrashReporter::installHandler();
    raise(SIGSEGV);
    return 0;
}

} // namespace

class TestSecrets : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void passwordStaysOutOfLogsAndFiles();
    void crashLogHoldsNoSecret();

private:
    QTemporaryDir config, accounts, state, temp;
};

void TestSecrets::initTestCase()
{
    // A desktop's usual umask: files anyone may read unless Hoplift says otherwise.
    umask(022);
    QVERIFY(config.isValid() && accounts.isValid() && state.isValid() && temp.isValid());
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, config.path());
    QCoreApplication::setOrganizationName(QStringLiteral("kelvara"));
    QCoreApplication::setApplicationName(QStringLiteral("Hoplift"));
    // Archives of bundles, and whatever else lands in the temporary folder, come here.
    qputenv("TMPDIR", temp.path().toUtf8());
    QCOMPARE(QDir(QDir::tempPath()).canonicalPath(), QDir(temp.path()).canonicalPath());
    qputenv("XDG_STATE_HOME", state.path().toUtf8());
    QSettings().clear();
}

void TestSecrets::passwordStaysOutOfLogsAndFiles()
{
    const QString accountsFile = accounts.filePath(QStringLiteral("accounts.ini"));
    writeFile(accountsFile, "[" + user.toUtf8() + "]\npassword = " + password +
                                "\nquota = 1 GiB\nbranding = yes\ntitle = Vault\n");
    LocalService service, front;
    QString why;
    QVERIFY2(service.start({QStringLiteral("--accounts"), accountsFile}, &why), qPrintable(why));
    // The account's address answers with a redirect to the service.
    QVERIFY2(front.start({QStringLiteral("--redirect-to"), service.baseUrl()}, &why),
             qPrintable(why));
    const QString files = temp.filePath(QStringLiteral("files"));
    writeFile(files + QStringLiteral("/notes.txt"), QByteArray(70000, 'n'));
    writeFile(files + QStringLiteral("/Viewer.app/Contents/Info.plist"), "<plist/>");

    LogCapture log;
    MainController controller;
    controller.applicationDidFinishLaunching(); // no account yet: the sheet opens
    auto *sheet = controller.mainWindow()->findChild<QDialog *>();
    QVERIFY(sheet && sheet->isVisible());
    sheet->findChild<QLineEdit *>(QStringLiteral("f_URL"))->setText(front.baseUrl());
    sheet->findChild<QLineEdit *>(QStringLiteral("f_Username"))->setText(user);
    sheet->findChild<QLineEdit *>(QStringLiteral("f_Password"))
        ->setText(QString::fromUtf8(password));
    sheet->findChild<QCheckBox *>(QStringLiteral("b_SavePass"))->setChecked(true);
    sheet->findChild<QPushButton *>(QStringLiteral("b_OK"))->click();
    QVERIFY(!sheet->isVisible());
    QCOMPARE(QSettings().value(QStringLiteral("Account URL")).toString(), service.baseUrl());
    QCOMPARE(controller.retrievePassword().toUtf8(), password);

    controller.addFiles(
        {files + QStringLiteral("/notes.txt"), files + QStringLiteral("/Viewer.app")}, false);
    QCOMPARE(int(controller.queue().size()), 2);
    QVERIFY(QTest::qWaitFor(
        [&controller] {
            for (const auto &row : controller.queue()) {
                if (row->uploadState() != 3 && row->uploadState() != 5)
                    return false;
            }
            return true;
        },
        30000));
    for (const auto &row : controller.queue())
        QVERIFY2(row->uploadState() == 3, qPrintable(row->fileWithPath() + row->statusLine()));
    // Both went with the password: the service took them.
    QVERIFY(
        QFileInfo::exists(QDir(service.accountFolder(user)).filePath(QStringLiteral("notes.txt"))));
    QVERIFY(QFileInfo::exists(
        QDir(service.accountFolder(user)).filePath(QStringLiteral("Viewer.app.zip"))));

    // The log: the redirect's answer was logged with its header fields, and nothing holds the
    // password.
    const QByteArrayList lines = log.lines();
    QVERIFY(std::any_of(lines.begin(), lines.end(),
                        [](const QByteArray &line) { return line.startsWith("Header {"); }));
    for (const QByteArray &line : lines)
        QVERIFY2(secretsIn(line).isEmpty(), line.constData());

    // The settings: the account's address, the user name and the queue, readable by the user
    // only.
    QSettings settings;
    settings.sync();
    const QStringList known{QStringLiteral("Account URL"), QStringLiteral("Username"),
                            QStringLiteral("UploadFiles")};
    for (const QString &key : settings.allKeys())
        QVERIFY2(known.contains(key), qPrintable(key));
    QFile settingsFile(settings.fileName());
    QVERIFY(settingsFile.open(QIODevice::ReadOnly));
    QCOMPARE(secretsIn(settingsFile.readAll()), QByteArrayList());
    QCOMPARE(modeOf(settings.fileName()), 0600);

    // The temporary folder, the bundle's archive in it included.
    int searched = 0;
    bool archive = false;
    for (QDirIterator it(temp.path(), QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
         it.hasNext();) {
        QFile file(it.next());
        QVERIFY2(file.open(QIODevice::ReadOnly), qPrintable(file.fileName()));
        QVERIFY2(secretsIn(file.readAll()).isEmpty(), qPrintable(file.fileName()));
        archive = archive || it.fileName().startsWith(QLatin1String("Hoplift!_"));
        ++searched;
    }
    QVERIFY(archive && searched >= 3);
}

void TestSecrets::crashLogHoldsNoSecret()
{
    const QString folder = state.filePath(QStringLiteral("Hoplift/crashes"));
    QByteArray self = QCoreApplication::applicationFilePath().toLocal8Bit(), flag = "--crash";
    char *argv[] = {self.data(), flag.data(), nullptr};
    pid_t pid = 0;
    int status = 0;
    QCOMPARE(posix_spawn(&pid, argv[0], nullptr, nullptr, argv, environ), 0);
    QCOMPARE(waitpid(pid, &status, 0), pid);
    QVERIFY(WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV);

    const QStringList logs = QDir(folder).entryList({QStringLiteral("crash-*.log")}, QDir::Files);
    QCOMPARE(logs.size(), 1);
    const QString path = QDir(folder).filePath(logs.first());
    QFile crashLog(path);
    QVERIFY(crashLog.open(QIODevice::ReadOnly));
    const QByteArray text = crashLog.readAll();
    QVERIFY2(text.contains("Signal: 11 (SIGSEGV)\nBacktrace:\n"), text.constData());
    QCOMPARE(secretsIn(text), QByteArrayList());
    QCOMPARE(modeOf(path), 0600);
    QCOMPARE(modeOf(folder), 0700);
}

int main(int argc, char *argv[])
{
    if (argc == 2 && qstrcmp(argv[1], "--crash") == 0)
        return crashChild();
    QApplication app(argc, argv);
    TestSecrets test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_secrets.moc"
