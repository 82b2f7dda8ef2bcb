// QVStreamer over real sockets against a loopback server: exact bytes, time-outs,
// late answers, TLS redirects, failures, and memory during a large upload.
#include "net/QVStreamer.h"
#include "support/LogCapture.h"
#include "support/LoopbackHttpServer.h"
#include "support/ProcStatus.h"
#include "support/RecordingDelegate.h"

#include <QCryptographicHash>
#include <QFile>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>

namespace {

QByteArray sha256OfRequest(const QVStreamer &s, const QByteArray &bodyStart, const QString &path,
                           const QByteArray &bodyEnd)
{
    QCryptographicHash h(QCryptographicHash::Sha256);
    h.addData(s.requestHead());
    h.addData(bodyStart);
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return {};
    h.addData(&f);
    h.addData(bodyEnd);
    return h.result();
}

QByteArray bodyStartFor(const QByteArray &name)
{
    return "--0xKhTmLbOuNdArY\r\nContent-Disposition: form-data; name=\"file\"; filename=\"" +
           name + "\"\r\nContent-Type: application/octet-stream\r\n\r\n";
}

const QByteArray kBodyEnd = "\r\n--0xKhTmLbOuNdArY--\r\n";

} // namespace

class TestStreamerWire : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void exampleUploadReachesServerByteForByte();
    void getWithoutPathSendsTwoBlanks();
    void chunkedAnswerIsDecoded();
    void silentServerGetsRequestAgainFromFirstByte();
    void lateAnswerAfterFullUploadIsAwaited();
    void redirectWithoutHandlerOrAutoRedirectFails();
    void redirectToHttpsUsesTlsOnPort443();
    void refusedConnectionStopsWithoutCallback();
    void serverClosingMidUploadEndsTheRequest_data();
    void serverClosingMidUploadEndsTheRequest();
    void answerCutShortEndsWithWhatCame();
    void largeUploadKeepsMemoryFlat();
    void endlessAnswerIsCutOff();

private:
    QString makeFile(const QString &name, qint64 size);
    QTemporaryDir dir;
};

QString TestStreamerWire::makeFile(const QString &name, qint64 size)
{
    const QString path = dir.filePath(name);
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly))
        qFatal("cannot create %s", qPrintable(path));
    QByteArray block(1 << 20, Qt::Uninitialized);
    for (int i = 0; i < block.size(); ++i)
        block[i] = char((i * 131) ^ (i >> 9));
    for (qint64 left = size; left > 0; left -= block.size())
        f.write(block.constData(), qMin<qint64>(left, block.size()));
    return path;
}

void TestStreamerWire::exampleUploadReachesServerByteForByte()
{
    LoopbackHttpServer server;
    QVERIFY(server.listenOnLoopback());
    server.setResponse("HTTP/1.1 201 Created\r\nContent-Type: application/xml\r\n\r\n<asset/>");
    QFile file(dir.filePath(QStringLiteral("a.txt")));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("hello");
    file.close();

    RecordingDelegate d;
    QVStreamer s;
    s.setDelegate(&d);
    s.setUserName(QStringLiteral("u"));
    s.setPassword(QStringLiteral("p"));
    QVERIFY(s.uploadFile(file.fileName(), QStringLiteral("a.txt"),
                         server.baseUrl() + QStringLiteral("/api/assets"), false));
    QTRY_COMPARE(d.completions, 1);

    const QByteArray expected = "POST /api/assets HTTP/1.1\r\n"
                                "User-Agent: Hoplift!(0.2.1) mac\r\n"
                                "Authorization: Basic dTpw\r\n"
                                "Accept: application/xml\r\n"
                                "Content-Type: multipart/form-data; boundary=0xKhTmLbOuNdArY\r\n"
                                "Content-Length: 152\r\n"
                                "Connection: close\r\n"
                                "Host: 127.0.0.1\r\n\r\n" +
                                bodyStartFor("a.txt") + "hello" + kBodyEnd;
    QCOMPARE(server.received().size(), 1);
    QCOMPARE(server.received().first().data, expected);
    QCOMPARE(d.calls, QStringList{QStringLiteral("complete 201")});
    QCOMPARE(d.body, QByteArray("<asset/>"));
    QVERIFY(s.isRequestFinished());
    QCOMPARE(s.targetURL(), server.baseUrl());
}

