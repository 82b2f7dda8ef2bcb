// QVStreamer against a scripted stream pair: exact bytes, piece boundaries,
// partial writes, response handling, redirects, errors and time-outs.
#include "net/QVStreamer.h"
#include "support/FakeStreamPair.h"
#include "support/LogCapture.h"
#include "support/RecordingDelegate.h"

#include <QDir>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

namespace {

const QByteArray kBodyStartA =
    "--0xKhTmLbOuNdArY\r\n"
    "Content-Disposition: form-data; name=\"file\"; filename=\"a.txt\"\r\n"
    "Content-Type: application/octet-stream\r\n\r\n";
const QByteArray kBodyEnd = "\r\n--0xKhTmLbOuNdArY--\r\n";

} // namespace

class TestStreamer : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void exampleUploadIsByteExact();
    void wholePathIsTheDefaultFileName();
    void requestLineHostAndPort_data();
    void requestLineHostAndPort();
    void filePieces_data();
    void filePieces();
    void partialWritesResumeWhereTheyStopped();
    void partlyWrittenGetHeadClosesOutputAfterSecondPart();
    void partlyWrittenLastPieceSendsBodyEndTwice();
    void refusedWriteDropsThePiece();
    void targetURL_data();
    void targetURL();
    void entryOperationsRefuseBadInput();
    void unreadableFileStopsWithoutCallback();
    void streamErrorStopsWithoutCallback();
    void chunkedDecoding_data();
    void chunkedDecoding();
    void responseEnds_data();
    void responseEnds();
    void badChunkGivesErrorThenCompletion();
    void redirects_data();
    void redirects();
    void callbacksWithoutDelegateAreLogged();
    void silenceRestartsFromFirstByte();
    void silenceAfterEverythingSentOnlyWaits();
    void stopUploadSendsNoCallback();

private:
    /** @brief A streamer whose pairs are fakes sharing one wire per connection. */
    void attachFakes(QVStreamer &s);
    FakeStreamPair *pair() const { return pairs.last(); }
    FakeWire &wire() const { return *wires.last(); }
    QString makeFile(const QString &name, const QByteArray &content);
    void feedResponse(const QByteArray &bytes);

    QTemporaryDir dir;
    QList<QPointer<FakeStreamPair>> pairs;
    QList<std::shared_ptr<FakeWire>> wires;
    QList<qint64> nextAcceptPlan;
};

void TestStreamer::init()
{
    pairs.clear();
    wires.clear();
    nextAcceptPlan.clear();
}

void TestStreamer::attachFakes(QVStreamer &s)
{
    s.setStreamPairFactory([this] {
        auto w = std::make_shared<FakeWire>();
        w->acceptPlan = nextAcceptPlan;
        wires.append(w);
        auto *p = new FakeStreamPair(w);
        pairs.append(p);
        return p;
    });
}

QString TestStreamer::makeFile(const QString &name, const QByteArray &content)
{
    const QString path = dir.filePath(name);
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly) || f.write(content) != content.size())
        qFatal("cannot write %s", qPrintable(path));
    return path;
}

void TestStreamer::feedResponse(const QByteArray &bytes)
{
    wire().incoming += bytes;
    while (!wire().incoming.isEmpty())
        QVERIFY(pair()->fire(QVStreamSide::Input, QVStreamEvent::HasBytesAvailable));
    pair()->fire(QVStreamSide::Input, QVStreamEvent::EndEncountered);
}

