#pragma once

#include <QLocalServer>
#include <QLockFile>
#include <QObject>
#include <QStringList>

#include <memory>

/**
 * @brief One Hoplift per user: the first start holds a lock file in the runtime folder and
 * listens on a user-only local socket; later starts hand their paths to it and exit.
 */
class SingleInstance : public QObject
{
    Q_OBJECT
public:
    /** @brief Names the lock and socket after name, in $XDG_RUNTIME_DIR. */
    explicit SingleInstance(const QString &name = QStringLiteral("hoplift"));
    ~SingleInstance() override;

    /** @brief True when this process is (now) the first instance and listens for others. */
    bool becomePrimary();

    /** @brief Hands paths to the first instance (an empty list asks it to raise its window). */
    bool sendToPrimary(const QStringList &paths, int timeoutMs = 5000);

Q_SIGNALS:
    void filesReceived(const QStringList &paths);
    void raiseRequested();

private:
    void readFrom(class QLocalSocket *socket);

    QString lockPath;
    QString socketPath;
    std::unique_ptr<QLockFile> lock;
    QLocalServer server;
};