void TestStreamerWire::getWithoutPathSendsTwoBlanks()
{
    LoopbackHttpServer server;
    QVERIFY(server.listenOnLoopback());
    RecordingDelegate d;
    QVStreamer s;
    s.setDelegate(&d);
    s.setUserName(QStringLiteral("u"));
    s.setPassword(QStringLiteral("p"));
    QVERIFY(s.getFromURL(server.baseUrl(), true));
    QTRY_COMPARE(d.completions, 1);
    QVERIFY(server.received().first().data.startsWith("GET  HTTP/1.1\r\n"));
}

void TestStreamerWire::chunkedAnswerIsDecoded()
{
    LoopbackHttpServer server;
    QVERIFY(server.listenOnLoopback());
    QByteArray chunked;
    QByteArray plain;
    for (int i = 0; i < 300; ++i) {
        const QByteArray piece = "<stats n=\"" + QByteArray::number(i) + "\"/>";
        chunked += QByteArray::number(piece.size(), 16) + ";ext=1\r\n" + piece + "\r\n";
        plain += piece;
    }
    server.setResponse("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + chunked +
                       "0\r\n\r\n");
    RecordingDelegate d;
    QVStreamer s;
    s.setDelegate(&d);
    QVERIFY(s.getFromURL(server.baseUrl() + QStringLiteral("/api/account.xml"), true));
    QTRY_COMPARE(d.completions, 1);
    QCOMPARE(d.body, plain);
}

void TestStreamerWire::silentServerGetsRequestAgainFromFirstByte()
{
    LoopbackHttpServer server;
    QVERIFY(server.listenOnLoopback());
    server.setSilentAfter(64 * 1024); // the first connection only
    server.setResponse("HTTP/1.1 201 Created\r\n\r\n");
    // Larger than the loopback socket buffers, so the silent server stalls the upload.
    const QString path = makeFile(QStringLiteral("silent.bin"), 48 << 20);

    LogCapture log;
    RecordingDelegate d;
    QVStreamer s;
    s.setDelegate(&d);
    s.setTimeOut(0.3);
    QVERIFY(s.uploadFile(path, QStringLiteral("silent.bin"),
                         server.baseUrl() + QStringLiteral("/api/assets"), false));
    QTRY_VERIFY_WITH_TIMEOUT(d.completions == 1, 60000);

    QCOMPARE(d.calls, QStringList({QStringLiteral("restart -1"), QStringLiteral("complete 201")}));
    const QByteArrayList lines = log.lines();
    const qsizetype at = lines.indexOf("timeout !");
    QVERIFY(at >= 0);
    QCOMPARE(lines.mid(at, 3), QByteArrayList({"timeout !", "restarting ...", "restart done!"}));
    QCOMPARE(server.received().size(), 2);
    const LoopbackHttpServer::Received &again = server.received().at(1);
    QCOMPARE(quint64(again.size), s.requestSize());
    QCOMPARE(again.sha256, sha256OfRequest(s, bodyStartFor("silent.bin"), path, kBodyEnd));
}

void TestStreamerWire::lateAnswerAfterFullUploadIsAwaited()
{
    LoopbackHttpServer server;
    QVERIFY(server.listenOnLoopback());
    server.setResponseDelay(1500); // several ticks
    server.setResponse("HTTP/1.1 201 Created\r\n\r\nlate");
    const QString path = makeFile(QStringLiteral("late.bin"), 300000);

    LogCapture log;
    RecordingDelegate d;
    QVStreamer s;
    s.setDelegate(&d);
    s.setTimeOut(0.2);
    QVERIFY(s.uploadFile(path, QStringLiteral("late.bin"),
                         server.baseUrl() + QStringLiteral("/api/assets"), false));
    QTRY_VERIFY_WITH_TIMEOUT(d.completions == 1, 20000);
    QCOMPARE(d.calls, QStringList{QStringLiteral("complete 201")});
    QCOMPARE(d.body, QByteArray("late"));
    QCOMPARE(log.count("restarting ..."), 0);
    QCOMPARE(server.received().size(), 1);
}