void TestStreamer::exampleUploadIsByteExact()
{
    QVStreamer s;
    attachFakes(s);
    s.setUserName(QStringLiteral("u"));
    s.setPassword(QStringLiteral("p"));
    const QString path = makeFile(QStringLiteral("a.txt"), "hello");
    QVERIFY(s.uploadFile(path, QStringLiteral("a.txt"),
                         QStringLiteral("http://uploads.example:8080/api/assets"), false));
    QCOMPARE(wire().host, QStringLiteral("uploads.example"));
    QCOMPARE(wire().port, quint16(8080));
    QVERIFY(!wire().tls);

    pair()->fire(QVStreamSide::Input, QVStreamEvent::OpenCompleted);
    pair()->fire(QVStreamSide::Output, QVStreamEvent::OpenCompleted);
    QCOMPARE(pair()->drainOutput(), 2);

    const QByteArray head = "POST /api/assets HTTP/1.1\r\n"
                            "User-Agent: Hoplift!(0.2.1) mac\r\n"
                            "Authorization: Basic dTpw\r\n"
                            "Accept: application/xml\r\n"
                            "Content-Type: multipart/form-data; boundary=0xKhTmLbOuNdArY\r\n"
                            "Content-Length: 152\r\n"
                            "Connection: close\r\n"
                            "Host: uploads.example\r\n\r\n";
    QCOMPARE(kBodyStartA.size(), 124);
    QCOMPARE(wire().takes.value(0), head + kBodyStartA);
    QCOMPARE(wire().takes.value(1), QByteArray("hello") + kBodyEnd);
    QCOMPARE(wire().written, head + kBodyStartA + "hello" + kBodyEnd);
    QVERIFY(wire().outputClosed);
    QVERIFY(!wire().inputClosed);
    QCOMPARE(s.progressValue(), 1.0);
    QVERIFY(!s.isRequestFinished());
}

void TestStreamer::wholePathIsTheDefaultFileName()
{
    QVStreamer s;
    attachFakes(s);
    const QString path = makeFile(QStringLiteral("q\"uote.bin"), "x");
    QVERIFY(s.uploadFile(path, QStringLiteral("http://h/api/assets"), false));
    pair()->drainOutput();
    // The name goes in as it is: whole path, quote unescaped.
    QVERIFY(wire().written.contains("filename=\"" + path.toUtf8() + "\"\r\n"));
}

void TestStreamer::requestLineHostAndPort_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<QByteArray>("requestLine");
    QTest::addColumn<QByteArray>("hostLine");
    QTest::addColumn<int>("port");
    QTest::addColumn<bool>("tls");

    QTest::newRow("no path") << "http://h" << QByteArray("GET  HTTP/1.1") << QByteArray("Host: h")
                             << 80 << false;
    QTest::newRow("query and fragment dropped")
        << "http://h/a/b?q=1#f" << QByteArray("GET /a/b HTTP/1.1") << QByteArray("Host: h") << 80
        << false;
    QTest::newRow("port never in Host") << "http://h:8080/x" << QByteArray("GET /x HTTP/1.1")
                                        << QByteArray("Host: h") << 8080 << false;
    QTest::newRow("path decoded") << "http://h/a%20b" << QByteArray("GET /a b HTTP/1.1")
                                  << QByteArray("Host: h") << 80 << false;
    QTest::newRow("upper-case scheme is plain")
        << "HTTPS://h/x" << QByteArray("GET /x HTTP/1.1") << QByteArray("Host: h") << 80 << false;
    QTest::newRow("tls always on 443") << "https://h:8443/x" << QByteArray("GET /x HTTP/1.1")
                                       << QByteArray("Host: h") << 443 << true;
}

void TestStreamer::requestLineHostAndPort()
{
    QFETCH(QString, url);
    QFETCH(QByteArray, requestLine);
    QFETCH(QByteArray, hostLine);
    QFETCH(int, port);
    QFETCH(bool, tls);

    QVStreamer s;
    attachFakes(s);
    s.setUserName(QStringLiteral("u"));
    s.setPassword(QStringLiteral("p"));
    QVERIFY(s.getFromURL(url, true));
    QCOMPARE(wire().port, quint16(port));
    QCOMPARE(wire().tls, tls);
    QCOMPARE(pair()->drainOutput(), 1);
    const QByteArrayList lines = wire().written.split('\n');
    QCOMPARE(lines.first(), requestLine + '\r');
    QVERIFY(wire().written.endsWith("Connection: close\r\n" + hostLine + "\r\n\r\n"));
    QVERIFY(!wire().written.contains("Content-"));
    QCOMPARE(s.progressValue(), 0.0); // a GET has no body to show progress of
}

void TestStreamer::filePieces_data()
{
    QTest::addColumn<int>("fileSize");
    for (int size : {0, 1, 2047, 2048, 2049, 4096, 5000})
        QTest::addRow("%d bytes", size) << size;
}

