#include "app/CrashReporter.h"

#include "app/Log.h"
#include "app/Service.h"

#include <QApplication>
#include <QClipboard>
#include <QDesktopServices>
#include <QDialog>
#include <QDialogButtonBox>
#include <QDir>
#include <QFileInfo>
#include <QFontDatabase>
#include <QLabel>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPointer>
#include <QPushButton>
#include <QSaveFile>
#include <QSysInfo>
#include <QUrl>
#include <QVBoxLayout>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>
#include <execinfo.h>
#include <fcntl.h>
#include <unistd.h>

namespace {

const int kFatalSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};
constexpr qsizetype kMaxLogRead = 1 << 20;
constexpr qsizetype kMaxMailBody = 16 * 1024;

// Everything the handler needs is prepared by installHandler(): when it runs, the heap
// or Qt may be what is broken.
char logPathPrefix[PATH_MAX]; // "<crash folder>/crash-"
char logHeader[512];          // "Hoplift 0.2.1 (Qt …, system, architecture)\n"
char *alternateStack = nullptr;
std::atomic_flag crashing = ATOMIC_FLAG_INIT;

const char *signalName(int signal)
{
    switch (signal) {
    case SIGSEGV:
        return "SIGSEGV";
    case SIGBUS:
        return "SIGBUS";
    case SIGFPE:
        return "SIGFPE";
    case SIGILL:
        return "SIGILL";
    case SIGABRT:
        return "SIGABRT";
    }
    return "unknown";
}

// A string built in place on the stack, for the handler: no allocation, always terminated.
struct SafeText
{
    char data[PATH_MAX + 256] = {};
    size_t length = 0;

    SafeText &add(const char *text)
    {
        while (*text && length + 1 < sizeof data)
            data[length++] = *text++;
        data[length] = 0;
        return *this;
    }
    SafeText &add(long long number)
    {
        char digits[24];
        int count = 0;
        unsigned long long rest = number < 0 ? 0ULL - (unsigned long long)number : number;
        do {
            digits[count++] = char('0' + rest % 10);
            rest /= 10;
        } while (rest);
        if (number < 0)
            digits[count++] = '-';
        while (count > 0 && length + 1 < sizeof data)
            data[length++] = digits[--count];
        data[length] = 0;
        return *this;
    }
    void writeTo(int fd) const
    {
        size_t done = 0;
        while (done < length) {
            const ssize_t n = write(fd, data + done, length - done);
            if (n > 0)
                done += size_t(n);
            else if (n == 0 || errno != EINTR)
                return;
        }
    }
};

void onFatalSignal(int signal)
{
    // A second fault (another thread, or this handler failing) goes straight to dying.
    if (!crashing.test_and_set()) {
        SafeText path;
        path.add(logPathPrefix).add((long long)time(nullptr)).add("-").add((long long)getpid());
        path.add(".log");
        SafeText head;
        head.add(logHeader).add("Signal: ").add(signal).add(" (").add(signalName(signal));
        head.add(")\nBacktrace:\n");
        const int fd = open(path.data, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd >= 0) {
            head.writeTo(fd);
            void *frames[128];
            backtrace_symbols_fd(frames, backtrace(frames, 128), fd);
            close(fd);
        }
        SafeText note;
        note.add("Hoplift: fatal signal ").add(signal).add(" (").add(signalName(signal));
        note.add(fd >= 0 ? "), crash log " : "), no crash log could be written to ");
        note.add(path.data).add("\n").writeTo(STDERR_FILENO);
    }
    // Die of the same signal as without this handler: same exit status, same core dump.
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    sigaction(signal, &action, nullptr);
    raise(signal);
}

QDir crashDirectory()
{
    QString base = qEnvironmentVariable("XDG_STATE_HOME");
    if (!QDir::isAbsolutePath(base)) // relative values are to be ignored, like unset ones
        base = QDir::homePath() + QStringLiteral("/.local/state");
    return QDir(base + QStringLiteral("/Hoplift/crashes"));
}

