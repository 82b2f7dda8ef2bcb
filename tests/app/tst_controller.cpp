// MainController in this process against real local kelvara services: the bounded wait at launch,
// the account sheet and document, the password in the secret store and nowhere else, Tab, notices
// and taskbar progress (dbusmock's notification daemon on the session bus), and the crash log.
#include "app/CrashReporter.h"
#include "app/Keychain.h"
#include "support/E2eSupport.h"
#include "support/LocalService.h"
#include "support/LogCapture.h"
#include "support/LoopbackHttpServer.h"
#include "ui/QVGradient.h"
#include "ui/QVSubView.h"

#include <QtDBus>
#include <QtTest>
#include <QtWidgets>

#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

using namespace Qt::StringLiterals;

namespace {

const QString notifications = u"org.freedesktop.Notifications"_s;
const QString notificationsPath = u"/org/freedesktop/Notifications"_s;
const QByteArray secret = "Tr0ub4dor&9Qz+hoplift-secret";

template <typename T = QLabel> T *widget(const MainController &controller, const char *name)
{
    return controller.mainWindow()->findChild<T *>(QLatin1StringView(name));
}

int modeOf(const QString &path)
{
    struct stat info = {};
    return stat(QFile::encodeName(path).constData(), &info) == 0 ? int(info.st_mode & 07777) : -1;
}

/** @brief The request lines a server got from the first'th connection on, sorted. */
QByteArrayList requestLines(const LoopbackHttpServer &server, qsizetype first = 0)
{
    QByteArrayList lines;
    for (const LoopbackHttpServer::Received &r : server.received().mid(first))
        lines << r.data.left(r.data.indexOf("\r\n"));
    std::sort(lines.begin(), lines.end());
    return lines;
}

/** @brief Queues paths and waits until every row has ended, well or not. */
bool upload(MainController &controller, const QStringList &paths)
{
    controller.addFiles(paths, false);
    const auto ended = [](const auto &row) { return row->uploadState() >= 3; };
    return QTest::qWaitFor([&] { return std::ranges::all_of(controller.queue(), ended); }, 60000);
}

using Notice = std::tuple<uint, uint, QString>; // id, the id it replaces, "summary\nbody"

/** @brief This process's Notify calls, in order, with the ids the daemon gave them. */
QList<Notice> notices()
{
    QList<Notice> ours;
    uint issued = 0; // the daemon numbers new notifications 1, 2, ...
    QDBusMessage get = QDBusMessage::createMethodCall(
        notifications, notificationsPath, u"org.freedesktop.DBus.Mock"_s, u"GetMethodCalls"_s);
    get << u"Notify"_s;
    const QVariant calls = QDBusConnection::sessionBus().call(get).arguments().value(0);
    for (const auto &[time, a] : qdbus_cast<QList<std::pair<quint64, QVariantList>>>(calls)) {
        const uint replaces = a.value(1).toUInt(), id = replaces ? replaces : ++issued;
        // Other Hoplifts under test may share the bus.
        if (qdbus_cast<QVariantMap>(a.value(6)).value(u"sender-pid"_s).toLongLong() ==
            QCoreApplication::applicationPid())
            ours << Notice{id, replaces, a.value(3).toString() + u'\n' + a.value(4).toString()};
    }
    return ours;
}

volatile bool stopRecursing = false;
int recurse(int depth)
{
    volatile char frame[1024];
    frame[0] = char(depth);
    return stopRecursing ? 0 : recurse(depth + 1) + frame[0];
}

} // namespace

class TestController : public QObject
{
    Q_OBJECT
    QTemporaryDir config, files, state;
    QProcess notificationDaemon;
    QTimer alertWatch; // answers every alert with its first button and notes its title
    QStringList alerts;
    QList<QVariantMap> launcher;

