// Crash logs: a crashing child process writes one and still dies of its signal; the newest
// unseen log is offered once, mailed to support, or copied when there is no mail program.
#include "app/CrashReporter.h"
#include "app/Service.h"

#include <QApplication>
#include <QClipboard>
#include <QDesktopServices>
#include <QDialog>
#include <QDir>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QUrlQuery>

#include <csignal>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

volatile bool stopRecursing = false;
int recurse(int depth)
{
    volatile char frame[1024];
    frame[0] = char(depth);
    return stopRecursing ? 0 : recurse(depth + 1) + frame[0];
}

// The child process: installs the handler, then crashes the way `how` says.
int crashChild(const QByteArray &how)
{
    const rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    QCoreApplication::setApplicationName(QStringLiteral("Hoplift"));
    QCoreApplication::setApplicationVersion(QStringLiteral("0.2.1"));
    CrashReporter::installHandler();
    if (how == "fault") // a real one: a write to a read-only page
        *static_cast<volatile char *>(
            mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) = 1;
    else if (how == "overflow")
        return recurse(0);
    else if (how == "abort")
        abort();
    raise(SIGFPE);
    return 0;
}

template <typename T> T *window(const QString &title)
{
    for (QWidget *w : QApplication::topLevelWidgets()) {
        if (auto *t = qobject_cast<T *>(w); t && t->isVisible() && t->windowTitle() == title)
            return t;
    }
    return nullptr;
}

} // namespace

class TestCrashReporter : public QObject
{
    Q_OBJECT
public Q_SLOTS:
    void openMail(const QUrl &url) { mailed.append(url); }

private Q_SLOTS:
    void initTestCase() { qputenv("XDG_STATE_HOME", state.path().toUtf8()); }
    void init() { QVERIFY(QDir(dir).removeRecursively() && QDir().mkpath(dir)); }
    void crash_data();
    void crash();
    void offeredOnce_data();
    void offeredOnce();
    void send_data();
    void send();

private:
    void write(const QString &name, const QByteArray &text);
    QString answerOffer(const QString &button);
    QTemporaryDir state;
    QString dir = state.filePath(QStringLiteral("Hoplift/crashes"));
    QWidget parent;
    QList<QUrl> mailed;
};

void TestCrashReporter::write(const QString &name, const QByteArray &text)
{
    QFile f(QDir(dir).filePath(name));
    QVERIFY(f.open(QIODevice::WriteOnly) && f.write(text) == text.size());
}

// Offers the newest unseen log and answers with button: the text shown, null if none was.
QString TestCrashReporter::answerOffer(const QString &button)
{
    CrashReporter::doCrashSubmitting(&parent);
    QDialog *offer = window<QDialog>(QStringLiteral("Hoplift quit unexpectedly"));
    auto *view = offer ? offer->findChild<QPlainTextEdit *>() : nullptr;
    if (!view || offer->parentWidget() != &parent || !view->isReadOnly() ||
        !QFontInfo(view->font()).fixedPitch())
        return {};
    for (QPushButton *b : offer->findChildren<QPushButton *>()) {
        if (b->text() == button)
            b->click();
    }
    return offer->isVisible() ? QString() : view->toPlainText();
}

void TestCrashReporter::crash_data()
{
    QTest::addColumn<QByteArray>("how");
    QTest::addColumn<int>("signal");
    QTest::newRow("segmentation fault") << QByteArray("fault") << SIGSEGV;
    QTest::newRow("stack overflow") << QByteArray("overflow") << SIGSEGV;
    QTest::newRow("abort") << QByteArray("abort") << SIGABRT;
    QTest::newRow("raised SIGFPE") << QByteArray("fpe") << SIGFPE;
}

