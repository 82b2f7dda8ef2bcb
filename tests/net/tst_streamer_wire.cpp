// QVStreamer over real sockets, plain and TLS, against a loopback server.
#include "net/QVStreamer.h"
#include "support/LogCapture.h"
#include "support/LoopbackHttpServer.h"
#include "support/ProcStatus.h"
#include "support/RecordingDelegate.h"

#include <QCryptographicHash>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>

namespace {

QByteArray bodyStartFor(const QByteArray &name)
{
    return "--0xKhTmLbOuNdArY\r\nContent-Disposition: form-data; name=\"file\"; filename=\"" +
           name + "\"\r\nContent-Type: application/octet-stream\r\n\r\n";
}

const QByteArray kBodyEnd = "\r\n--0xKhTmLbOuNdArY--\r\n";
const QByteArray kFields = "User-Agent: Hoplift!(0.2.1) mac\r\nAuthorization: Basic dTpw\r\n"
                           "Accept: application/xml\r\n";
const QByteArray kClose = "Connection: close\r\nHost: 127.0.0.1\r\n\r\n";

} // namespace

class TestStreamerWire : public QObject
{
    Q_OBJECT
private:
    /** @brief A file of content, grown with zeros to size bytes. */
    QString makeFile(const QString &name, const QByteArray &content, qint64 size)
    {
        QFile f(dir.filePath(name));
        return f.open(QIODevice::WriteOnly) && f.write(content) == content.size() && f.resize(size)
                   ? f.fileName()
                   : QString();
    }

    bool upload(const QString &path, const QString &name)
    {
        return s->uploadFile(path, name, server->baseUrl() + QStringLiteral("/api/assets"), false);
    }

    /** @brief Whether the server's connection got exactly the request that uploads path. */
    bool receivedWholeRequest(int connection, const QByteArray &name, const QString &path)
    {
        QCryptographicHash h(QCryptographicHash::Sha256);
        h.addData(s->requestHead() + bodyStartFor(name));
        QFile f(path);
        if (!f.open(QIODevice::ReadOnly) || !h.addData(&f))
            return false;
        h.addData(kBodyEnd);
        const LoopbackHttpServer::Received &r = server->received().value(connection);
        return quint64(r.size) == s->requestSize() && r.sha256 == h.result();
    }

    QTemporaryDir dir;
    LogCapture log;
    RecordingDelegate d;
    std::unique_ptr<LoopbackHttpServer> server;
    std::unique_ptr<QVStreamer> s;

private Q_SLOTS:
    void init()
    {
        log.clear();
        d = RecordingDelegate();
        s = std::make_unique<QVStreamer>();
        s->setDelegate(&d);
        s->setUserName(QStringLiteral("u"));
        s->setPassword(QStringLiteral("p"));
        server = std::make_unique<LoopbackHttpServer>();
        QVERIFY(server->listenOnLoopback());
    }

    void exampleUploadThenPathlessGetAreByteExact()
    {
        server->setResponse("HTTP/1.1 201 Created\r\nContent-Type: application/xml\r\n\r\n<a/>");
        QVERIFY(upload(makeFile(QStringLiteral("a.txt"), "hello", 5), QStringLiteral("a.txt")));
        QTRY_COMPARE(d.completions, 1);
        QCOMPARE(server->received().value(0).data,
                 "POST /api/assets HTTP/1.1\r\n" + kFields +
                     "Content-Type: multipart/form-data; boundary=0xKhTmLbOuNdArY\r\n"
                     "Content-Length: 152\r\n" +
                     kClose + bodyStartFor("a.txt") + "hello" + kBodyEnd);
        QCOMPARE(d.calls, QStringList{QStringLiteral("complete 201")});
        QCOMPARE(d.body, QByteArray("<a/>"));

        // The same engine then asks without a path; nothing of the upload stays in the head.
        QVERIFY(s->getFromURL(server->baseUrl(), true));
        QTRY_COMPARE(d.completions, 2);
        QCOMPARE(server->received().value(1).data, "GET  HTTP/1.1\r\n" + kFields + kClose);
    }

    void silentServerGetsRequestAgainFromFirstByteThenAnswerIsAwaited()
    {
        server->setSilentAfter(64 * 1024); // the first connection only
        server->setResponseDelay(1500);    // several ticks after the second one took everything
        server->setResponse("HTTP/1.1 201 Created\r\n\r\nlate");
        // Larger than the loopback socket buffers, so the silent server stalls the upload.
        const QString path = makeFile(QStringLiteral("silent.bin"), "silent", 48 << 20);
        s->setTimeOut(0.3);
        QVERIFY(upload(path, QStringLiteral("silent.bin")));
        QTRY_VERIFY_WITH_TIMEOUT(d.completions == 1, 60000);

        QCOMPARE(d.calls,
                 QStringList({QStringLiteral("restart -1"), QStringLiteral("complete 201")}));
        const QByteArrayList lines = log.lines();
        QCOMPARE(lines.mid(lines.indexOf("timeout !"), 3),
                 QByteArrayList({"timeout !", "restarting ...", "restart done!"}));
        QVERIFY(log.count("timeout !") > 1); // the wait for the answer saw ticks too
        QVERIFY(receivedWholeRequest(1, "silent.bin", path));
    }