    /** @brief Launches against a server that refuses the credentials: the sheet opens. */
    void launchRefused(MainController &controller, LoopbackHttpServer &refusing)
    {
        refusing.setResponse("HTTP/1.1 401 Unauthorized\r\nContent-Length: 0\r\n\r\n");
        QVERIFY(refusing.listenOnLoopback());
        QSettings().setValue(u"Account URL"_s, refusing.baseUrl());
        controller.applicationDidFinishLaunching();
        QTRY_COMPARE(refusing.received().size(), 2); // the account and the user document
    }

public Q_SLOTS:
    void launcherUpdate(const QDBusMessage &message)
    {
        if (message.service() == QDBusConnection::sessionBus().baseService() &&
            message.arguments().value(0) == u"application://hoplift.desktop"_s)
            launcher << qdbus_cast<QVariantMap>(message.arguments().value(1));
    }

private Q_SLOTS:
    void initTestCase()
    {
        umask(022); // a desktop's usual one: files anyone may read unless Hoplift says otherwise
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, config.path());
        QCoreApplication::setOrganizationName(u"kelvara"_s);
        QCoreApplication::setApplicationName(u"Hoplift"_s);
        qputenv("XDG_STATE_HOME", state.path().toUtf8());
        connect(&alertWatch, &QTimer::timeout, this, [this] {
            if (auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget())) {
                alerts << box->text();
                box->buttons().constFirst()->click();
            }
        });
        alertWatch.start(10);
        // One account, whose password no test types anywhere else.
        QFile accounts(files.filePath(u"accounts.ini"_s));
        QVERIFY(accounts.open(QIODevice::WriteOnly));
        accounts.write("[vault.keeper]\npassword = " + secret +
                       "\nfirst_name = Ann\nlast_name = Lee\nbranding = yes\ntitle = Vault\n");
        notificationDaemon.start(u"/usr/bin/python3"_s, {u"-m"_s, u"dbusmock"_s, u"--template"_s,
                                                         u"notification_daemon"_s});
        QTRY_VERIFY_WITH_TIMEOUT(
            QDBusConnection::sessionBus().interface()->isServiceRegistered(notifications), 10000);
    }

    void init() { QSettings().clear(), alerts.clear(); }

    void cleanupTestCase() { notificationDaemon.kill(), notificationDaemon.waitForFinished(); }

    void silentServerIsWaitedForAboutSixSeconds()
    {
        LoopbackHttpServer server;
        QVERIFY(server.listenOnLoopback());
        server.setResponseDelay(60000); // takes the request, never answers in time
        QSettings().setValue(u"Account URL"_s, server.baseUrl() + u'/'); // the path gets "//"
        MainController controller;
        controller.mainWindow()->show();
        auto *info = widget(controller, "textaddFiles");
        QString shown; // during the wait, which keeps processing events, so this timer fires
        QTimer::singleShot(1000, this, [&] { shown = info->isVisible() ? info->text() : u""_s; });
        QElapsedTimer clock;
        clock.start();
        controller.applicationDidFinishLaunching();
        const qint64 waited = clock.elapsed();
        QVERIFY2(waited >= 5800 && waited < 9000, qPrintable(QString::number(waited)));
        QCOMPARE(shown, u"Connecting to kelvara account..."_s);
        QVERIFY(!info->isVisible());
        QCOMPARE(requestLines(server),
                 QByteArrayList({"GET //api/account.xml HTTP/1.1", "GET //api/user HTTP/1.1"}));
    }

    void sheetVerifiesBeforeKeeping_data()
    {
        // %1: the plain service's port. outcome: the "Account URL" kept, or the alert that
        // keeps the sheet open.
        for (const char *column : {"typed", "password", "outcome"})
            QTest::addColumn<QString>(column);
        QTest::addColumn<bool>("savePass");
        const QString right = QString::fromUtf8(secret), bare = u"127.0.0.1:%1"_s,
                      local = u"http://127.0.0.1:%1"_s, tls = u"https://127.0.0.1"_s;
        QTest::newRow("bare host") << bare << right << local << true;
        QTest::newRow("http URL, box off") << local << right << local << false;
        QTest::newRow("https URL") << tls << right << tls << true;
        QTest::newRow("redirect to https") << bare << right << tls << true;
        QTest::newRow("wrong password")
            << bare << u"wrong"_s << u"There was a problem verifying this account"_s << true;
        QTest::newRow("no host") << u"https://"_s << right << u"Can't connect to this Account URL"_s
                                 << true;
    }

    void sheetVerifiesBeforeKeeping()
    {
        QFETCH(QString, typed);
        QFETCH(QString, password);
        QFETCH(QString, outcome);
        QFETCH(bool, savePass);
        // Hoplift sends HTTPS to port 443 whatever port a URL names; a plain URL kept as HTTPS
        // was redirected there.
        const bool kept = outcome.startsWith(u"http"), tls = outcome.startsWith(u"https");
        const QStringList accounts{u"--accounts"_s, files.filePath(u"accounts.ini"_s)};
        LocalService secure, service;
        if (tls && !secure.start(accounts + QStringList{u"--tls"_s, u"--port"_s, u"443"_s}))
            QSKIP("kelvara-local cannot listen on port 443 here");
        const QStringList redirect{u"--redirect-to"_s, u"https://127.0.0.1:443"_s};
        QVERIFY(service.start(tls && typed == u"127.0.0.1:%1" ? redirect : accounts));
        const QString port = QString::number(QUrl(service.baseUrl()).port());

        LogCapture log;
        MainController controller;
        const QDeadlineTimer aSecond(1000);
        controller.applicationDidFinishLaunching(); // no account yet: nothing to wait for
        QVERIFY(!aSecond.hasExpired());
        auto *sheet = controller.mainWindow()->findChild<QDialog *>();
        QVERIFY(sheet && sheet->isVisible());
        sheet->findChild<QLineEdit *>(u"f_URL"_s)->setText(typed.replace(u"%1"_s, port));
        sheet->findChild<QLineEdit *>(u"f_Username"_s)->setText(u"vault.keeper"_s);
        sheet->findChild<QLineEdit *>(u"f_Password"_s)->setText(password);
        sheet->findChild<QCheckBox *>(u"b_SavePass"_s)->setChecked(savePass);
        sheet->findChild<QPushButton *>(u"b_OK"_s)->click();
        QCOMPARE(alerts, kept ? QStringList() : QStringList{outcome});
        QCOMPARE(sheet->isVisible(), !kept);
        QCOMPARE(QSettings().value(u"Account URL"_s).toString(),
                 kept ? outcome.replace(u"%1"_s, port) : QString());
        // The password, as sent and as a URL would carry it, is in no log line, in no setting.
        QSettings().sync();
        QFile settings(QSettings().fileName());
        const QByteArray logged =
            log.lines().join('\n') + (settings.open(QFile::ReadOnly) ? settings.readAll() : "");
        for (const QByteArray &form : {secret, ("vault.keeper:" + secret).toBase64(),
                                       QUrl::toPercentEncoding(QString::fromUtf8(secret))})
            QVERIFY2(!logged.contains(form), logged.constData());
        if (!kept)
            return;
        QCOMPARE(modeOf(settings.fileName()), 0600);
        QTRY_COMPARE(widget(controller, "userNameInfo")->text(), u"Ann Lee"_s);
        QCOMPARE(controller.mainWindow()->windowTitle(), u"Vault > upload"_s);
        // Without the box the stored password is overwritten with an empty one.
        QCOMPARE(MainController().retrievePassword(), savePass ? password : u""_s);
    }

    void accountDocumentDressesTheHeader_data()
    {
        // The title, the gradient's top and bottom, the text colour of the three header fields
        // and the space line, as the documents leave them one after the other.
        QTest::addColumn<QByteArrayList>("documents");
        QTest::addColumn<QString>("header");
        const QByteArray branded =
            "<account><branding/><branding_info><TITLE>Acme</TITLE><logo>/art/l.png</logo>"
            "<background_image>/art/b.png</background_image><font_color>#FFCC00</font_color>"
            "<top_color>#102030</top_color><bottom_color>#405060</bottom_color></branding_info>"
            "<stats available_space=\"1610612736\"/></account>";
        const auto space = [](const char *value) {
            return "<account><stats available_space=\"" + QByteArray(value) + "\"/></account>";
        };
        const QString acme = u"Acme > upload #102030 #405060 #ffcc00 #ffcc00 #ffcc00 "_s;
        const QString plain = u"Hoplift! #333333 #222222 #ffffff #ffffff #ffffff "_s;
        const QString gb = u" GB available - Preferences"_s;
        QTest::newRow("branded, then not XML changes nothing")
            << QByteArrayList{branded, "not <xml"} << acme + u"1.50"_s + gb;
        QTest::newRow("branding_info without branding")
            << QByteArrayList{QByteArray(branded).replace("<branding/>", "")}
            << plain + u"1.50"_s + gb;
        QTest::newRow("unbranded, then space not a number keeps the old one")
            << QByteArrayList{space("2147483648"), space("abc")} << plain + u"2.00"_s + gb;
        QTest::newRow("no stats: space line as it was")
            << QByteArrayList{"<account/>"} << plain + u"%1"_s;
    }

    void accountDocumentDressesTheHeader()
    {
        QFETCH(QByteArrayList, documents);
        QFETCH(QString, header);
        // Only branding asks the account for artwork; a space line marks the account valid.
        const bool branded = header.startsWith(u"Acme"),
                   valid = header.endsWith(u"available - Preferences");
        LoopbackHttpServer refusing;
        MainController controller;
        launchRefused(controller, refusing);
        const auto spaceLine = [&controller] {
            const QString html = widget(controller, "textSpaceandPreference")->text();
            return QTextDocumentFragment::fromHtml(html).toPlainText();
        };
        const QString before = spaceLine();
        for (const QByteArray &document : documents)
            controller.processAccountInfo(document);
        QCOMPARE(alerts.size(), documents.count("not <xml"));
        const auto *gradient = widget<QVGradient>(controller, "backgrGradient");
        QStringList shown{controller.mainWindow()->windowTitle(), gradient->topColor().name(),
                          gradient->bottomColor().name()};
        for (const char *label : {"textAccountInfo", "userNameInfo", "textSpaceandPreference"})
            shown << widget(controller, label)->palette().color(QPalette::WindowText).name();
        QCOMPARE((shown << spaceLine()).join(u' '), header.replace(u"%1"_s, before));
        // Branding artwork comes from the account's base; without branding the defaults show.
        const QByteArrayList artwork{"GET /art/b.png HTTP/1.1", "GET /art/l.png HTTP/1.1"};
        QTRY_COMPARE(requestLines(refusing, 2), branded ? artwork : QByteArrayList());
        for (const auto &[label, image] :
             {std::pair{"logoImage", ":/images/default-logo.gif"},
              std::pair{"backgrImage", ":/images/default-background.gif"}})
            QCOMPARE(widget(controller, label)->pixmap().toImage(),
                     branded ? QImage() : QPixmap(QLatin1StringView(image)).toImage());
        // A valid account lets the queue start.
        controller.addFiles({makePatternFile(files.path(), u"one.txt"_s, 1)}, false);
        QCOMPARE(controller.queue().front()->isUploading(), valid);
    }

    void passwordKeptByCharacterCount()
    {
        // Eight characters, ten bytes: nine bytes are kept, and no zero byte ends them.
        QVERIFY(MainController().savePassword(u"p\u00e4ssw\u00f6rd"_s));
        QByteArray data;
        QCOMPARE(GetPasswordKeychain(&data, nullptr, nullptr), 0);
        QCOMPARE(data, "p\xc3\xa4ssw\xc3\xb6r"_ba);
        QCOMPARE(MainController().retrievePassword(), u"p\u00e4ssw\u00f6r"_s);
    }

    void withoutSecretStoreNothingHangs()
    {
        // A session bus of its own that can start no services, so no secret store appears.
        QTemporaryFile config;
        QVERIFY(config.open());
        config.write("<busconfig><type>session</type><listen>unix:tmpdir=/tmp</listen>"
                     "<policy context=\"default\"><allow send_destination=\"*\"/>"
                     "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>");
        config.close();
        QProcess bus, child;
        bus.start(u"dbus-daemon"_s,
                  {u"--nofork"_s, u"--print-address"_s, u"--config-file="_s + config.fileName()});
        QVERIFY(bus.waitForReadyRead(10000));
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"DBUS_SESSION_BUS_ADDRESS"_s,
                           QString::fromUtf8(bus.readLine()).trimmed());
        child.setProcessEnvironment(environment);
        child.start(QCoreApplication::applicationFilePath(), {u"--no-secret-store"_s});
        QVERIFY2(child.waitForFinished(15000), "the secret store calls took over 15 s");
        QVERIFY2(child.exitStatus() == QProcess::NormalExit && child.exitCode() == 0,
                 child.readAllStandardError().constData());
        bus.kill();
        bus.waitForFinished();
    }

    void tabReachesEveryControlWithAName()
    {
        LoopbackHttpServer refusing;
        MainController controller;
        launchRefused(controller, refusing);
        QWidget *window = controller.mainWindow();
        window->show();
        auto *sheet = window->findChild<QDialog *>();
        QVERIFY(sheet && QTest::qWaitForWindowActive(sheet));
        // The controls Tab visits from the first one round to it again; "?" marks one unnamed.
        const auto tabChain = [](QWidget *in, const QString &first) {
            in->findChild<QWidget *>(first)->setFocus();
            QStringList visited;
            do {
                const QWidget *focus = QApplication::focusWidget();
                visited << focus->objectName() + u"?"_s.repeated(focus->accessibleName().isEmpty());
                QTest::keyClick(in, Qt::Key_Tab);
            } while (QApplication::focusWidget()->objectName() != first && visited.size() < 40);
            return visited.join(u' ');
        };
        QCOMPARE(tabChain(sheet, u"f_URL"_s),
                 u"f_URL f_Username f_Password b_SavePass f_SignUp b_Cancel b_OK"_s);
        sheet->reject();
        controller.addFiles({makePatternFile(files.path(), u"Budget 2027.ods"_s, 0)}, false);
        window->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(window));
        QCOMPARE(tabChain(window, u"textAccountInfo"_s),
                 u"textAccountInfo textSpaceandPreference subviewTableView addButton "
                 "StopRestartButton"_s);
        // The row's buttons say what they do to which file.
        QStringList names;
        for (auto *button : controller.queue().front()->view()->findChildren<QAbstractButton *>())
            names << button->accessibleName();
        names.sort();
        QCOMPARE(names.join(u'|'),
                 u"Remove from list: Budget 2027.ods|Restart upload: Budget 2027.ods|"
                 "Show in file manager: Budget 2027.ods"_s);
    }

    void noticesWhileOutOfSightOneOfEachKind()
    {
        LocalService service;
        QVERIFY(service.start());
        MainController controller;
        QVERIFY(launchDemoAccount(controller, service.baseUrl()));
        const qsizetype before = notices().size();
        QStringList batch;
        for (int i = 0; i < 200; ++i)
            batch << makePatternFile(files.path(), u"file%1.bin"_s.arg(i), 1000);
        const QString gone = files.filePath(u"gone.bin"_s);
        // Out of sight: a batch gives one notice, a failed row one of its own, and a later
        // notice replaces the earlier one of its kind.
        QVERIFY(upload(controller, batch));
        QVERIFY(upload(controller, {gone, batch[0]}));
        QTRY_COMPARE(notices().size() - before, 3);
        const QList<Notice> sent = notices().mid(before);
        const uint batchId = get<0>(sent[0]), failureId = get<0>(sent[1]);
        QCOMPARE(sent, QList<Notice>(
                           {{batchId, 0, u"200 files uploaded to 127.0.0.1\n195.3 KB"_s},
                            {failureId, 0, u"Could not upload gone.bin\nfile not found"_s},
                            {batchId, batchId, u"1 file uploaded to 127.0.0.1\n1000 Bytes"_s}}));
        // Clicking the failure's notice shows its row.
        QDBusMessage click =
            QDBusMessage::createSignal(notificationsPath, notifications, u"ActionInvoked"_s);
        QVERIFY(QDBusConnection::sessionBus().send(click << failureId << u"default"_s));
        QTRY_VERIFY(controller.mainWindow()->isActiveWindow());
        QCOMPARE(
            controller.mainWindow()->findChild<QTableView *>()->selectionModel()->selectedRows(),
            QModelIndexList{controller.tableController()->index(200, 0)});
        // With the window active, nothing; out of sight again, the next batch is told of.
        QVERIFY(upload(controller, {gone, batch[1]}));
        controller.mainWindow()->hide();
        QVERIFY(upload(controller, {batch[2]}));
        QTRY_COMPARE(notices().size() - before, 4);
        QCOMPARE(get<2>(notices().last()), u"1 file uploaded to 127.0.0.1\n1000 Bytes"_s);
    }

    void taskbarProgressRisesThenClears()
    {
        // The service answers late, so each row spends a while uploading and processing.
        LocalService service;
        QVERIFY(service.start({u"--delay-ms"_s, u"1500"_s}));
        MainController controller;
        QVERIFY(launchDemoAccount(controller, service.baseUrl()));
        QVERIFY(QDBusConnection::sessionBus().connect(
            {}, {}, u"com.canonical.Unity.LauncherEntry"_s, u"Update"_s, this,
            SLOT(launcherUpdate(QDBusMessage))));
        QVERIFY(upload(controller, {makePatternFile(files.path(), u"a.bin"_s, 1 << 20),
                                    makePatternFile(files.path(), u"b.bin"_s, 1 << 20)}));
        QTRY_VERIFY(!launcher.isEmpty() && !launcher.last().value(u"count-visible"_s).toBool());
        QVERIFY(!launcher.takeLast().value(u"progress-visible"_s).toBool() && launcher.size() >= 2);
        QList<double> progress, counts;
        for (const QVariantMap &update : std::as_const(launcher)) {
            QVERIFY(update[u"progress-visible"_s].toBool() && update[u"count-visible"_s].toBool());
            progress << update[u"progress"_s].toDouble();
            counts << update[u"count"_s].toDouble();
        }
        QVERIFY(std::ranges::is_sorted(progress) && std::ranges::is_sorted(counts, std::greater()));
        QCOMPARE(QList<double>({progress.first(), progress.last(), counts.first(), counts.last()}),
                 QList<double>({0, 1, 2, 1}));
    }

    void crashWritesAPrivateLogAndDiesOfItsSignal_data()
    {
        QTest::addColumn<QByteArray>("how");
        QTest::addColumn<int>("signal");
        QTest::newRow("segmentation fault") << "fault"_ba << SIGSEGV;
        QTest::newRow("stack overflow") << "overflow"_ba << SIGSEGV; // needs a stack of its own
        QTest::newRow("abort") << "abort"_ba << SIGABRT;
    }

    void crashWritesAPrivateLogAndDiesOfItsSignal()
    {
        QFETCH(QByteArray, how);
        QFETCH(int, signal);
        const QDir crashes(state.filePath(u"Hoplift/crashes"_s));
        QVERIFY(QDir(crashes).removeRecursively()); // the handler makes it
        QByteArray self = QCoreApplication::applicationFilePath().toLocal8Bit(), flag = "--crash";
        char *argv[] = {self.data(), flag.data(), how.data(), nullptr};
        const qint64 before = QDateTime::currentSecsSinceEpoch();
        pid_t pid = 0;
        int status = 0;
        QCOMPARE(posix_spawn(&pid, argv[0], nullptr, nullptr, argv, environ), 0);
        QCOMPARE(waitpid(pid, &status, 0), pid);
        QCOMPARE(WIFSIGNALED(status) ? WTERMSIG(status) : -1, signal);
        // One log, named after the time and the process, that says what happened and where, and
        // nothing else: not the password in the process's environment and memory.
        const QString name = crashes.entryList(QDir::Files).join(u'|');
        const auto named = QRegularExpression(u"^crash-(\\d+)-%1\\.log$"_s.arg(pid)).match(name);
        QVERIFY2(named.hasMatch() && named.captured(1).toLongLong() >= before, qPrintable(name));
        QFile log(crashes.filePath(name));
        QVERIFY(log.open(QIODevice::ReadOnly));
        const QString text = QString::fromUtf8(log.readAll());
        const QRegularExpression expected(
            u"^Hoplift 0\\.2\\.1 \\([^\n]+\\)\nSignal: %1 \\(SIG%2\\)\nBacktrace:\n"
            "(.+\\[0x[0-9a-f]+\\]\n)+$"_s.arg(QString::number(signal),
                                              QLatin1StringView(sigabbrev_np(signal))));
        QVERIFY2(expected.match(text).hasMatch() && !text.contains(QString::fromUtf8(secret)),
                 qPrintable(text));
        QCOMPARE(QList<int>({modeOf(log.fileName()), modeOf(crashes.path())}),
                 QList<int>({0600, 0700}));
    }
};

int main(int argc, char *argv[])
{
    if (argc == 3 && qstrcmp(argv[1], "--crash") == 0) {
        // Crashes with a password in its environment and its memory.
        const rlimit noCore = {0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        qputenv("HOPLIFT_SECRET_UNDER_TEST", secret);
        const QString inMemory = QString::fromUtf8(secret);
        QCoreApplication::setApplicationVersion(u"0.2.1"_s);
        CrashReporter::installHandler();
        if (qstrcmp(argv[2], "fault") == 0) // a write to a read-only page
            *static_cast<volatile char *>(
                mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) = 1;
        else if (qstrcmp(argv[2], "overflow") == 0)
            return recurse(int(inMemory.size()));
        abort();
    }
    QApplication app(argc, argv);
    if (argc == 2 && qstrcmp(argv[1], "--no-secret-store") == 0) {
        // On a desktop without a secret store: nil, NO, and a status that is no "not found".
        MainController controller;
        const int status = GetPasswordKeychain(nullptr, nullptr, nullptr);
        return !(controller.retrievePassword().isNull() && !controller.savePassword(u"x"_s) &&
                 status < 0 && status != KeychainItemNotFound);
    }
    TestController test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_controller.moc"