void TestStreamer::filePieces()
{
    QFETCH(int, fileSize);
    QByteArray content(fileSize, Qt::Uninitialized);
    for (int i = 0; i < fileSize; ++i)
        content[i] = char(i * 7 + 3);
    QVStreamer s;
    attachFakes(s);
    QVERIFY(s.uploadFile(makeFile(QStringLiteral("f"), content), QStringLiteral("a.txt"),
                         QStringLiteral("http://h/api/assets"), false));
    pair()->drainOutput();

    // Head with body start; whole 2048-byte pieces; the tail with the body end
    // (the body end alone when the size is a multiple of 2048).
    QList<QByteArray> expected;
    expected << s.requestHead() + kBodyStartA;
    int at = 0;
    for (; at + 2048 <= fileSize; at += 2048)
        expected << content.mid(at, 2048);
    expected << content.mid(at) + kBodyEnd;
    QCOMPARE(wire().takes, expected);
    QVERIFY(s.requestHead().contains("Content-Length: " + QByteArray::number(124 + fileSize + 23) +
                                     "\r\n"));
    QCOMPARE(s.bytesSent(), s.requestSize());
    QVERIFY(wire().outputClosed);
}

void TestStreamer::partialWritesResumeWhereTheyStopped()
{
    const QByteArray content(5000, 'z');
    nextAcceptPlan = {100, 7, 2048, 1000, 1, 3000};
    QVStreamer s;
    attachFakes(s);
    QVERIFY(s.uploadFile(makeFile(QStringLiteral("f"), content), QStringLiteral("a.txt"),
                         QStringLiteral("http://h/api/assets"), false));
    // Progress follows what the socket took, head included.
    pair()->fire(QVStreamSide::Output, QVStreamEvent::HasSpaceAvailable);
    QCOMPARE(s.progressValue(), 100.0 / double(s.requestSize()));
    pair()->drainOutput();
    QCOMPARE(wire().written, s.requestHead() + kBodyStartA + content + kBodyEnd);
    QCOMPARE(wire().takes.value(1).size(), 7);
    QVERIFY(wire().outputClosed);
}

void TestStreamer::partlyWrittenGetHeadClosesOutputAfterSecondPart()
{
    nextAcceptPlan = {10};
    QVStreamer s;
    attachFakes(s);
    QVERIFY(s.getFromURL(QStringLiteral("http://h/api/user"), true));
    pair()->fire(QVStreamSide::Output, QVStreamEvent::HasSpaceAvailable);
    QVERIFY(!wire().outputClosed);
    pair()->fire(QVStreamSide::Output, QVStreamEvent::HasSpaceAvailable);
    QVERIFY(wire().outputClosed);
    QCOMPARE(wire().written, s.requestHead());
}

void TestStreamer::partlyWrittenLastPieceSendsBodyEndTwice()
{
    // Head, then the 5-byte tail with the body end, of which only 3 bytes go out.
    nextAcceptPlan = {1000000, 3};
    QVStreamer s;
    attachFakes(s);
    QVERIFY(s.uploadFile(makeFile(QStringLiteral("f"), "hello"), QStringLiteral("a.txt"),
                         QStringLiteral("http://h/api/assets"), false));
    pair()->fire(QVStreamSide::Output, QVStreamEvent::HasSpaceAvailable);
    pair()->fire(QVStreamSide::Output, QVStreamEvent::HasSpaceAvailable);
    pair()->fire(QVStreamSide::Output, QVStreamEvent::HasSpaceAvailable); // the rest
    QVERIFY(!wire().outputClosed);
    pair()->fire(QVStreamSide::Output, QVStreamEvent::HasSpaceAvailable); // body end again
    QVERIFY(wire().outputClosed);
    QCOMPARE(wire().written, s.requestHead() + kBodyStartA + "hello" + kBodyEnd + kBodyEnd);
    QVERIFY(s.progressValue() > 1.0);
}

