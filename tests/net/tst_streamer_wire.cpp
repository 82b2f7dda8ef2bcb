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

using namespace Qt::StringLiterals;

namespace {
QByteArray bodyStartFor(const QString &name)
{
    return "--0xKhTmLbOuNdArY\r\nContent-Disposition: form-data; name=\"file\"; filename=\"" +
           name.toUtf8() + "\"\r\nContent-Type: application/octet-stream\r\n\r\n";
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
    /** @brief Uploads a file of content grown with zeros to size bytes, as name or by its path. */
    bool upload(const QString &name, const QByteArray &content, qint64 size, bool byPath = false)
    {
        QFile f(dir.filePath(name));
        const QString url = server->baseUrl() + u"/api/assets"_s;
        return f.open(QIODevice::WriteOnly) && f.write(content) == content.size() &&
               f.resize(size) &&
               (byPath ? s->uploadFile(f.fileName(), url, false)
                       : s->uploadFile(f.fileName(), name, url, false));
    }

    /** @brief Whether the server's connection got exactly the request that upload() made. */
    bool receivedWholeRequest(int connection, const QString &name, bool byPath = false)
    {
        QFile f(dir.filePath(name));
        QCryptographicHash h(QCryptographicHash::Sha256);
        h.addData(s->requestHead() + bodyStartFor(byPath ? f.fileName() : name));
        const bool read = f.open(QIODevice::ReadOnly) && h.addData(&f);
        h.addData(kBodyEnd);
        return read && server->received().value(connection).sha256 == h.result();
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
        s->setUserName(u"u"_s);
        s->setPassword(u"p"_s);
        server = std::make_unique<LoopbackHttpServer>();
        QVERIFY(server->listenOnLoopback());
    }

    void exampleUploadThenPathlessGetAreByteExact()
    {
        server->setResponse("HTTP/1.1 201 Created\r\nContent-Type: application/xml\r\n\r\n<a/>");
        QVERIFY(upload(u"a.txt"_s, "hello", 5));
        QTRY_COMPARE(d.calls, QStringList{u"complete 201"_s});
        QCOMPARE(d.body, "<a/>"_ba);
        QCOMPARE(server->received().value(0).data,
                 "POST /api/assets HTTP/1.1\r\n" + kFields +
                     "Content-Type: multipart/form-data; boundary=0xKhTmLbOuNdArY\r\n"
                     "Content-Length: 152\r\n" +
                     kClose + bodyStartFor(u"a.txt"_s) + "hello" + kBodyEnd);
        // The same engine then asks without a path; nothing of the upload stays in the head.
        QVERIFY(s->getFromURL(server->baseUrl(), true));
        QTRY_COMPARE(server->received().value(1).data, "GET  HTTP/1.1\r\n" + kFields + kClose);
    }

    void silentServerGetsRequestAgainFromFirstByteThenAnswerIsAwaited()
    {
        server->setSilentAfter(64 * 1024); // the first connection only
        server->setResponseDelay(1500);    // several ticks after the second one took everything
        server->setResponse("HTTP/1.1 201 Created\r\n\r\nlate");
        s->setTimeOut(0.3);
        // Larger than the loopback socket buffers, so the silent server stalls the upload.
        QVERIFY(upload(u"silent.bin"_s, "silent", 48 << 20));
        QTRY_COMPARE_WITH_TIMEOUT(d.calls.join(u'|'), u"restart -1|complete 201"_s, 60000);
        const QByteArrayList lines = log.lines();
        QCOMPARE(lines.mid(lines.indexOf("timeout !"), 3),
                 QByteArrayList({"timeout !", "restarting ...", "restart done!"}));
        QVERIFY(log.count("timeout !") > 1); // the wait for the answer saw ticks too
        QVERIFY(receivedWholeRequest(1, u"silent.bin"_s));
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
        QVERIFY(s->getFromURL(server->baseUrl() + u"/api/account.xml"_s, true));
        QTRY_COMPARE_WITH_TIMEOUT(d.calls, QStringList{u"complete 200"_s}, 20000);
        QCOMPARE(d.body, "<account/>"_ba);
        QCOMPARE(secure.received().value(0).data, "GET /api/a.xml HTTP/1.1\r\n" + kFields + kClose);
        QCOMPARE(s->targetURL(), u"https://127.0.0.1"_s);
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
        QVERIFY(upload(u"cut.bin"_s, {}, 8 << 20));
        QTRY_VERIFY_WITH_TIMEOUT(s->isRequestFinished(), 20000);
        // Either a stream error or an end without a status: no answer either way.
        QVERIFY(d.calls.isEmpty() || d.calls == QStringList{u"complete 0"_s});
        QVERIFY(s->bytesSent() < s->requestSize());
        if (closeAfter < 0)
            QCOMPARE(log.lines().value(0), "Error with stream!"_ba);
    }

    void largeUploadKeepsMemoryFlat()
    {
        server->setRecordLimit(4096);
        server->setResponse("HTTP/1.1 201 Created\r\n\r\n");
        // Reset the peak so that it measures the upload alone.
        QFile clear(u"/proc/self/clear_refs"_s);
        QVERIFY(clear.open(QIODevice::WriteOnly | QIODevice::Unbuffered) && clear.write("5") == 1);
        const qint64 before = statusKiB("VmRSS:");
        QVERIFY(before > 0);
        // Without a name of its own the file goes by its whole path.
        QVERIFY(upload(u"big.bin"_s, "big", qint64(256) << 20, true));
        QTRY_COMPARE_WITH_TIMEOUT(d.calls, QStringList{u"complete 201"_s}, 240000);
        const qint64 rise = statusKiB("VmHWM:") - before;
        qInfo("resident memory rose by %lld KiB during the upload", rise);
        QVERIFY(receivedWholeRequest(0, u"big.bin"_s, true));
#ifdef __SANITIZE_ADDRESS__
        QSKIP("the address sanitizer keeps freed memory in quarantine; resident size says nothing");
#endif
        // Both ends run in this process; neither may hold the file.
        QVERIFY2(rise < 8 * 1024, "resident memory rose by more than 8 MiB");
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