void TestStreamerWire::redirectWithoutHandlerOrAutoRedirectFails()
{
    LoopbackHttpServer server;
    QVERIFY(server.listenOnLoopback());
    server.setResponse("HTTP/1.1 302 Found\r\nLocation: http://127.0.0.1:1/elsewhere\r\n\r\n");
    const QString path = makeFile(QStringLiteral("r.bin"), 10);
    RecordingDelegate d({QVStreamerCallback::HandleError, QVStreamerCallback::ResponseComplete});
    QVStreamer s;
    s.setDelegate(&d);
    QVERIFY(s.uploadFile(path, server.baseUrl() + QStringLiteral("/api/assets"), false));
    QTRY_COMPARE(d.calls, QStringList{QStringLiteral("error Redirect failed -1")});
    QVERIFY(s.isRequestFinished());
    QCOMPARE(server.received().size(), 1);
}

void TestStreamerWire::redirectToHttpsUsesTlsOnPort443()
{
    LoopbackHttpServer secure;
    if (!secure.listenOnLoopback(443))
        QSKIP("port 443 cannot be bound here; ctest runs this in a network namespace "
              "(net-streamer-tls)");
    QSslCertificate certificate;
    QSslKey key;
    QVERIFY2(LoopbackHttpServer::makeSelfSignedCertificate(&certificate, &key),
             "openssl could not make a certificate");
    secure.useTls(certificate, key);
    secure.setResponse("HTTP/1.1 200 OK\r\n\r\n<account/>");

    LoopbackHttpServer plain;
    QVERIFY(plain.listenOnLoopback());
    plain.setResponse("HTTP/1.1 302 Found\r\nLocation: https://127.0.0.1/api/account.xml\r\n\r\n");

    RecordingDelegate d({QVStreamerCallback::HandleError, QVStreamerCallback::ResponseComplete});
    QVStreamer s;
    s.setDelegate(&d);
    s.setUserName(QStringLiteral("u"));
    s.setPassword(QStringLiteral("p"));
    QVERIFY(s.getFromURL(plain.baseUrl() + QStringLiteral("/api/account.xml"), true));
    QTRY_VERIFY_WITH_TIMEOUT(d.completions == 1, 20000);
    QCOMPARE(d.calls, QStringList{QStringLiteral("complete 200")});
    QCOMPARE(d.body, QByteArray("<account/>"));
    QCOMPARE(secure.received().size(), 1);
    QVERIFY(secure.received().first().data.startsWith("GET /api/account.xml HTTP/1.1\r\n"));
    QVERIFY(secure.received().first().data.contains("Authorization: Basic dTpw\r\n"));
    QCOMPARE(s.targetURL(), QStringLiteral("https://127.0.0.1"));
}

void TestStreamerWire::refusedConnectionStopsWithoutCallback()
{
    quint16 port;
    {
        LoopbackHttpServer gone;
        QVERIFY(gone.listenOnLoopback());
        port = gone.serverPort();
    }
    LogCapture log;
    RecordingDelegate d;
    QVStreamer s;
    s.setDelegate(&d);
    QVERIFY(s.getFromURL(QStringLiteral("http://127.0.0.1:%1/api/user").arg(port), true));
    QTRY_VERIFY(s.isRequestFinished());
    QCOMPARE(s.errorCode(), ECONNREFUSED);
    QVERIFY(log.lines().contains("Error with stream!"));
    QVERIFY(d.calls.isEmpty());
}

void TestStreamerWire::serverClosingMidUploadEndsTheRequest_data()
{
    QTest::addColumn<qint64>("closeAfter");
    QTest::newRow("in the head") << qint64(40);
    QTest::newRow("in the body") << qint64(100000);
}

void TestStreamerWire::serverClosingMidUploadEndsTheRequest()
{
    QFETCH(qint64, closeAfter);
    LoopbackHttpServer server;
    QVERIFY(server.listenOnLoopback());
    server.setCloseAfter(closeAfter);
    const QString path = makeFile(QStringLiteral("cut.bin"), 8 << 20);
    RecordingDelegate d;
    QVStreamer s;
    s.setDelegate(&d);
    QVERIFY(s.uploadFile(path, server.baseUrl() + QStringLiteral("/api/assets"), false));
    // Either an end without a status or a stream error: the request is over either way.
    QTRY_VERIFY_WITH_TIMEOUT(s.isRequestFinished(), 20000);
    QVERIFY(d.calls.isEmpty() || d.calls == QStringList{QStringLiteral("complete 0")});
    QVERIFY(s.bytesSent() < s.requestSize());
}