void TestCrashReporter::crash()
{
    QFETCH(QByteArray, how);
    QFETCH(int, signal);
    QVERIFY(QDir(dir).removeRecursively()); // the handler makes its folder
    QByteArray self = QCoreApplication::applicationFilePath().toLocal8Bit(), flag = "--crash";
    char *argv[] = {self.data(), flag.data(), how.data(), nullptr};
    const qint64 before = QDateTime::currentSecsSinceEpoch();
    pid_t pid = 0;
    int status = 0;
    QCOMPARE(posix_spawn(&pid, argv[0], nullptr, nullptr, argv, environ), 0);
    QCOMPARE(waitpid(pid, &status, 0), pid);
    QVERIFY(WIFSIGNALED(status));
    QCOMPARE(WTERMSIG(status), signal);

    const QStringList files = QDir(dir).entryList(QDir::Files);
    QCOMPARE(files.size(), 1);
    const auto match =
        QRegularExpression(QStringLiteral("^crash-(\\d+)-%1\\.log$").arg(pid)).match(files.first());
    QVERIFY2(match.hasMatch(), qPrintable(files.first()));
    QVERIFY(match.captured(1).toLongLong() >= before);
    QFile log(QDir(dir).filePath(files.first()));
    QVERIFY(log.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(log.readAll());
    QVERIFY2(text.startsWith(QStringLiteral("Hoplift 0.2.1 (")), qPrintable(text));
    const QString name = QString::fromLatin1(sigabbrev_np(signal));
    QVERIFY(
        text.contains(QStringLiteral("\nSignal: %1 (SIG%2)\nBacktrace:\n").arg(signal).arg(name)));
    QVERIFY(text.contains(QRegularExpression(QStringLiteral("\n.*\\[0x[0-9a-f]+\\]\n"))));
}

void TestCrashReporter::offeredOnce_data()
{
    QTest::addColumn<QStringList>("seen");  // written, then dismissed
    QTest::addColumn<QStringList>("later"); // written after that
    QTest::addColumn<QString>("offered");
    const QString a = QStringLiteral("crash-99-7.log"), b = QStringLiteral("crash-100-3.log");
    const QString c = QStringLiteral("crash-100-4.log"), other = QStringLiteral("crash.log");
    QTest::newRow("no log") << QStringList() << QStringList{other} << QString();
    QTest::newRow("newest by time") << QStringList() << QStringList{b, a} << b;
    QTest::newRow("same second") << QStringList() << QStringList{c, b} << c;
    QTest::newRow("already seen") << QStringList{a} << QStringList() << QString();
    QTest::newRow("older than seen") << QStringList{b} << QStringList{a} << QString();
    QTest::newRow("newer than seen") << QStringList{a} << QStringList{b} << b;
    QTest::newRow("all seen") << QStringList{a, c} << QStringList{b} << QString();
}

void TestCrashReporter::offeredOnce()
{
    QFETCH(QStringList, seen);
    QFETCH(QStringList, later);
    QFETCH(QString, offered);
    for (const QString &name : seen)
        write(name, name.toUtf8());
    QCOMPARE(answerOffer(QStringLiteral("Don't Send")).isNull(), seen.isEmpty());
    for (const QString &name : later)
        write(name, name.toUtf8());
    QCOMPARE(CrashReporter::newCrashLogExists(), !offered.isNull());
    QCOMPARE(answerOffer(QStringLiteral("Don't Send")), offered);
    QVERIFY(!CrashReporter::newCrashLogExists());
}

void TestCrashReporter::send_data()
{
    QTest::addColumn<QByteArray>("log");
    QTest::addColumn<bool>("mailProgram");
    QByteArray longLog = "Hoplift 0.2.1\nSignal: 6 (SIGABRT)\nBacktrace:\n";
    for (int i = 0; i < 2000; ++i)
        longLog += "hoplift(+0x" + QByteArray::number(i, 16) + ") [0x55d0c0de]\n";
    QTest::newRow("short") << QByteArray("Hoplift 0.2.1\nSignal: 11 (SIGSEGV)\n") << true;
    QTest::newRow("query characters") << QByteArray("a&body=b+c #d?e%20f\xc3\xa9\n") << true;
    QTest::newRow("long") << longLog << true;
    QTest::newRow("no mail program") << longLog << false;
}

void TestCrashReporter::send()
{
    QFETCH(QByteArray, log);
    QFETCH(bool, mailProgram);
    mailed.clear();
    QDesktopServices::unsetUrlHandler(QStringLiteral("mailto"));
    if (mailProgram)
        QDesktopServices::setUrlHandler(QStringLiteral("mailto"), this, "openMail");
    else if (QGuiApplication::platformName() != u"offscreen")
        QSKIP("a real platform may start a real mail program");
    else
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("openUrl.*mailto:")));
    write(QStringLiteral("crash-5-5.log"), log);
    QCOMPARE(answerOffer(QStringLiteral("Send Report…")), QString::fromUtf8(log));
    QVERIFY(!CrashReporter::newCrashLogExists());
    if (!mailProgram) {
        QVERIFY(window<QMessageBox>(QStringLiteral("Crash Report Copied")));
        QVERIFY(QGuiApplication::clipboard()->text().contains(Service::supportAddress()));
        QVERIFY(QGuiApplication::clipboard()->text().endsWith(QString::fromUtf8(log)));
        return;
    }
    QCOMPARE(mailed.size(), 1);
    const QUrl url = mailed.first();
    QCOMPARE(url.adjusted(QUrl::RemoveQuery),
             QUrl(QStringLiteral("mailto:") + Service::supportAddress()));
    QVERIFY(!url.query(QUrl::FullyEncoded).contains(u'+'));
    const QUrlQuery query(url);
    QCOMPARE(query.queryItems().size(), 2);
    QCOMPARE(query.queryItemValue(QStringLiteral("subject")),
             QStringLiteral("Hoplift crash report"));
    const QString body = query.queryItemValue(QStringLiteral("body"), QUrl::FullyDecoded);
    const QString crlf = QString::fromUtf8(log).replace(u'\n', QStringLiteral("\r\n"));
    QVERIFY(body.toUtf8().size() <= 16 * 1024);
    QVERIFY(body == crlf || body.size() > 15 * 1024);
    QVERIFY(crlf.startsWith(body.left(body.lastIndexOf(QStringLiteral("\r\n")) + 2)));
}

int main(int argc, char *argv[])
{
    if (argc == 3 && qstrcmp(argv[1], "--crash") == 0)
        return crashChild(argv[2]);
    QApplication app(argc, argv);
    TestCrashReporter test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_crashreporter.moc"