void TestStreamer::refusedWriteDropsThePiece()
{
    LogCapture log;
    nextAcceptPlan = {1000000, 0};
    QVStreamer s;
    attachFakes(s);
    QVERIFY(s.uploadFile(makeFile(QStringLiteral("f"), QByteArray(3000, 'q')),
                         QStringLiteral("a.txt"), QStringLiteral("http://h/api/assets"), false));
    pair()->drainOutput();
    QCOMPARE(log.count("write error !!"), 1);
    QCOMPARE(wire().written, s.requestHead() + kBodyStartA + QByteArray(952, 'q') + kBodyEnd);
}

void TestStreamer::targetURL_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("before");
    QTest::addColumn<QString>("after");
    QTest::newRow("plain") << "http://h/x"
                           << "http://h"
                           << "http://h";
    QTest::newRow("plain, port 80") << "http://h:80/x"
                                    << "http://h"
                                    << "http://h";
    QTest::newRow("plain, other port") << "http://h:8080/x"
                                       << "http://h"
                                       << "http://h:8080";
    QTest::newRow("tls") << "https://h/x"
                         << "https://h"
                         << "https://h";
    QTest::newRow("tls, port 443") << "https://h:443/x"
                                   << "https://h"
                                   << "https://h";
    QTest::newRow("tls, other port shows http") << "https://h:8443/x"
                                                << "https://h"
                                                << "http://h:8443";
}

void TestStreamer::targetURL()
{
    QFETCH(QString, url);
    QFETCH(QString, before);
    QFETCH(QString, after);
    QVStreamer s;
    attachFakes(s);
    QVERIFY(s.setTargetURL(url, url.startsWith(QLatin1String("https:"))));
    QCOMPARE(s.targetURL(), before);
    QVERIFY(s.getFromURL(url, true));
    QCOMPARE(s.targetURL(), after);
}

void TestStreamer::entryOperationsRefuseBadInput()
{
    LogCapture log;
    QVStreamer s;
    attachFakes(s);
    QVERIFY(!s.getFromURL(QStringLiteral("http://bad host/"), true));
    QCOMPARE(s.errorMessage(), QStringLiteral("Invalid URL"));
    QCOMPARE(log.count("http://bad host/ is not a valid URL"), 1);
    QVERIFY(!s.uploadFile(dir.filePath(QStringLiteral("missing")), QStringLiteral("http://h/a"),
                          false));
    QCOMPARE(s.errorMessage(), QStringLiteral("File not found!"));
    QVERIFY(pairs.isEmpty());
}

void TestStreamer::unreadableFileStopsWithoutCallback()
{
    LogCapture log;
    RecordingDelegate d;
    QVStreamer s;
    s.setDelegate(&d);
    attachFakes(s);
    // A directory exists but cannot be read as a file.
    QVERIFY(s.uploadFile(dir.path(), QStringLiteral("http://h/a"), false));
    pair()->drainOutput();
    QCOMPARE(log.count("error reading file"), 1);
    QVERIFY(s.isRequestFinished());
    QCOMPARE(s.errorCode(), -1);
    QCOMPARE(s.errorMessage(), QStringLiteral("Error reading file"));
    QVERIFY(d.calls.isEmpty());
    QVERIFY(wire().released);
}

void TestStreamer::streamErrorStopsWithoutCallback()
{
    LogCapture log;
    RecordingDelegate d;
    QVStreamer s;
    s.setDelegate(&d);
    attachFakes(s);
    QVERIFY(s.getFromURL(QStringLiteral("http://h/a"), true));
    wire().errorCode = 111;
    wire().errorString = QStringLiteral("Connection refused");
    pair()->fire(QVStreamSide::Input, QVStreamEvent::ErrorOccurred);
    QCOMPARE(log.lines(), QByteArrayList({"Error with stream!", "Error 111: Connection refused"}));
    QVERIFY(s.isRequestFinished());
    QCOMPARE(s.errorCode(), 111);
    QVERIFY(d.calls.isEmpty());
}

