#include "app/SingleInstance.h"

#include <QDataStream>
#include <QDir>
#include <QLocalSocket>
#include <QStandardPaths>

namespace {
constexpr quint32 kMagic = 0x486f704c; // "HopL"
}

SingleInstance::SingleInstance(const QString &name)
{
    QString dir = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    if (dir.isEmpty())
        dir = QDir::tempPath();
    lockPath = dir + QLatin1Char('/') + name + QStringLiteral(".lock");
    socketPath = dir + QLatin1Char('/') + name + QStringLiteral(".socket");
}

SingleInstance::~SingleInstance()
{
    server.close();
}

bool SingleInstance::becomePrimary()
{
    lock = std::make_unique<QLockFile>(lockPath);
    // A lock left by a crashed Hoplift names a process that is gone; QLockFile takes it over.
    if (!lock->tryLock(0))
        return false;
    QLocalServer::removeServer(socketPath);
    server.setSocketOptions(QLocalServer::UserAccessOption);
    if (!server.listen(socketPath))
        return true; // still the only one; later starts just cannot reach us
    connect(&server, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket *socket = server.nextPendingConnection()) {
            connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
            connect(socket, &QLocalSocket::readyRead, this, [this, socket] { readFrom(socket); });
            readFrom(socket);
        }
    });
    return true;
}

void SingleInstance::readFrom(QLocalSocket *socket)
{
    QDataStream in(socket);
    in.startTransaction();
    quint32 magic = 0;
    QStringList paths;
    in >> magic >> paths;
    if (!in.commitTransaction())
        return;
    if (magic != kMagic) {
        socket->abort();
        return;
    }
    socket->write("k", 1);
    socket->flush();
    // Handed on from the event loop, not from inside the socket's signal: adding files
    // runs waits of its own, in which this socket may close and be deleted.
    QMetaObject::invokeMethod(
        this,
        [this, paths] {
            if (paths.isEmpty())
                emit raiseRequested();
            else
                emit filesReceived(paths);
        },
        Qt::QueuedConnection);
}

bool SingleInstance::sendToPrimary(const QStringList &paths, int timeoutMs)
{
    QLocalSocket socket;
    socket.connectToServer(socketPath);
    if (!socket.waitForConnected(timeoutMs))
        return false;
    QByteArray message;
    QDataStream out(&message, QIODevice::WriteOnly);
    out << kMagic << paths;
    socket.write(message);
    if (!socket.waitForBytesWritten(timeoutMs))
        return false;
    // The answer says the paths arrived, not merely that the socket took them.
    return socket.waitForReadyRead(timeoutMs) && socket.read(1) == "k";
}
