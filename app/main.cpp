#include <QApplication>
#include <QTextStream>

int main(int argc, char *argv[])
{
    QApplication app(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("kelvara"));
    QApplication::setApplicationName(QStringLiteral("Hoplift"));
    QApplication::setApplicationVersion(QStringLiteral("0.2.1"));
    // The window, the account and the queue come with the application shell; until
    // then the program only tells which version it is.
    QTextStream(stdout) << QApplication::applicationName() << ' '
                        << QApplication::applicationVersion() << '\n';
    return 0;
}
