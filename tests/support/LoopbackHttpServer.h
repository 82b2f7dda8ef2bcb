#pragma once

#include <QByteArray>
#include <QCryptographicHash>
#include <QList>
#include <QSslCertificate>
#include <QSslKey>
#include <QTcpServer>

class QTcpSocket;

/**
 * @brief A loopback HTTP server for engine tests. It reads each request (head and
 * Content-Length body), answers with canned bytes and closes, and records what it got.
 * Modes make it misbehave: answer late, stop reading after some bytes, close early.
 */
class LoopbackHttpServer : public QTcpServer
{
    Q_OBJECT
public:
    /** @brief What one connection delivered. */
    struct Received
    {
        QByteArray data;   // the first recordLimit bytes
        qint64 size = 0;   // every byte
        QByteArray sha256; // of every byte
        bool complete = false;
    };

    explicit LoopbackHttpServer(QObject *parent = nullptr);

    /** @brief Listens on 127.0.0.1 (port 0: any free one). */
    bool listenOnLoopback(quint16 port = 0);
    /** @brief "http://127.0.0.1:PORT" */
    QString baseUrl() const;

    /** @brief Serves TLS with this certificate and key. */
    void useTls(const QSslCertificate &certificate, const QSslKey &key);

    /** @brief The bytes sent back once a request is complete. */
    void setResponse(const QByteArray &bytes) { response = bytes; }
    /** @brief Answer only this long after the request is complete. */
    void setResponseDelay(int ms) { responseDelayMs = ms; }
    /** @brief The first count connections stop reading after bytes received. */
    void setSilentAfter(qint64 bytes, int connections = 1);
    /** @brief The first count connections are closed unanswered after bytes received. */
    void setCloseAfter(qint64 bytes, int connections = 1);
    /** @brief How many bytes of each connection are kept in Received::data. */
    void setRecordLimit(qint64 bytes) { recordLimit = bytes; }

    const QList<Received> &received() const { return connections; }

    /** @brief Makes a self-signed certificate for 127.0.0.1 with openssl; false on failure. */
    static bool makeSelfSignedCertificate(QSslCertificate *certificate, QSslKey *key);

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    struct Connection;
    void onReadyRead(QTcpSocket *socket, int index);
    void answer(QTcpSocket *socket);

    QByteArray response = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
    int responseDelayMs = 0;
    qint64 silentAfter = -1;
    int silentConnections = 0;
    qint64 closeAfter = -1;
    int closeConnections = 0;
    qint64 recordLimit = 1 << 20;
    bool tls = false;
    QSslCertificate certificate;
    QSslKey key;
    QList<Received> connections;
    QList<std::shared_ptr<QCryptographicHash>> hashes;
    QList<qint64> expected; // total request size once the head is known, else -1
};