    void redirectToHttpsUsesTlsOnPort443()
    {
        LoopbackHttpServer secure;
        if (!secure.listenOnLoopback(443))
            QSKIP("port 443 is not free; ctest runs this in a namespace of its own");
        QSslCertificate certificate;
        QSslKey key;
        QVERIFY2(LoopbackHttpServer::makeSelfSignedCertificate(&certificate, &key),
                 "openssl could not make a certificate");
        secure.useTls(certificate, key);
        secure.setResponse("HTTP/1.1 200 OK\r\n\r\n<account/>");
        server->setResponse("HTTP/1.1 302 Found\r\nLocation: https://127.0.0.1/api/a.xml\r\n\r\n");

        d.implemented = {QVStreamerCallback::HandleError, QVStreamerCallback::ResponseComplete};
        QVERIFY(s->getFromURL(server->baseUrl() + QStringLiteral("/api/account.xml"), true));
        QTRY_VERIFY_WITH_TIMEOUT(d.completions == 1, 20000);
        QCOMPARE(d.calls, QStringList{QStringLiteral("complete 200")});
        QCOMPARE(d.body, QByteArray("<account/>"));
        QCOMPARE(secure.received().value(0).data, "GET /api/a.xml HTTP/1.1\r\n" + kFields + kClose);
        QCOMPARE(s->targetURL(), QStringLiteral("https://127.0.0.1"));
    }

    void brokenConnectionEndsTheRequest_data()
    {
        QTest::addColumn<qint64>("closeAfter"); // -1: nothing listens
        QTest::newRow("refused") << qint64(-1);
        QTest::newRow("closed in the head") << qint64(40);
        QTest::newRow("closed in the body") << qint64(100000);
    }

    void brokenConnectionEndsTheRequest()
    {
        QFETCH(qint64, closeAfter);
        if (closeAfter < 0)
            server->close();
        server->setCloseAfter(closeAfter);
        QVERIFY(upload(makeFile(QStringLiteral("cut.bin"), {}, 8 << 20), QStringLiteral("c")));
        QTRY_VERIFY_WITH_TIMEOUT(s->isRequestFinished(), 20000);
        // Either a stream error or an end without a status: no answer either way.
        QVERIFY(d.calls.isEmpty() || d.calls == QStringList{QStringLiteral("complete 0")});
        QVERIFY(s->bytesSent() < s->requestSize());
        if (closeAfter < 0) {
            QCOMPARE(s->errorCode(), ECONNREFUSED);
            QCOMPARE(log.lines().value(0), QByteArray("Error with stream!"));
        }
    }

    void largeUploadKeepsMemoryFlat()
    {
        server->setRecordLimit(4096);
        server->setResponse("HTTP/1.1 201 Created\r\n\r\n");
        const QString path = makeFile(QStringLiteral("big.bin"), "big", qint64(256) << 20);

        // Reset the peak so that it measures the upload alone.
        QFile clear(QStringLiteral("/proc/self/clear_refs"));
        QVERIFY(clear.open(QIODevice::WriteOnly | QIODevice::Unbuffered) && clear.write("5") == 1);
        const qint64 before = statusKiB("VmRSS:");
        QVERIFY(before > 0);
        // Without a name of its own the file goes by its whole path.
        QVERIFY(s->uploadFile(path, server->baseUrl() + QStringLiteral("/api/assets"), false));
        QTRY_VERIFY_WITH_TIMEOUT(d.completions == 1, 240000);
        const qint64 peak = statusKiB("VmHWM:");
        qInfo("resident before %lld KiB, peak during upload %lld KiB (+%lld KiB)", before, peak,
              peak - before);

        QCOMPARE(d.calls, QStringList{QStringLiteral("complete 201")});
        QVERIFY(receivedWholeRequest(0, path.toUtf8(), path));
#ifdef __SANITIZE_ADDRESS__
        QSKIP("the address sanitizer keeps freed memory in quarantine; resident size says nothing");
#endif
        // Both ends run in this process; neither may hold the file.
        QVERIFY2(peak - before < 8 * 1024, "resident memory grew by more than 8 MiB");
    }

    void answerPast64MiBIsCutOff()
    {
        server->setResponse("HTTP/1.1 200 OK\r\n\r\n" + QByteArray(kMaxResponseBody + 1, 'z'));
        QVERIFY(s->getFromURL(server->baseUrl(), true));
        QTRY_VERIFY_WITH_TIMEOUT(s->isRequestFinished(), 60000);
        QCOMPARE(s->errorCode(), EFBIG);
        QVERIFY(d.calls.isEmpty()); // like any broken connection: no answer is delivered
    }
};

QTEST_GUILESS_MAIN(TestStreamerWire)
#include "tst_streamer_wire.moc"
