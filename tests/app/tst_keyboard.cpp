// Hoplift without a mouse: Tab reaches every control of the window and of the account
// sheet in order, each with an accessible name, and a row's buttons name their file.
// The expected chains are plain string literals.
#undef QT_NO_CAST_FROM_ASCII
#include "app/MainController.h"
#include "support/LoopbackHttpServer.h"
#include "ui/QVRolloverButton.h"
#include "ui/QVSubView.h"
#include "ui/SubviewController.h"

#include <QApplication>
#include <QDialog>
#include <QFile>
#include <QMainWindow>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

namespace {

/** @brief The controls Tab visits from the focused one, once round, by object name. */
QStringList tabChain(QWidget *window, QStringList *unnamed)
{
    QStringList visited;
    QWidget *start = QApplication::focusWidget();
    for (int i = 0; i < 40; ++i) {
        QWidget *focused = QApplication::focusWidget();
        if (!focused || (i > 0 && focused == start))
            break;
        visited << focused->objectName();
        if (focused->accessibleName().isEmpty())
            *unnamed << focused->objectName();
        QTest::keyClick(window, Qt::Key_Tab);
    }
    return visited;
}

} // namespace

class TestKeyboard : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void tabVisitsEveryControlInOrder();

private:
    LoopbackHttpServer refusingService;
    QTemporaryDir home;
};

void TestKeyboard::initTestCase()
{
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, home.path());
    QCoreApplication::setOrganizationName(QStringLiteral("kelvara"));
    QCoreApplication::setApplicationName(QStringLiteral("Hoplift"));
    refusingService.setResponse("HTTP/1.1 401 Unauthorized\r\nContent-Length: 0\r\n\r\n");
    QVERIFY(refusingService.listenOnLoopback());
}

void TestKeyboard::tabVisitsEveryControlInOrder()
{
    QSettings().setValue(QStringLiteral("Account URL"), refusingService.baseUrl());
    MainController controller;
    controller.applicationDidFinishLaunching(); // refused: the sheet opens
    QWidget *window = controller.mainWindow();
    window->show();
    auto *sheet = window->findChild<QDialog *>();
    QVERIFY(sheet && sheet->isVisible());
    QVERIFY(QTest::qWaitForWindowActive(sheet));

    sheet->findChild<QWidget *>(QStringLiteral("f_URL"))->setFocus();
    QStringList unnamed;
    QCOMPARE(tabChain(sheet, &unnamed),
             (QStringList{"f_URL", "f_Username", "f_Password", "b_SavePass", "f_SignUp", "b_Cancel",
                          "b_OK"}));
    QVERIFY2(unnamed.isEmpty(), qPrintable(unnamed.join(u' ')));
    sheet->reject();

    const QString path = home.filePath(QStringLiteral("Budget 2027.ods"));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.close();
    controller.addFiles({path}, false);
    window->activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(window));
    window->findChild<QWidget *>(QStringLiteral("textAccountInfo"))->setFocus();
    QCOMPARE(tabChain(window, &unnamed),
             (QStringList{"textAccountInfo", "textSpaceandPreference", "subviewTableView",
                          "addButton", "StopRestartButton"}));
    QVERIFY2(unnamed.isEmpty(), qPrintable(unnamed.join(u' ')));

    // The row's buttons say what they do to which file.
    const QList<QVRolloverButton *> buttons =
        controller.queue().front()->view()->findChildren<QVRolloverButton *>();
    QCOMPARE(buttons.size(), 3);
    for (QVRolloverButton *button : buttons)
        QVERIFY2(button->accessibleName().contains(QStringLiteral("Budget 2027.ods")),
                 qPrintable(button->accessibleName()));
}

QTEST_MAIN(TestKeyboard)
#include "tst_keyboard.moc"