void TestStreamer::chunkedDecoding_data()
{
    QTest::addColumn<QByteArray>("raw");
    QTest::addColumn<QByteArray>("decoded");
    QTest::addColumn<bool>("error");

    QTest::newRow("two chunks") << QByteArray("5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n")
                                << QByteArray("hello world") << false;
    QTest::newRow("extension ignored")
        << QByteArray("1a;x=y\r\n") + QByteArray(26, 'k') + "\r\n0\r\n\r\n"
        << QByteArray(26, 'k') << false;
    QTest::newRow("upper-case hex")
        << QByteArray("A\r\n0123456789\r\n0\r\n\r\n") << QByteArray("0123456789") << false;
    QTest::newRow("leading blanks")
        << QByteArray("  3\r\nabc\r\n0\r\n\r\n") << QByteArray("abc") << false;
    // A bare LF ends the line one byte early: the first data byte is skipped and
    // the byte after the chunk is taken.
    QTest::newRow("bare lf shifts")
        << QByteArray("3\nabcX\r\n0\r\n\r\n") << QByteArray("bcX") << false;
    QTest::newRow("size past the end") << QByteArray("ff\r\nshort") << QByteArray("short") << false;
    QTest::newRow("huge size") << QByteArray("ffffffffff\r\nab") << QByteArray("ab") << false;
    QTest::newRow("size line never ends") << QByteArray("5") << QByteArray() << false;
    QTest::newRow("after zero, more chunks")
        << QByteArray("0\r\n\r\n2\r\nhi\r\n") << QByteArray("hi") << false;
    QTest::newRow("empty") << QByteArray() << QByteArray() << false;
    QTest::newRow("bad size line")
        << QByteArray("2\r\nok\r\nzz\r\nnope\r\n") << QByteArray("ok") << true;
    QTest::newRow("trailer is a bad size line")
        << QByteArray("2\r\nok\r\n0\r\nX-T: 1\r\n\r\n") << QByteArray("ok") << true;
}

void TestStreamer::chunkedDecoding()
{
    QFETCH(QByteArray, raw);
    QFETCH(QByteArray, decoded);
    QFETCH(bool, error);
    RecordingDelegate d;
    QVStreamer s;
    s.setDelegate(&d);
    // Decoding a detached copy at every length proves no byte past the end is read
    // (the sanitizer build checks the rest).
    for (qsizetype n = 0; n < raw.size(); ++n) {
        QByteArray prefix(raw.constData(), n);
        QByteArray partial;
        s.processChunkedData(prefix, partial);
    }
    d.calls.clear();
    QByteArray result = "stale";
    s.processChunkedData(raw, result);
    QCOMPARE(result, decoded);
    QCOMPARE(d.calls,
             error ? QStringList{QStringLiteral("error Chunked message error -1")} : QStringList{});
}

void TestStreamer::responseEnds_data()
{
    QTest::addColumn<QByteArray>("response");
    QTest::addColumn<QStringList>("calls");
    QTest::addColumn<QByteArray>("body");

    QTest::newRow("ok") << QByteArray("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nhi")
                        << QStringList{QStringLiteral("complete 200")} << QByteArray("hi");
    QTest::newRow("length header not consulted")
        << QByteArray("HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\nhello")
        << QStringList{QStringLiteral("complete 200")} << QByteArray("hello");
    QTest::newRow("error status completes")
        << QByteArray("HTTP/1.1 413 Too Large\r\n\r\nno")
        << QStringList{QStringLiteral("complete 413")} << QByteArray("no");
    QTest::newRow("chunked") << QByteArray("HTTP/1.1 201 C\r\nTransfer-Encoding: CHUNKED\r\n\r\n"
                                           "3\r\nabc\r\n0\r\n\r\n")
                             << QStringList{QStringLiteral("complete 201")} << QByteArray("abc");
    QTest::newRow("other encoding stays raw")
        << QByteArray("HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip, chunked\r\n\r\n3\r\nabc")
        << QStringList{QStringLiteral("complete 200")} << QByteArray("3\r\nabc");
    QTest::newRow("no body") << QByteArray("HTTP/1.1 204 No Content\r\n\r\n")
                             << QStringList{QStringLiteral("complete 204")} << QByteArray();
    QTest::newRow("closed before status")
        << QByteArray() << QStringList{QStringLiteral("complete 0")} << QByteArray();
    QTest::newRow("redirect") << QByteArray("HTTP/1.1 302 Found\r\nLocation: http://o/p\r\n\r\n")
                              << QStringList{QStringLiteral("redirect http://o/p -1")}
                              << QByteArray();
    QTest::newRow("redirect without location")
        << QByteArray("HTTP/1.1 301 Moved\r\n\r\n")
        << QStringList{QStringLiteral("redirect <none> -1")} << QByteArray();
}

