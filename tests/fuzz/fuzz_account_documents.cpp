// The account and user documents, as the service's answers reach Hoplift. Every input goes
// through the XML parser the controller uses; a document it can read is then handed to a
// launched controller, both as the account document and as the user document. (One it
// cannot read would make the controller show an alert and wait for a click: that path is
// the parser's message and nothing else, so it stops at the parser here.)
#include "app/MainController.h"
#include "support/FakeStreamPair.h"

#include <QApplication>
#include <QDomDocument>
#include <QSettings>
#include <QTemporaryDir>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace {

MainController *controller = nullptr;

/** @brief Settings, state and temporary files of this run, removed at its end. */
QTemporaryDir &home()
{
    static QTemporaryDir dir;
    return dir;
}

} // namespace

// fontconfig keeps what it allocates for the fonts it finds where the leak checker does not
// look (its caches are mapped files): the first text laid out would count as a leak.
extern "C" const char *__lsan_default_suppressions()
{
    return "leak:libfontconfig.so\n";
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // Qt gets arguments of its own: libFuzzer's are none of its business.
    static int argc = 1;
    static char name[] = "fuzz-account-documents";
    static char *argv[] = {name, nullptr};
    qputenv("QT_QPA_PLATFORM", "offscreen");
    // The update check never leaves this machine.
    qputenv("HOPLIFT_APPCAST_URL", "http://127.0.0.1:9/appcast.xml");
    qputenv("XDG_STATE_HOME", home().filePath(QStringLiteral("state")).toUtf8());
    new QApplication(argc, argv);
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope,
                       home().filePath(QStringLiteral("config")));
    QCoreApplication::setOrganizationName(QStringLiteral("kelvara"));
    QCoreApplication::setApplicationName(QStringLiteral("Hoplift"));

    // No account is set: launching makes the streamers and opens the account sheet.
    controller = new MainController;
    controller->applicationDidFinishLaunching();
    // Branding asks for artwork at whatever place a document names: those requests go to
    // pairs that never connect.
    auto wire = std::make_shared<FakeWire>();
    for (QVStreamer *streamer : controller->findChildren<QVStreamer *>())
        streamer->setStreamPairFactory([wire] { return new FakeStreamPair(wire); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray body(reinterpret_cast<const char *>(data), qsizetype(size));
    QDomDocument document;
    QString message;
    int line = 0;
    int column = 0;
    if (!document.setContent(body, &message, &line, &column))
        return 0;
    controller->processAccountInfo(body);
    controller->processUserInfo(body);
    // Pairs given up by the artwork requests go now, not at an event loop that never runs.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return 0;
}
