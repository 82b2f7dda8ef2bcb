// MainController in this process against real local kelvara services: the bounded wait at launch,
// the account sheet, the account document's header, the password in the secret store and nowhere
// else, Tab through every control, notices and taskbar progress (dbusmock's notification daemon on
// the session bus), and the crash log.
#include "app/CrashReporter.h"
#include "app/Keychain.h"
#include "support/E2eSupport.h"
#include "support/LocalService.h"
#include "support/LogCapture.h"
#include "support/LoopbackHttpServer.h"
#include "ui/QVGradient.h"
#include "ui/QVRolloverButton.h"
#include "ui/QVSubView.h"
#include "ui/SubviewController.h"
#include "ui/ZRClickableURLTextField.h"
#include "ui/iTableView.h"

#include <QtDBus>
#include <QtTest>
#include <QtWidgets>

#include <csignal>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

using namespace Qt::StringLiterals;

namespace {

const QString notifications = u"org.freedesktop.Notifications"_s;
const QByteArray secret = "Tr0ub4dor&9Qz+hoplift-secret";

template <typename T> T *widget(const MainController &controller, const char *name)
{
    return controller.mainWindow()->findChild<T *>(QLatin1StringView(name));
}

int modeOf(const QString &path)
{
    struct stat info = {};
    return stat(QFile::encodeName(path).constData(), &info) == 0 ? int(info.st_mode & 07777) : -1;
}

/** @brief Types into the open account sheet and presses OK; null when no sheet is open. */
QDialog *submitSheet(MainController &controller, const QString &url, const QString &name,
                     const QString &password, bool savePass = true)
{
    auto *sheet = controller.mainWindow()->findChild<QDialog *>();
    if (!sheet || !sheet->isVisible())
        return nullptr;
    sheet->findChild<QLineEdit *>(u"f_URL"_s)->setText(url);
    sheet->findChild<QLineEdit *>(u"f_Username"_s)->setText(name);
    sheet->findChild<QLineEdit *>(u"f_Password"_s)->setText(password);
    sheet->findChild<QCheckBox *>(u"b_SavePass"_s)->setChecked(savePass);
    sheet->findChild<QPushButton *>(u"b_OK"_s)->click();
    return sheet;
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

bool waitForQueue(const MainController &controller)
{
    return QTest::qWaitFor(
        [&controller] {
            return std::all_of(controller.queue().begin(), controller.queue().end(),
                               [](const auto &row) { return row->uploadState() >= 3; });
        },
        60000);
}

QDBusMessage callDaemon(const QString &method, const QVariantList &arguments)
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        notifications, u"/org/freedesktop/Notifications"_s, u"org.freedesktop.DBus.Mock"_s, method);
    call.setArguments(arguments);
    return QDBusConnection::sessionBus().call(call);
}

struct Notice
{
    uint id, replaces;
    QString text; // "summary\nbody"
};

/** @brief This process's Notify calls, in order, with the ids the daemon gave them. */
QList<Notice> notices()
{
    const QDBusArgument log =
        callDaemon(u"GetMethodCalls"_s, {u"Notify"_s}).arguments().value(0).value<QDBusArgument>();
    QList<Notice> ours;
    uint issued = 0; // the daemon numbers new notifications 1, 2, ...
    log.beginArray();
    while (!log.atEnd()) {
        quint64 time = 0;
        QVariantList a;
        log.beginStructure();
        log >> time >> a;
        log.endStructure();
        const uint replaces = a.value(1).toUInt(), id = replaces ? replaces : ++issued;
        // Other Hoplifts under test may share the bus.
        if (qdbus_cast<QVariantMap>(a.value(6)).value(u"sender-pid"_s).toLongLong() ==
            QCoreApplication::applicationPid())
            ours << Notice{id, replaces, a.value(3).toString() + u'\n' + a.value(4).toString()};
    }
    log.endArray();
    return ours;
}

volatile bool stopRecursing = false;
int recurse(int depth)
{
    volatile char frame[1024];
    frame[0] = char(depth);
    return stopRecursing ? 0 : recurse(depth + 1) + frame[0];
}

// A child that crashes with a password in its environment and its memory.
int crashChild(const QByteArray &how)
{
    const rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    qputenv("HOPLIFT_SECRET_UNDER_TEST", secret);
    const QString inMemory = QString::fromUtf8(secret);
    QCoreApplication::setApplicationVersion(u"0.2.1"_s);
    CrashReporter::installHandler();
    if (how == "fault") // a write to a read-only page
        *static_cast<volatile char *>(
            mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) = 1;
    else if (how == "overflow")
        return recurse(int(inMemory.size()));
    abort();
}

