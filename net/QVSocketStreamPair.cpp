#include "net/QVSocketStreamPair.h"

#include <QScopeGuard>

#include <cerrno>

namespace {

// Back-to-back events are delivered for at most this long before the pair
// returns to the event loop, so that one transfer cannot starve the window.
constexpr qint64 kPumpSliceNs = 1'000'000;

int errnoFor(QAbstractSocket::SocketError error)
{
    switch (error) {
    case QAbstractSocket::ConnectionRefusedError:
        return ECONNREFUSED;
    case QAbstractSocket::RemoteHostClosedError:
        return ECONNRESET;
    case QAbstractSocket::HostNotFoundError:
        return EHOSTUNREACH;
    case QAbstractSocket::SocketAccessError:
        return EACCES;
    case QAbstractSocket::SocketResourceError:
        return ENOBUFS;
    case QAbstractSocket::SocketTimeoutError:
        return ETIMEDOUT;
    case QAbstractSocket::NetworkError:
        return ENETUNREACH;
    case QAbstractSocket::SslHandshakeFailedError:
        return EPROTO;
    default:
        return EIO;
    }
}

} // namespace

void QVSocketStreamPair::release()
{
    client = nullptr;
    abortConnection();
    deleteLater();
}

bool QVSocketStreamPair::deliver(QVStreamSide stream, int eventKind)
{
    if (!client)
        return false;
    client->streamHandleEvent(stream, eventKind);
    return client != nullptr;
}

QVSslStreamPair::QVSslStreamPair(QObject *parent) : QVSocketStreamPair(parent)
{
    socket.setPeerVerifyMode(QSslSocket::VerifyNone);
    connect(&socket, &QSslSocket::connected, this, [this] {
        if (!socket.isEncrypted() && socket.mode() == QSslSocket::UnencryptedMode)
            onOpened();
    });
    connect(&socket, &QSslSocket::encrypted, this, &QVSslStreamPair::onOpened);
    connect(&socket, &QSslSocket::sslErrors, this, [this] { socket.ignoreSslErrors(); });
    connect(&socket, &QSslSocket::readyRead, this, &QVSslStreamPair::pumpInput);
    connect(&socket, &QSslSocket::readChannelFinished, this, &QVSslStreamPair::onPeerClosed);
    connect(&socket, &QSslSocket::disconnected, this, &QVSslStreamPair::onPeerClosed);
    connect(&socket, &QSslSocket::bytesWritten, this, &QVSslStreamPair::pumpOutput);
    connect(&socket, &QSslSocket::encryptedBytesWritten, this, &QVSslStreamPair::pumpOutput);
    connect(&socket, &QSslSocket::errorOccurred, this, &QVSslStreamPair::onError);
}

void QVSslStreamPair::open(const QString &host, quint16 port, bool tls)
{
    inputOpen = true;
    outputOpen = true;
    if (tls)
        socket.connectToHostEncrypted(host, port);
    else
        socket.connectToHost(host, port);
}

void QVSslStreamPair::onOpened()
{
    if (connected)
        return;
    connected = true;
    if (inputOpen && !deliver(QVStreamSide::Input, QVStreamEvent::OpenCompleted))
        return;
    if (outputOpen && !deliver(QVStreamSide::Output, QVStreamEvent::OpenCompleted))
        return;
    pumpOutput();
    pumpInput();
}

qint64 QVSslStreamPair::pendingBytes() const
{
    return staged.size() + socket.bytesToWrite() + socket.encryptedBytesToWrite();
}

void QVSslStreamPair::handOver()
{
    if (staged.isEmpty() || socket.state() != QAbstractSocket::ConnectedState)
        return;
    socket.write(staged);
    staged.resize(0); // keeps its capacity
    // Into the kernel (encrypted first) now rather than on the next trip through the loop;
    // what the kernel does not take yet waits in the socket for its bytesWritten.
    socket.flush();
}

qint64 QVSslStreamPair::read(char *buffer, qint64 maxLength)
{
    if (!inputOpen)
        return -1;
    return socket.read(buffer, maxLength);
}

