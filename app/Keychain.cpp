#include "app/Keychain.h"

#include "app/Log.h"

#include <QEventLoop>
#include <qt6keychain/keychain.h>

namespace {

const QString serviceName = QStringLiteral("Hoplift!");
const QString accountName = QStringLiteral("DefaultAccount");

int statusOf(const QKeychain::Job &job)
{
    switch (job.error()) {
    case QKeychain::NoError:
        return 0;
    case QKeychain::EntryNotFound:
        return KeychainItemNotFound;
    case QKeychain::NoBackendAvailable:
    case QKeychain::NotImplemented:
        return KeychainNotAvailable;
    case QKeychain::AccessDenied:
    case QKeychain::AccessDeniedByUser:
        return KeychainAccessDenied;
    case QKeychain::CouldNotDeleteEntry:
        return KeychainWriteFailed;
    case QKeychain::OtherError:
        break;
    }
    return KeychainOtherError;
}

/** @brief Runs a job to its end; the secret store answers over D-Bus. */
int runJob(QKeychain::Job &job)
{
    job.setAutoDelete(false);
    job.setInsecureFallback(false);
    QEventLoop loop;
    QObject::connect(&job, &QKeychain::Job::finished, &loop, &QEventLoop::quit);
    job.start();
    loop.exec(QEventLoop::ExcludeUserInputEvents);
    const int status = statusOf(job);
    if (status != 0 && status != KeychainItemNotFound)
        hlog("secret store: %s (%d)", qPrintable(job.errorString()), status);
    return status;
}

int writeItem(const QString &service, const QString &account, const char *data, quint32 length)
{
    QKeychain::WritePasswordJob job(service);
    job.setKey(account);
    job.setBinaryData(QByteArray(data, qsizetype(length)));
    return runJob(job);
}

} // namespace

int GetPasswordKeychain(QByteArray *passwordData, quint32 *passwordLength, KeychainItem *item)
{
    QKeychain::ReadPasswordJob job(serviceName);
    job.setKey(accountName);
    const int status = runJob(job);
    if (status != 0)
        return status;
    const QByteArray data = job.binaryData();
    if (passwordData)
        *passwordData = data;
    if (passwordLength)
        *passwordLength = quint32(data.size());
    if (item)
        *item = KeychainItem{serviceName, accountName};
    return 0;
}

int ChangePasswordKeychain(const char *passwordData, quint32 passwordLength,
                           const KeychainItem &item)
{
    return writeItem(item.service, item.account, passwordData, passwordLength);
}

int StorePasswordKeychain(const char *passwordData, quint32 passwordLength)
{
    KeychainItem item;
    const int found = GetPasswordKeychain(nullptr, nullptr, &item);
    if (found == KeychainItemNotFound)
        return writeItem(serviceName, accountName, passwordData, passwordLength);
    if (found == 0)
        return ChangePasswordKeychain(passwordData, passwordLength, item);
    return found;
}
