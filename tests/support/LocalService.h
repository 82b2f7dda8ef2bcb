#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

/**
 * @brief A kelvara-local service for one test: its own data folder, a free port, stopped
 * when the object goes. The binary comes from the KELVARA_LOCAL environment variable.
 */
class LocalService
{
public:
    /** @brief Starts the service with these extra options; false (and why) on failure. */
    bool start(const QStringList &options = {}, QString *why = nullptr);
    ~LocalService();

    /** @brief "http://127.0.0.1:PORT" */
    QString baseUrl() const { return url; }
    /** @brief Where the account's uploads land. */
    QString accountFolder(const QString &user = QStringLiteral("demo")) const;

private:
    QProcess process;
    QTemporaryDir data;
    QString url;
};
