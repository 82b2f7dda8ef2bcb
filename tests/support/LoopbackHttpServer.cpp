#include "support/LoopbackHttpServer.h"

#include <QProcess>
#include <QSslSocket>
#include <QTemporaryDir>
#include <QTimer>

LoopbackHttpServer::LoopbackHttpServer(QObject *parent) : QTcpServer(parent) {}

bool LoopbackHttpServer::listenOnLoopback(quint16 port)
{
    return listen(QHostAddress::LocalHost, port);
}

QString LoopbackHttpServer::baseUrl() const
{
    return QStringLiteral("http://127.0.0.1:%1").arg(serverPort());
}

void LoopbackHttpServer::useTls(const QSslCertificate &c, const QSslKey &k)
{
    tls = true;
    certificate = c;
    key = k;
}

void LoopbackHttpServer::setSilentAfter(qint64 bytes, int count)
{
    silentAfter = bytes;
    silentConnections = count;
}

void LoopbackHttpServer::setCloseAfter(qint64 bytes, int count)
{
    closeAfter = bytes;
    closeConnections = count;
}

void LoopbackHttpServer::incomingConnection(qintptr descriptor)
{
    auto *socket = new QSslSocket(this);
    if (!socket->setSocketDescriptor(descriptor)) {
        delete socket;
        return;
    }
    // A bounded read buffer lets a silent connection push back on the client.
    socket->setReadBufferSize(64 * 1024);
    const int index = int(connections.size());
    connections.append(Received{});
    hashes.append(std::make_shared<QCryptographicHash>(QCryptographicHash::Sha256));
    expected.append(-1);
    connect(socket, &QSslSocket::readyRead, this,
            [this, socket, index] { onReadyRead(socket, index); });
    connect(socket, &QSslSocket::disconnected, socket, &QObject::deleteLater);
    if (tls) {
        socket->setLocalCertificate(certificate);
        socket->setPrivateKey(key);
        socket->startServerEncryption();
    }
}

void LoopbackHttpServer::onReadyRead(QTcpSocket *socket, int index)
{
    Received &r = connections[index];
    if (r.complete)
        return;
    const bool silent = silentAfter >= 0 && index < silentConnections;
    const bool closing = closeAfter >= 0 && index < closeConnections;

    qint64 want = socket->bytesAvailable();
    if (silent)
        want = qMin(want, silentAfter - r.size);
    if (want <= 0)
        return;
    const QByteArray chunk = socket->read(want);
    hashes[index]->addData(chunk);
    if (r.data.size() < recordLimit)
        r.data.append(chunk.left(recordLimit - r.data.size()));
    r.size += chunk.size();

    if (closing && r.size >= closeAfter) {
        socket->abort();
        return;
    }

    if (expected[index] < 0) {
        const qsizetype end = r.data.indexOf("\r\n\r\n");
        if (end < 0)
            return;
        qint64 length = 0;
        for (const QByteArray &line : r.data.left(end).split('\n')) {
            const QByteArray l = line.trimmed();
            if (l.toLower().startsWith("content-length:"))
                length = l.mid(15).trimmed().toLongLong();
        }
        expected[index] = end + 4 + length;
    }
    if (r.size < expected[index])
        return;

    r.complete = true;
    r.sha256 = hashes[index]->result();
    if (responseDelayMs > 0)
        QTimer::singleShot(responseDelayMs, socket, [this, socket] { answer(socket); });
    else
        answer(socket);
}

void LoopbackHttpServer::answer(QTcpSocket *socket)
{
    socket->write(response);
    socket->disconnectFromHost();
}

bool LoopbackHttpServer::makeSelfSignedCertificate(QSslCertificate *c, QSslKey *k)
{
    QTemporaryDir dir;
    if (!dir.isValid())
        return false;
    const QString certPath = dir.filePath(QStringLiteral("cert.pem"));
    const QString keyPath = dir.filePath(QStringLiteral("key.pem"));
    QProcess openssl;
    openssl.start(QStringLiteral("openssl"),
                  {QStringLiteral("req"), QStringLiteral("-x509"), QStringLiteral("-newkey"),
                   QStringLiteral("rsa:2048"), QStringLiteral("-nodes"), QStringLiteral("-days"),
                   QStringLiteral("1"), QStringLiteral("-subj"), QStringLiteral("/CN=127.0.0.1"),
                   QStringLiteral("-keyout"), keyPath, QStringLiteral("-out"), certPath});
    if (!openssl.waitForFinished(60000) || openssl.exitCode() != 0)
        return false;
    QFile certFile(certPath);
    QFile keyFile(keyPath);
    if (!certFile.open(QIODevice::ReadOnly) || !keyFile.open(QIODevice::ReadOnly))
        return false;
    *c = QSslCertificate(&certFile, QSsl::Pem);
    *k = QSslKey(&keyFile, QSsl::Rsa, QSsl::Pem);
    return !c->isNull() && !k->isNull();
}