qint64 QVSslStreamPair::write(const char *data, qint64 length)
{
    if (!outputOpen || !connected || socket.state() != QAbstractSocket::ConnectedState)
        return -1;
    const qint64 room = kWriteBudget - pendingBytes();
    if (room <= 0 || length <= 0)
        return 0;
    const qint64 taken = qMin(room, length);
    staged.append(data, taken);
    if (!pumpingOutput)
        handOver();
    return taken;
}

void QVSslStreamPair::pumpOutput()
{
    // flush() below emits bytesWritten, which lands here again: the loop already running
    // carries on by itself.
    if (pumpingOutput)
        return;
    pumpingOutput = true;
    const auto done = qScopeGuard([this] {
        pumpingOutput = false;
        handOver();
    });

    QElapsedTimer slice;
    slice.start();
    while (outputOpen && connected && client && socket.state() == QAbstractSocket::ConnectedState) {
        if (pendingBytes() >= kWriteBudget) {
            // A full batch goes to the socket in one write, and so in full-sized TLS
            // records; a socket that cannot take it all ends the run, and its
            // bytesWritten starts the next.
            handOver();
            if (pendingBytes() >= kWriteBudget)
                return;
        }
        const qint64 before = pendingBytes();
        if (!deliver(QVStreamSide::Output, QVStreamEvent::HasSpaceAvailable))
            return;
        // Nothing taken: the next event comes when the socket has moved bytes on.
        if (pendingBytes() == before)
            return;
        if (slice.nsecsElapsed() > kPumpSliceNs) {
            if (!pumpQueued) {
                pumpQueued = true;
                QMetaObject::invokeMethod(
                    this,
                    [this] {
                        pumpQueued = false;
                        pumpOutput();
                        pumpInput();
                    },
                    Qt::QueuedConnection);
            }
            return;
        }
    }
}

void QVSslStreamPair::pumpInput()
{
    if (!connected)
        return;
    QElapsedTimer slice;
    slice.start();
    while (inputOpen && client && socket.bytesAvailable() > 0) {
        const qint64 before = socket.bytesAvailable();
        if (!deliver(QVStreamSide::Input, QVStreamEvent::HasBytesAvailable))
            return;
        if (socket.bytesAvailable() == before)
            return;
        if (slice.nsecsElapsed() > kPumpSliceNs && socket.bytesAvailable() > 0) {
            QMetaObject::invokeMethod(this, &QVSslStreamPair::pumpInput, Qt::QueuedConnection);
            return;
        }
    }
    const bool peerGone = peerClosed || socket.state() != QAbstractSocket::ConnectedState;
    if (inputOpen && client && !endDelivered && peerGone && socket.bytesAvailable() == 0) {
        endDelivered = true;
        deliver(QVStreamSide::Input, QVStreamEvent::EndEncountered);
    }
}

void QVSslStreamPair::onPeerClosed()
{
    // The server closing its side is how every response ends.
    peerClosed = true;
    pumpInput();
}

void QVSslStreamPair::onError(QAbstractSocket::SocketError error)
{
    if (error == QAbstractSocket::RemoteHostClosedError && connected) {
        onPeerClosed();
        return;
    }
    lastErrorCode = errnoFor(error);
    lastErrorString = socket.errorString();
    if (inputOpen)
        deliver(QVStreamSide::Input, QVStreamEvent::ErrorOccurred);
    else if (outputOpen)
        deliver(QVStreamSide::Output, QVStreamEvent::ErrorOccurred);
}

void QVSslStreamPair::closeInput()
{
    inputOpen = false;
    finishIfBothClosed();
}

void QVSslStreamPair::closeOutput()
{
    // Bytes already taken are still sent.
    handOver();
    outputOpen = false;
    finishIfBothClosed();
}

void QVSslStreamPair::finishIfBothClosed()
{
    if (!inputOpen && !outputOpen)
        abortConnection();
}

void QVSslStreamPair::abortConnection()
{
    inputOpen = false;
    outputOpen = false;
    staged.clear();
    socket.abort();
}
