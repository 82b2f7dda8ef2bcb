// Takes the README's screenshots of the real window: empty, with rows in every state, and
// the account sheet. Run by tools/screenshots.sh against a local kelvara service.
#include "app/MainController.h"
#include "app/RunLoop.h"
#include "ui/SubviewController.h"

#include <QApplication>
#include <QDialog>
#include <QDir>
#include <QFile>
#include <QMainWindow>
#include <QPalette>
#include <QSettings>
#include <QTemporaryDir>

namespace {

void save(QWidget *widget, const QString &folder, const QString &name)
{
    runRunLoop(0.5); // images and texts settle
    const QString path = QDir(folder).filePath(name + QStringLiteral(".png"));
    if (!widget->grab().save(path))
        qFatal("cannot write %s", qPrintable(path));
}

} // namespace

int main(int argc, char *argv[])
{
    QApplication app(argc, argv);
    if (argc < 3)
        qFatal("usage: screenshots SERVICE-URL OUTPUT-FOLDER [SUFFIX]");
    const QString url = QString::fromLocal8Bit(argv[1]);
    const QString out = QString::fromLocal8Bit(argv[2]);
    const QString suffix = argc > 3 ? QString::fromLocal8Bit(argv[3]) : QString();
    if (argc > 4 && QByteArray(argv[4]) == "--dark") {
        // A dark desktop theme, as a dark Plasma or GNOME session hands it to Qt.
        QApplication::setStyle(QStringLiteral("Fusion"));
        QPalette dark;
        dark.setColor(QPalette::Window, QColor(0x2b, 0x2b, 0x2b));
        dark.setColor(QPalette::WindowText, QColor(0xe8, 0xe8, 0xe8));
        dark.setColor(QPalette::Base, QColor(0x1e, 0x1e, 0x1e));
        dark.setColor(QPalette::AlternateBase, QColor(0x26, 0x26, 0x26));
        dark.setColor(QPalette::Text, QColor(0xe8, 0xe8, 0xe8));
        dark.setColor(QPalette::Button, QColor(0x35, 0x35, 0x35));
        dark.setColor(QPalette::ButtonText, QColor(0xe8, 0xe8, 0xe8));
        dark.setColor(QPalette::Highlight, QColor(0x3d, 0x7a, 0xd6));
        dark.setColor(QPalette::HighlightedText, Qt::white);
        dark.setColor(QPalette::PlaceholderText, QColor(0x90, 0x90, 0x90));
        QApplication::setPalette(dark);
    }
    QCoreApplication::setOrganizationName(QStringLiteral("kelvara"));
    QCoreApplication::setApplicationName(QStringLiteral("Hoplift"));
    QTemporaryDir home;
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, home.path());

    QSettings().setValue(QStringLiteral("Account URL"), url);
    QSettings().setValue(QStringLiteral("Username"), QStringLiteral("demo"));
    MainController controller;
    controller.savePassword(QStringLiteral("demo"));
    controller.applicationDidFinishLaunching();
    controller.mainWindow()->resize(560, 560);
    controller.mainWindow()->show();
    save(controller.mainWindow(), out, QStringLiteral("empty") + suffix);

    // Rows in every state: each is put there through the row's own operations.
    QStringList names{QStringLiteral("Holiday 2026.mov"), QStringLiteral("Quarterly report.pdf"),
                      QStringLiteral("Interview.wav"),    QStringLiteral("Mockups.sketch"),
                      QStringLiteral("Viewer.app"),       QStringLiteral("notes.txt"),
                      QStringLiteral("Logo.svg")};
    QStringList paths;
    for (int i = 0; i < names.size(); ++i) {
        paths << home.filePath(names[i]);
        if (names[i].endsWith(QLatin1String(".app"))) {
            QDir().mkpath(paths.last() + QStringLiteral("/Contents"));
        } else {
            QFile file(paths.last());
            file.open(QIODevice::WriteOnly);
            file.resize(qint64(1) << (14 + 2 * i));
        }
    }
    controller.addFiles(paths, false);
    controller.stopRestartPressed(); // everything stops; then each row is set
    const auto &rows = controller.queue();
    rows[0]->completed();
    rows[1]->completed();
    rows[2]->errorOccurred(-1, QStringLiteral("Error during upload..."));
    rows[3]->startUpload();
    rows[3]->doProgress(42.0);
    rows[4]->registering();
    rows[5]->requeue();
    rows[6]->stopUpload();
    controller.notifyRowHeight(0);
    controller.validateButtons();
    save(controller.mainWindow(), out, QStringLiteral("rows") + suffix);

    controller.editPreferences();
    auto *sheet = controller.mainWindow()->findChild<QDialog *>();
    save(sheet, out, QStringLiteral("account-sheet") + suffix);
    sheet->done(0);
    return 0;
}