void TestStreamer::responseEnds()
{
    QFETCH(QByteArray, response);
    QFETCH(QStringList, calls);
    QFETCH(QByteArray, body);
    RecordingDelegate d;
    QVStreamer s;
    s.setDelegate(&d);
    attachFakes(s);
    QVERIFY(s.getFromURL(QStringLiteral("http://h/api/account.xml"), true));
    pair()->drainOutput();
    feedResponse(response);
    QCOMPARE(d.calls, calls);
    QCOMPARE(d.body, body);
    const bool redirect = calls.first().startsWith(QLatin1String("redirect"));
    // A redirect leaves the request open for the receiver to decide.
    QCOMPARE(s.isRequestFinished(), !redirect);
    QCOMPARE(wire().inputClosed, !redirect);
}

void TestStreamer::badChunkGivesErrorThenCompletion()
{
    RecordingDelegate d;
    QVStreamer s;
    s.setDelegate(&d);
    attachFakes(s);
    QVERIFY(s.getFromURL(QStringLiteral("http://h/x"), true));
    pair()->drainOutput();
    feedResponse("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nok\r\nqq\r\n");
    QCOMPARE(d.calls, QStringList({QStringLiteral("error Chunked message error -1"),
                                   QStringLiteral("complete 200")}));
    QCOMPARE(d.body, QByteArray("ok"));
    QVERIFY(s.isRequestFinished());
}

void TestStreamer::redirects_data()
{
    QTest::addColumn<bool>("autoRedirect");
    QTest::addColumn<QByteArray>("location");
    QTest::addColumn<QStringList>("calls");
    QTest::addColumn<int>("connections");

    QTest::newRow("refused without auto-redirect")
        << false << QByteArray("http://o/p")
        << QStringList{QStringLiteral("error Redirect failed -1")} << 1;
    QTest::newRow("followed") << true << QByteArray("https://o:8443/p?q")
                              << QStringList{QStringLiteral("complete 200")} << 2;
    QTest::newRow("no location fails")
        << true << QByteArray() << QStringList{QStringLiteral("error Redirect failed -1")} << 1;
}

void TestStreamer::redirects()
{
    QFETCH(bool, autoRedirect);
    QFETCH(QByteArray, location);
    QFETCH(QStringList, calls);
    QFETCH(int, connections);
    // No redirect callback: the engine decides.
    RecordingDelegate d({QVStreamerCallback::HandleError, QVStreamerCallback::ResponseComplete});
    QVStreamer s;
    s.setDelegate(&d);
    attachFakes(s);
    s.setUserName(QStringLiteral("u"));
    s.setPassword(QStringLiteral("p"));
    QVERIFY(s.getFromURL(QStringLiteral("http://h/first"), autoRedirect));
    pair()->drainOutput();
    feedResponse("HTTP/1.1 302 Found\r\n" +
                 (location.isEmpty() ? QByteArray() : "Location: " + location + "\r\n") + "\r\n");
    QCOMPARE(pairs.size(), connections);
    if (connections == 2) {
        QVERIFY(wires.first()->released);
        QCOMPARE(wire().host, QStringLiteral("o"));
        QCOMPARE(wire().port, quint16(443));
        QVERIFY(wire().tls);
        pair()->drainOutput();
        QVERIFY(wire().written.startsWith("GET /p HTTP/1.1\r\n"));
        QVERIFY(wire().written.contains("Authorization: Basic dTpw\r\n"));
        feedResponse("HTTP/1.1 200 OK\r\n\r\n");
    }
    QCOMPARE(d.calls, calls);
    QVERIFY(s.isRequestFinished());
}