// A child on a desktop without a secret store: nil, NO, and a status that is no "not found".
int noSecretStoreChild(int argc, char *argv[])
{
    QApplication app(argc, argv);
    MainController controller;
    const int status = GetPasswordKeychain(nullptr, nullptr, nullptr);
    return controller.retrievePassword().isNull() && !controller.savePassword(u"x"_s) &&
                   status < 0 && status != KeychainItemNotFound
               ? 0
               : 1;
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
        QCoreApplication::setApplicationVersion(u"0.2.1"_s);
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

    void init()
    {
        QSettings().clear();
        alerts.clear();
    }

    void cleanupTestCase()
    {
        notificationDaemon.kill();
        notificationDaemon.waitForFinished();
    }

    void silentServerIsWaitedForAboutSixSeconds()
    {
        LoopbackHttpServer server;
        QVERIFY(server.listenOnLoopback());
        server.setResponseDelay(60000); // takes the request, never answers in time
        QSettings().setValue(u"Account URL"_s, server.baseUrl() + u'/'); // the path gets "//"
        MainController controller;
        controller.mainWindow()->show();
        auto *info = widget<QLabel>(controller, "textaddFiles");
        QString shownDuringWait;
        // The window keeps processing events during the wait, so this timer fires inside it.
        QTimer::singleShot(1000, this,
                           [&] { shownDuringWait = info->isVisible() ? info->text() : u""_s; });
        QElapsedTimer clock;
        clock.start();
        controller.applicationDidFinishLaunching();
        const qint64 waited = clock.elapsed();
        QVERIFY2(waited >= 5800 && waited < 9000, qPrintable(QString::number(waited)));
        QCOMPARE(shownDuringWait, u"Connecting to kelvara account..."_s);
        QVERIFY(!info->isVisible());
        QCOMPARE(requestLines(server),
                 QByteArrayList({"GET //api/account.xml HTTP/1.1", "GET //api/user HTTP/1.1"}));
    }

    void sheetVerifiesBeforeKeeping_data()
    {
        QTest::addColumn<QString>("setup"); // plain, tls (on 443), redirect (plain to tls)
        QTest::addColumn<QString>("typed"); // %1: the plain service's port
        QTest::addColumn<QString>("password");
        QTest::addColumn<bool>("savePass");
        QTest::addColumn<QString>("stored"); // "Account URL" after OK; empty: the sheet stays
        QTest::addColumn<QString>("alert");
        const auto row = [](const char *tag, const char *setup, const char *typed,
                            const QString &password, bool savePass, const char *stored,
                            const char *alert = "") {
            QTest::newRow(tag) << QString::fromLatin1(setup) << QString::fromLatin1(typed)
                               << password << savePass << QString::fromLatin1(stored)
                               << QString::fromLatin1(alert);
        };
        const QString right = QString::fromUtf8(secret);
        const char *local = "http://127.0.0.1:%1";
        row("bare host", "plain", "127.0.0.1:%1", right, true, local);
        row("http URL, box off", "plain", local, right, false, local);
        row("https URL", "tls", "https://127.0.0.1", right, true, "https://127.0.0.1");
        row("redirect to https", "redirect", "127.0.0.1:%1", right, true, "https://127.0.0.1");
        const char *refused = "There was a problem verifying this account";
        row("wrong password", "plain", "127.0.0.1:%1", u"wrong"_s, true, "", refused);
        // The service knows no "//api/account.xml".
        row("trailing slash doubles the slash", "plain", "127.0.0.1:%1/", right, true, "", refused);
        for (const char *typed : {"", "https://", "http://:%1"})
            row(qPrintable(u"no host in \"%1\""_s.arg(QLatin1StringView(typed))), "plain", typed,
                right, true, "", "Can't connect to this Account URL");
    }

    void sheetVerifiesBeforeKeeping()
    {
        QFETCH(QString, setup);
        QFETCH(QString, typed);
        QFETCH(QString, password);
        QFETCH(bool, savePass);
        QFETCH(QString, stored);
        QFETCH(QString, alert);
        // Hoplift sends HTTPS to port 443 whatever port a URL names.
        const QStringList accounts{u"--accounts"_s, files.filePath(u"accounts.ini"_s)};
        LocalService secure, service;
        if (setup != u"plain" &&
            !secure.start(accounts + QStringList{u"--tls"_s, u"--port"_s, u"443"_s}))
            QSKIP("kelvara-local cannot listen on port 443 here");
        QString why;
        const QStringList redirect{u"--redirect-to"_s, u"https://127.0.0.1:443"_s};
        QVERIFY2(service.start(setup == u"redirect" ? redirect : accounts, &why), qPrintable(why));
        const QString port = QString::number(QUrl(service.baseUrl()).port());

        LogCapture log;
        MainController controller;
        QElapsedTimer clock;
        clock.start();
        controller.applicationDidFinishLaunching(); // no account yet: nothing to wait for
        QVERIFY(clock.elapsed() < 1000);
        QDialog *sheet = submitSheet(controller, typed.replace(u"%1"_s, port), u"vault.keeper"_s,
                                     password, savePass);
        QVERIFY(sheet);
        QCOMPARE(alerts, alert.isEmpty() ? QStringList() : QStringList{alert});
        QCOMPARE(sheet->isVisible(), stored.isEmpty());
        QCOMPARE(QSettings().value(u"Account URL"_s).toString(), stored.replace(u"%1"_s, port));
        // The password, as sent and as a URL would carry it, is in no log line, in no setting.
        const QByteArrayList forms{secret, ("vault.keeper:" + secret).toBase64(),
                                   QUrl::toPercentEncoding(QString::fromUtf8(secret))};
        QSettings().sync();
        QFile settings(QSettings().fileName());
        const QByteArray logged =
            log.lines().join('\n') + (settings.open(QFile::ReadOnly) ? settings.readAll() : "");
        for (const QByteArray &form : forms)
            QVERIFY2(!logged.contains(form), logged.constData());
        if (stored.isEmpty())
            return;
        QCOMPARE(modeOf(settings.fileName()), 0600);
        QTRY_COMPARE(widget<QLabel>(controller, "userNameInfo")->text(), u"Ann Lee"_s);
        QCOMPARE(controller.mainWindow()->windowTitle(), u"Vault > upload"_s);
        // Without the box the stored password is overwritten with an empty one.
        QCOMPARE(MainController().retrievePassword(), savePass ? password : u""_s);
    }

    void accountDocumentDressesTheHeader_data()
    {
        QTest::addColumn<QByteArrayList>("documents");
        // The title, the gradient's top and bottom, the text of the three header fields, the
        // space line (%1: as it was); branded: the artwork is asked of the account, no default.
        QTest::addColumn<QString>("header");
        QTest::addColumn<bool>("branded");
        QTest::addColumn<bool>("valid");
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
        const QString preferences = u" available - Preferences"_s;
        QTest::newRow("branded") << QByteArrayList{branded} << acme + u"1.50 GB"_s + preferences
                                 << true << true;
        QTest::newRow("unbranded") << QByteArrayList{space("2147483648")}
                                   << plain + u"2.00 GB"_s + preferences << false << true;
        QTest::newRow("branding_info without branding")
            << QByteArrayList{QByteArray(branded).replace("<branding/>", "")}
            << plain + u"1.50 GB"_s + preferences << false << true;
        QTest::newRow("space not a number keeps the old one")
            << QByteArrayList{space("2147483648"), space("abc")}
            << plain + u"2.00 GB"_s + preferences << false << true;
        QTest::newRow("no stats: space line as it was")
            << QByteArrayList{"<account/>"} << plain + u"%1"_s << false << false;
        QTest::newRow("not XML changes nothing")
            << QByteArrayList{branded, "not <xml"} << acme + u"1.50 GB"_s + preferences << true
            << true;
    }

    void accountDocumentDressesTheHeader()
    {
        QFETCH(QByteArrayList, documents);
        QFETCH(QString, header);
        QFETCH(bool, branded);
        QFETCH(bool, valid);
        LoopbackHttpServer refusing;
        MainController controller;
        launchRefused(controller, refusing);
        const auto spaceLine = [&controller] {
            return QTextDocumentFragment::fromHtml(
                       widget<ZRClickableURLTextField>(controller, "textSpaceandPreference")
                           ->attributedStringValue())
                .toPlainText();
        };
        const QString before = spaceLine();
        for (const QByteArray &document : documents)
            controller.processAccountInfo(document);
        QCOMPARE(alerts.size(), documents.count("not <xml"));
        const auto *gradient = widget<QVGradient>(controller, "backgrGradient");
        QStringList shown{controller.mainWindow()->windowTitle(), gradient->topColor().name(),
                          gradient->bottomColor().name()};
        for (const char *label : {"textAccountInfo", "userNameInfo", "textSpaceandPreference"})
            shown
                << widget<QLabel>(controller, label)->palette().color(QPalette::WindowText).name();
        QCOMPARE((shown << spaceLine()).join(u' '), header.replace(u"%1"_s, before));
        // Branding artwork comes from the account's base; without branding the defaults show.
        const QByteArrayList artwork{"GET /art/b.png HTTP/1.1", "GET /art/l.png HTTP/1.1"};
        QTRY_COMPARE(requestLines(refusing, 2), branded ? artwork : QByteArrayList());
        for (const auto &[label, image] :
             {std::pair{"logoImage", ":/images/default-logo.gif"},
              std::pair{"backgrImage", ":/images/default-background.gif"}})
            QCOMPARE(widget<QLabel>(controller, label)->pixmap().toImage(),
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
        QTemporaryDir dir;
        QFile config(dir.filePath(u"bus.conf"_s));
        QVERIFY(config.open(QIODevice::WriteOnly));
        config.write("<busconfig><type>session</type><listen>unix:dir=" + dir.path().toUtf8() +
                     "</listen><policy context=\"default\"><allow send_destination=\"*\"/>"
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
        QCOMPARE(child.exitStatus(), QProcess::NormalExit);
        QCOMPARE(child.exitCode(), 0);
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
        // The controls Tab visits from the first one round to it again, and those without a name.
        QStringList unnamed;
        const auto tabChain = [&unnamed](QWidget *in, const QString &first) {
            in->findChild<QWidget *>(first)->setFocus();
            QStringList visited;
            do {
                visited << QApplication::focusWidget()->objectName();
                if (QApplication::focusWidget()->accessibleName().isEmpty())
                    unnamed << visited.last();
                QTest::keyClick(in, Qt::Key_Tab);
            } while (QApplication::focusWidget()->objectName() != first && visited.size() < 40);
            return visited;
        };
        QCOMPARE(tabChain(sheet, u"f_URL"_s),
                 QStringList({u"f_URL"_s, u"f_Username"_s, u"f_Password"_s, u"b_SavePass"_s,
                              u"f_SignUp"_s, u"b_Cancel"_s, u"b_OK"_s}));
        sheet->reject();
        controller.addFiles({makePatternFile(files.path(), u"Budget 2027.ods"_s, 0)}, false);
        window->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(window));
        QCOMPARE(tabChain(window, u"textAccountInfo"_s),
                 QStringList({u"textAccountInfo"_s, u"textSpaceandPreference"_s,
                              u"subviewTableView"_s, u"addButton"_s, u"StopRestartButton"_s}));
        QVERIFY2(unnamed.isEmpty(), qPrintable(unnamed.join(u' ')));
        // The row's buttons say what they do to which file.
        const auto buttons = controller.queue().front()->view()->findChildren<QVRolloverButton *>();
        QCOMPARE(buttons.size(), 3);
        for (QVRolloverButton *button : buttons)
            QVERIFY2(button->accessibleName().contains(u"Budget 2027.ods"_s),
                     qPrintable(button->accessibleName()));
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
        const auto send = [&controller](const QStringList &paths) {
            controller.addFiles(paths, false);
            return waitForQueue(controller);
        };
        // Out of sight: a batch gives one notice, a failed row one of its own, and a later
        // notice replaces the earlier one of its kind.
        QVERIFY(send(batch));
        QTRY_COMPARE(notices().size() - before, 1);
        QVERIFY(send({gone, batch[0]}));
        QTRY_COMPARE(notices().size() - before, 3);
        const QList<Notice> sent = notices().mid(before);
        QCOMPARE(sent[0].text, u"200 files uploaded to 127.0.0.1\n195.3 KB"_s);
        QCOMPARE(sent[1].text, u"Could not upload gone.bin\nfile not found"_s);
        QCOMPARE(sent[2].text, u"1 file uploaded to 127.0.0.1\n1000 Bytes"_s);
        QCOMPARE(QList<uint>({sent[0].replaces, sent[1].replaces, sent[2].replaces}),
                 QList<uint>({0, 0, sent[0].id}));
        // Clicking the failure's notice shows its row.
        callDaemon(u"EmitSignal"_s, {notifications, u"ActionInvoked"_s, u"us"_s,
                                     QVariant::fromValue(QVariantList{sent[1].id, u"default"_s})});
        QTRY_VERIFY(controller.mainWindow()->isActiveWindow());
        QCOMPARE(
            controller.mainWindow()->findChild<iTableView *>()->selectionModel()->selectedRows(),
            QModelIndexList{controller.tableController()->index(200, 0)});
        // With the window active, nothing; out of sight again, the next batch is told of.
        QVERIFY(send({gone, batch[1]}));
        controller.mainWindow()->hide();
        QVERIFY(send({batch[2]}));
        QTRY_COMPARE(notices().size() - before, 4);
        QCOMPARE(notices().last().text, u"1 file uploaded to 127.0.0.1\n1000 Bytes"_s);
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
        controller.addFiles({makePatternFile(files.path(), u"a.bin"_s, 1 << 20),
                             makePatternFile(files.path(), u"b.bin"_s, 1 << 20)},
                            false);
        QVERIFY(waitForQueue(controller));
        QTRY_VERIFY(!launcher.isEmpty() && !launcher.last().value(u"count-visible"_s).toBool());
        QVERIFY(!launcher.takeLast().value(u"progress-visible"_s).toBool() && launcher.size() >= 2);
        QList<double> progress;
        QList<qint64> counts;
        for (const QVariantMap &update : std::as_const(launcher)) {
            QVERIFY(update[u"progress-visible"_s].toBool() && update[u"count-visible"_s].toBool());
            progress << update[u"progress"_s].toDouble();
            counts << update[u"count"_s].toLongLong();
            QVERIFY(progress.size() == 1 || (progress.last() >= progress[progress.size() - 2] &&
                                             counts.last() <= counts[counts.size() - 2]));
        }
        QCOMPARE(QList<double>({progress.first(), progress.last()}), QList<double>({0.0, 1.0}));
        QCOMPARE(QList<qint64>({counts.first(), counts.last()}), QList<qint64>({2, 1}));
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
        const QString crashes = state.filePath(u"Hoplift/crashes"_s);
        QVERIFY(QDir(crashes).removeRecursively()); // the handler makes it
        QByteArray self = QCoreApplication::applicationFilePath().toLocal8Bit(), flag = "--crash";
        char *argv[] = {self.data(), flag.data(), how.data(), nullptr};
        const qint64 before = QDateTime::currentSecsSinceEpoch();
        pid_t pid = 0;
        int status = 0;
        QCOMPARE(posix_spawn(&pid, argv[0], nullptr, nullptr, argv, environ), 0);
        QCOMPARE(waitpid(pid, &status, 0), pid);
        QVERIFY(WIFSIGNALED(status));
        QCOMPARE(WTERMSIG(status), signal);
        const QStringList logs = QDir(crashes).entryList(QDir::Files);
        QCOMPARE(logs.size(), 1);
        const auto name = QRegularExpression(u"^crash-(\\d+)-%1\\.log$"_s.arg(pid)).match(logs[0]);
        QVERIFY2(name.hasMatch() && name.captured(1).toLongLong() >= before, qPrintable(logs[0]));
        QFile log(QDir(crashes).filePath(logs[0]));
        QVERIFY(log.open(QIODevice::ReadOnly));
        const QString text = QString::fromUtf8(log.readAll());
        QVERIFY2(text.startsWith(u"Hoplift 0.2.1 ("_s) &&
                     text.contains(u"\nSignal: %1 (SIG%2)\nBacktrace:\n"_s.arg(signal).arg(
                         QLatin1StringView(sigabbrev_np(signal)))) &&
                     text.contains(QRegularExpression(u"\n.*\\[0x[0-9a-f]+\\]\n"_s)) &&
                     !text.contains(QString::fromUtf8(secret)),
                 qPrintable(text));
        QCOMPARE(modeOf(log.fileName()), 0600);
        QCOMPARE(modeOf(crashes), 0700);
    }
};

int main(int argc, char *argv[])
{
    if (argc == 3 && qstrcmp(argv[1], "--crash") == 0)
        return crashChild(argv[2]);
    if (argc == 2 && qstrcmp(argv[1], "--no-secret-store") == 0)
        return noSecretStoreChild(argc, argv);
    QApplication app(argc, argv);
    TestController test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_controller.moc"
