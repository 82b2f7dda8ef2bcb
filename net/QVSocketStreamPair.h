#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QSslSocket>
#include <QString>

/** @brief Event kinds delivered by a socket stream pair; the values are fixed. */
namespace QVStreamEvent {
enum : int
{
    OpenCompleted = 1,
    HasBytesAvailable = 2,
    HasSpaceAvailable = 4,
    ErrorOccurred = 8,
    EndEncountered = 16,
};
}

/** @brief Which of the two streams of a pair an event belongs to. */
enum class QVStreamSide
{
    Input,
    Output
};

/** @brief Receiver of a pair's events. */
class QVStreamPairClient
{
public:
    virtual ~QVStreamPairClient() = default;
    /** @brief One event of one stream; the receiver may read, write or close from here. */
    virtual void streamHandleEvent(QVStreamSide stream, int eventKind) = 0;
};

/**
 * @brief A connected input stream and output stream to one host, driven by the event
 * loop of the thread that opened it. Events reach the client set with setClient().
 *
 * A pair is given up with release(): it stops delivering at once and deletes itself
 * later, so releasing from inside one of its own events is safe.
 */
class QVSocketStreamPair : public QObject
{
    Q_OBJECT
public:
    explicit QVSocketStreamPair(QObject *parent = nullptr) : QObject(parent) {}

    void setClient(QVStreamPairClient *c) { client = c; }

    /** @brief Starts connecting; OpenCompleted follows on both streams, or ErrorOccurred. */
    virtual void open(const QString &host, quint16 port, bool tls) = 0;

    /** @brief Reads up to maxLength response bytes: the count, 0 when none, negative on error. */
    virtual qint64 read(char *buffer, qint64 maxLength) = 0;

    /** @brief Offers bytes to the connection: the count it took (maybe fewer), 0 or negative when
     * none. */
    virtual qint64 write(const char *data, qint64 length) = 0;

    /** @brief No more input events; the connection ends once both streams are closed. */
    virtual void closeInput() = 0;
    /** @brief No more output events; bytes already taken are still sent. */
    virtual void closeOutput() = 0;

    /** @brief Code and text of the last error. */
    virtual int errorCode() const = 0;
    virtual QString errorString() const = 0;

    /** @brief Detaches the client, drops the connection and deletes the pair later. */
    void release();

protected:
    /** @brief Sends one event to the client; false when there is none (anymore). */
    bool deliver(QVStreamSide stream, int eventKind);

    virtual void abortConnection() = 0;

    QVStreamPairClient *client = nullptr;
};

/** @brief The real pair: one TCP connection through QSslSocket, plain or TLS. */
class QVSslStreamPair : public QVSocketStreamPair
{
    Q_OBJECT
public:
    /**
     * @brief How many bytes the pair holds in user space before it reports no space: 32
     * pieces, as much as curl keeps. Every batch costs the event loop a round of socket
     * notifier changes, and with 16 KiB batches those capped a TLS upload at 0.8 of curl.
     */
    static constexpr qint64 kWriteBudget = 64 * 1024;

    explicit QVSslStreamPair(QObject *parent = nullptr);

    void open(const QString &host, quint16 port, bool tls) override;
    qint64 read(char *buffer, qint64 maxLength) override;
    qint64 write(const char *data, qint64 length) override;
    void closeInput() override;
    void closeOutput() override;
    int errorCode() const override { return lastErrorCode; }
    QString errorString() const override { return lastErrorString; }

protected:
    void abortConnection() override;

private:
    void onOpened();
    void pumpInput();
    void pumpOutput();
    void onPeerClosed();
    void onError(QAbstractSocket::SocketError error);
    void finishIfBothClosed();
    qint64 pendingBytes() const;
    /** @brief Gives the pieces taken since the last call to the socket in one write. */
    void handOver();

    QSslSocket socket;
    QByteArray staged; // pieces taken while a run of space events goes on
    bool inputOpen = false;
    bool outputOpen = false;
    bool connected = false;
    bool peerClosed = false;
    bool endDelivered = false;
    bool pumpQueued = false;
    bool pumpingOutput = false;
    int lastErrorCode = 0;
    QString lastErrorString;
};