void TestStreamerWire::answerCutShortEndsWithWhatCame()
{
    // The end of the connection is the end of the answer, whatever its length said.
    LoopbackHttpServer server;
    QVERIFY(server.listenOnLoopback());
    server.setResponse("HTTP/1.1 201 Created\r\nContent-Length: 100\r\n\r\n<asset>");
    const QString path = makeFile(QStringLiteral("whole.bin"), 5000);
    RecordingDelegate d;
    QVStreamer s;
    s.setDelegate(&d);
    QVERIFY(s.uploadFile(path, server.baseUrl() + QStringLiteral("/api/assets"), false));
    QTRY_COMPARE_WITH_TIMEOUT(d.calls, QStringList{QStringLiteral("complete 201")}, 10000);
    QCOMPARE(d.body, QByteArray("<asset>"));
    QCOMPARE(s.bytesSent(), s.requestSize());
}

void TestStreamerWire::largeUploadKeepsMemoryFlat()
{
    LoopbackHttpServer server;
    QVERIFY(server.listenOnLoopback());
    server.setRecordLimit(4096);
    server.setResponse("HTTP/1.1 201 Created\r\n\r\n");
    const qint64 size = qint64(256) << 20;
    const QString path = makeFile(QStringLiteral("big.bin"), size);

    RecordingDelegate d;
    QVStreamer s;
    s.setDelegate(&d);
    s.setUserName(QStringLiteral("u"));
    s.setPassword(QStringLiteral("p"));

    // Reset the peak so that it measures the upload alone.
    QFile clear(QStringLiteral("/proc/self/clear_refs"));
    QVERIFY(clear.open(QIODevice::WriteOnly) && clear.write("5") == 1);
    clear.close();
    const qint64 before = statusKiB("VmRSS:");
    QVERIFY(before > 0);

    QVERIFY(s.uploadFile(path, QStringLiteral("big.bin"),
                         server.baseUrl() + QStringLiteral("/api/assets"), false));
    QTRY_VERIFY_WITH_TIMEOUT(d.completions == 1, 240000);
    const qint64 peak = statusKiB("VmHWM:");
    qInfo("resident before %lld KiB, peak during upload %lld KiB (+%lld KiB)", before, peak,
          peak - before);

    QCOMPARE(d.calls, QStringList{QStringLiteral("complete 201")});
    QCOMPARE(server.received().first().size, qint64(s.requestSize()));
    QCOMPARE(server.received().first().sha256,
             sha256OfRequest(s, bodyStartFor("big.bin"), path, kBodyEnd));
    QFile::remove(path);
#ifdef __SANITIZE_ADDRESS__
    QSKIP("the address sanitizer keeps freed memory in quarantine; resident size says nothing");
#endif
    // Both ends run in this process; neither may hold the file.
    QVERIFY2(peak - before < 8 * 1024, "resident memory grew by more than 8 MiB");
}

void TestStreamerWire::endlessAnswerIsCutOff()
{
    // A server that answers a GET with a head and then never stops sending.
    QTcpServer endless;
    QVERIFY(endless.listen(QHostAddress::LocalHost));
    const QByteArray block(1 << 20, 'z');
    connect(&endless, &QTcpServer::newConnection, this, [&] {
        QTcpSocket *socket = endless.nextPendingConnection();
        socket->write("HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\n\r\n");
        connect(socket, &QTcpSocket::bytesWritten, socket, [socket, &block] {
            if (socket->bytesToWrite() < block.size())
                socket->write(block);
        });
        socket->write(block);
    });
    RecordingDelegate d;
    QVStreamer s;
    s.setDelegate(&d);
    QVERIFY(s.getFromURL(
        QStringLiteral("http://127.0.0.1:%1/api/account.xml").arg(endless.serverPort()), true));
    QTRY_VERIFY_WITH_TIMEOUT(s.isRequestFinished(), 60000);
    QCOMPARE(s.errorCode(), EFBIG);
    QVERIFY(d.calls.isEmpty()); // like any broken connection: no answer is delivered
}

QTEST_GUILESS_MAIN(TestStreamerWire)
#include "tst_streamer_wire.moc"