void TestStreamer::callbacksWithoutDelegateAreLogged()
{
    LogCapture log;
    QVStreamer s;
    attachFakes(s);
    QVERIFY(s.getFromURL(QStringLiteral("http://h/x"), false));
    pair()->drainOutput();
    feedResponse("HTTP/1.1 404 Not Found\r\n\r\nnone here");
    QVERIFY(s.getFromURL(QStringLiteral("http://h/y"), false));
    pair()->drainOutput();
    feedResponse("HTTP/1.1 302 Found\r\nLocation: /z\r\n\r\n");
    const QByteArrayList lines = log.lines();
    QCOMPARE(lines.value(0), QByteArray("Response-Code (404):\nnone here"));
    QVERIFY(lines.value(1).startsWith("Header "));
    QVERIFY(lines.value(1).contains("/z"));
    QCOMPARE(lines.value(2), QByteArray("Error:Redirect failed - -1"));
}

void TestStreamer::silenceRestartsFromFirstByte()
{
    LogCapture log;
    RecordingDelegate d;
    QVStreamer s;
    s.setDelegate(&d);
    s.setTimeOut(0.05);
    attachFakes(s);
    QVERIFY(s.uploadFile(makeFile(QStringLiteral("f"), QByteArray(5000, 'r')),
                         QStringLiteral("a.txt"), QStringLiteral("http://h/api/assets"), false));
    pair()->fire(QVStreamSide::Output, QVStreamEvent::HasSpaceAvailable);
    QVERIFY(s.bytesSent() > 0);
    // No further event: the next tick clears the mark, the one after restarts.
    QTRY_COMPARE_WITH_TIMEOUT(pairs.size(), 2, 5000);
    QCOMPARE(log.lines(), QByteArrayList({"timeout !", "restarting ...", "restart done!"}));
    QCOMPARE(d.calls, QStringList{QStringLiteral("restart -1")});
    QVERIFY(wires.first()->released);
    QVERIFY(!s.isRequestFinished());
    QCOMPARE(s.bytesSent(), quint64(0));
    // The stalled pair's late events never reach the new request.
    QVERIFY(!pairs.first() ||
            !pairs.first()->fire(QVStreamSide::Input, QVStreamEvent::EndEncountered));
    // It goes on restarting as long as the silence recurs, from the first byte each time.
    QTRY_VERIFY_WITH_TIMEOUT(d.restarts >= 3, 5000);
    QCOMPARE(pair()->drainOutput(), 4);
    QCOMPARE(wire().written, wires.first()->takes.first() + QByteArray(5000, 'r') + kBodyEnd);
    QCOMPARE(d.completions, 0);
}

void TestStreamer::silenceAfterEverythingSentOnlyWaits()
{
    LogCapture log;
    RecordingDelegate d;
    QVStreamer s;
    s.setDelegate(&d);
    s.setTimeOut(0.03);
    attachFakes(s);
    QVERIFY(s.uploadFile(makeFile(QStringLiteral("f"), "abc"), QStringLiteral("a.txt"),
                         QStringLiteral("http://h/api/assets"), false));
    pair()->drainOutput();
    QTRY_VERIFY_WITH_TIMEOUT(log.count("timeout !") >= 3, 5000);
    QCOMPARE(log.count("restarting ..."), 0);
    QCOMPARE(pairs.size(), 1);
    feedResponse("HTTP/1.1 201 Created\r\n\r\n");
    QCOMPARE(d.calls, QStringList{QStringLiteral("complete 201")});
}

void TestStreamer::stopUploadSendsNoCallback()
{
    RecordingDelegate d;
    QVStreamer s;
    s.setDelegate(&d);
    s.setTimeOut(0.02);
    attachFakes(s);
    QVERIFY(s.uploadFile(makeFile(QStringLiteral("f"), QByteArray(9000, 's')),
                         QStringLiteral("a.txt"), QStringLiteral("http://h/api/assets"), false));
    pair()->fire(QVStreamSide::Output, QVStreamEvent::HasSpaceAvailable);
    s.stopUpload();
    QVERIFY(s.isRequestFinished());
    QVERIFY(wire().released);
    QTest::qWait(100); // several ticks: the timer went with the request
    QVERIFY(d.calls.isEmpty());
    QCOMPARE(pairs.size(), 1);
}

QTEST_GUILESS_MAIN(TestStreamer)
#include "tst_streamer.moc"
