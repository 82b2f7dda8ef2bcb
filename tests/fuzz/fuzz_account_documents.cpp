// The account and user documents, as the service's answers reach Hoplift. A document the XML
// parser can read goes to a launched controller as both documents. (One it cannot read would
// make the controller show an alert and wait for a click, so that path stops at the parser.)
#include "FuzzCheck.h"
#include "app/MainController.h"
#include "support/FakeStreamPair.h"

#include <QApplication>
#include <QDomDocument>
#include <QSettings>
#include <QTemporaryDir>

#include <memory>

static MainController *controller = nullptr;

// fontconfig keeps what it allocates for the fonts it finds where the leak checker does not
// look (its caches are mapped files): the first text laid out would count as a leak.
extern "C" const char *__lsan_default_suppressions()
{
    return "leak:libfontconfig.so\n";
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    static QTemporaryDir home; // settings, state and temporary files of this run
    qputenv("QT_QPA_PLATFORM", "offscreen");
    qputenv("HOPLIFT_APPCAST_URL", "http://127.0.0.1:9/appcast.xml"); // never leaves the machine
    qputenv("XDG_STATE_HOME", home.filePath(QStringLiteral("state")).toUtf8());
    startQt<QApplication>("fuzz-account-documents");
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope,
                       home.filePath(QStringLiteral("config")));
    QCoreApplication::setOrganizationName(QStringLiteral("kelvara"));
    QCoreApplication::setApplicationName(QStringLiteral("Hoplift"));

    // With no account set, launching makes the streamers and opens the account sheet. Branding
    // asks for artwork wherever a document says: those requests go to pairs that never connect.
    controller = new MainController;
    controller->applicationDidFinishLaunching();
    auto wire = std::make_shared<FakeWire>();
    for (QVStreamer *streamer : controller->findChildren<QVStreamer *>())
        streamer->setStreamPairFactory([wire] { return new FakeStreamPair(wire); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray body(reinterpret_cast<const char *>(data), qsizetype(size));
    if (!QDomDocument().setContent(body))
        return 0;
    controller->processAccountInfo(body);
    controller->processUserInfo(body);
    // Pairs given up by the artwork requests go now, not at an event loop that never runs.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return 0;
}