const QString kSeenMarker = QStringLiteral("last-seen");

// A crash log tells what the user was doing: the folder is the user's alone (made so, and
// made so again when an older Hoplift left it open to others), as is every log in it.
bool makePrivateFolder(const QDir &dir)
{
    constexpr QFileDevice::Permissions ownerOnly =
        QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner;
    if (!dir.exists() &&
        !(QDir().mkpath(QFileInfo(dir.path()).path()) && QDir().mkdir(dir.path(), ownerOnly)))
        return false;
    return QFile::setPermissions(dir.path(), ownerOnly);
}

// Logs are named crash-<unix seconds>-<pid>.log: later means a later second, then the name.
bool isLater(const QString &log, const QString &than)
{
    const qint64 seconds = log.section(u'-', 1, 1).toLongLong();
    const qint64 thanSeconds = than.section(u'-', 1, 1).toLongLong();
    return seconds != thanSeconds ? seconds > thanSeconds : log > than;
}

// The file name of the newest crash log, if the user has not been offered it yet.
QString newestUnseenLog()
{
    const QDir dir = crashDirectory();
    QString newest;
    for (const QString &name : dir.entryList({QStringLiteral("crash-*.log")}, QDir::Files)) {
        if (newest.isEmpty() || isLater(name, newest))
            newest = name;
    }
    QFile marker(dir.filePath(kSeenMarker));
    if (newest.isEmpty() || !marker.open(QIODevice::ReadOnly))
        return newest;
    const QString seen = QString::fromUtf8(marker.read(256)).trimmed();
    return isLater(newest, seen) ? newest : QString();
}

void markSeen(const QString &name)
{
    QSaveFile marker(crashDirectory().filePath(kSeenMarker));
    if (!marker.open(QIODevice::WriteOnly) || marker.write(name.toUtf8() + '\n') < 0 ||
        !marker.commit())
        hlog("crash report: cannot record %s as seen: %s", qPrintable(name),
             qPrintable(marker.errorString()));
}

QUrl mailUrl(const QByteArray &log)
{
    QByteArray body = log;
    body.replace("\r\n", "\n").replace("\n", "\r\n"); // mailto bodies break lines with CRLF
    if (body.size() > kMaxMailBody) {
        // Mail programs get the URL on a command line. Keep the head of the log, with the
        // signal and the innermost frames, and cut the end of the backtrace.
        const QByteArray note = "[The rest of the log was cut to keep the mail short.]";
        const qsizetype cut = body.lastIndexOf("\r\n", kMaxMailBody - note.size() - 2);
        body.truncate(cut >= 0 ? cut + 2 : kMaxMailBody - note.size());
        body += note;
    }
    QUrl url;
    url.setScheme(QStringLiteral("mailto"));
    url.setPath(Service::supportAddress());
    // Everything but unreserved characters is encoded, so "&", "=" and "+" in the log
    // cannot split the query or turn into blanks.
    url.setQuery(QStringLiteral("subject=%1&body=%2")
                     .arg(QString::fromLatin1(
                              QUrl::toPercentEncoding(QStringLiteral("Hoplift crash report"))),
                          QString::fromLatin1(QUrl::toPercentEncoding(QString::fromUtf8(body)))));
    return url;
}

void sendReport(const QByteArray &log, QWidget *parent)
{
    if (QDesktopServices::openUrl(mailUrl(log)))
        return;
    hlog("crash report: no mail program; the report was copied to the clipboard");
    QGuiApplication::clipboard()->setText(
        QStringLiteral("To: %1\nSubject: Hoplift crash report\n\n").arg(Service::supportAddress()) +
        QString::fromUtf8(log));
    auto *box = new QMessageBox(
        QMessageBox::Information, QStringLiteral("Crash Report Copied"),
        QStringLiteral("No mail program could be opened. The crash report has been copied to "
                       "the clipboard: please paste it into a mail to %1.")
            .arg(Service::supportAddress()),
        QMessageBox::Ok, parent);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
}

} // namespace

void CrashReporter::installHandler()
{
    static bool installed = false;
    if (installed)
        return;
    const QDir dir = crashDirectory();
    const QByteArray prefix = QFile::encodeName(dir.filePath(QStringLiteral("crash-")));
    if (!makePrivateFolder(dir) || size_t(prefix.size()) >= sizeof logPathPrefix) {
        hlog("crash report: cannot use %s, no crash logs will be written", qPrintable(dir.path()));
        return;
    }
    qstrcpy(logPathPrefix, prefix.constData());
    QString name = QCoreApplication::applicationName();
    if (name.isEmpty())
        name = QStringLiteral("Hoplift");
    const QByteArray header =
        QStringLiteral("%1 %2 (Qt %3, %4, %5)\n")
            .arg(name, QCoreApplication::applicationVersion(), QString::fromLatin1(qVersion()),
                 QSysInfo::prettyProductName(), QSysInfo::currentCpuArchitecture())
            .toUtf8();
    qstrncpy(logHeader, header.constData(), sizeof logHeader);

    // backtrace() loads its unwinder on first use, which allocates: do that now.
    void *frame = nullptr;
    backtrace(&frame, 1);

    // An overflowed stack has no room left for the handler: it runs on a stack of its own
    // (the calling thread's), kept for good as a crash can come during exit.
    const size_t stackSize = std::max<size_t>(SIGSTKSZ, 64 * 1024);
    alternateStack = new char[stackSize];
    stack_t stack = {};
    stack.ss_sp = alternateStack;
    stack.ss_size = stackSize;
    if (sigaltstack(&stack, nullptr) != 0)
        hlog("crash report: no alternate signal stack: %s", strerror(errno));

    struct sigaction action = {};
    action.sa_handler = onFatalSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_ONSTACK;
    for (const int signal : kFatalSignals)
        sigaction(signal, &action, nullptr);
    installed = true;
}

bool CrashReporter::newCrashLogExists()
{
    return !newestUnseenLog().isEmpty();
}

void CrashReporter::doCrashSubmitting(QWidget *parent)
{
    const QString name = newestUnseenLog();
    if (name.isEmpty())
        return;
    QFile file(crashDirectory().filePath(name));
    if (!file.open(QIODevice::ReadOnly)) {
        hlog("crash report: cannot read %s: %s", qPrintable(file.fileName()),
             qPrintable(file.errorString()));
        markSeen(name);
        return;
    }
    const QByteArray log = file.read(kMaxLogRead);

    auto *dialog = new QDialog(parent);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowModality(Qt::WindowModal);
    dialog->setWindowTitle(QStringLiteral("Hoplift quit unexpectedly"));
    auto *text = new QLabel(QStringLiteral("Hoplift quit unexpectedly the last time it ran. You "
                                           "can send the report below to kelvara's support to "
                                           "help get the problem fixed."),
                            dialog);
    text->setWordWrap(true);
    auto *view = new QPlainTextEdit(QString::fromUtf8(log), dialog);
    view->setReadOnly(true);
    view->setLineWrapMode(QPlainTextEdit::NoWrap);
    view->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    auto *buttons = new QDialogButtonBox(dialog);
    buttons->addButton(QStringLiteral("Send Report…"), QDialogButtonBox::AcceptRole)
        ->setDefault(true);
    buttons->addButton(QStringLiteral("Don't Send"), QDialogButtonBox::RejectRole);
    auto *layout = new QVBoxLayout(dialog);
    layout->addWidget(text);
    layout->addWidget(view);
    layout->addWidget(buttons);

    QObject::connect(buttons, &QDialogButtonBox::accepted, dialog, &QDialog::accept);
    QObject::connect(buttons, &QDialogButtonBox::rejected, dialog, &QDialog::reject);
    QObject::connect(dialog, &QDialog::finished, dialog,
                     [name, log, window = QPointer<QWidget>(parent)](int result) {
                         markSeen(name);
                         if (result == QDialog::Accepted)
                             sendReport(log, window);
                     });
    dialog->resize(640, 420);
    dialog->open();
}
