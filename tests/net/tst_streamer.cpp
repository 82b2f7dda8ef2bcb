// QVStreamer against a scripted stream pair whose every event the test fires.
#include "net/QVStreamer.h"
#include "support/FakeStreamPair.h"
#include "support/LogCapture.h"
#include "support/RecordingDelegate.h"

#include <QTemporaryDir>
#include <QTest>

namespace {

const QByteArray kBodyStartA =
    "--0xKhTmLbOuNdArY\r\n"
    "Content-Disposition: form-data; name=\"file\"; filename=\"a.txt\"\r\n"
    "Content-Type: application/octet-stream\r\n\r\n";
const QByteArray kBodyEnd = "\r\n--0xKhTmLbOuNdArY--\r\n";

/** @brief n bytes in which no 2048-byte piece repeats its neighbours. */
QByteArray pattern(int n)
{
    return QByteArray("0123456789abcdefghijklmnopqrstuvwxyz").repeated(n / 36 + 1).left(n);
}

} // namespace

class TestStreamer : public QObject
{
    Q_OBJECT
private:
    FakeStreamPair *pair() const { return pairs.last(); }
    FakeWire &wire() const { return *wires.last(); }

    /** @brief Starts uploading content as "a.txt" to http://h/api/assets. */
    bool startUpload(const QByteArray &content)
    {
        QFile f(dir.filePath(QStringLiteral("f")));
        return f.open(QIODevice::WriteOnly) && f.write(content) == content.size() && f.flush() &&
               s->uploadFile(f.fileName(), QStringLiteral("a.txt"),
                             QStringLiteral("http://h/api/assets"), false);
    }

    /** @brief Sends a GET, takes its head, and hands the engine the answer. */
    void getAndAnswer(const QString &url, bool autoRedirect, const QByteArray &answer)
    {
        QVERIFY(s->getFromURL(url, autoRedirect));
        pair()->drainOutput();
        wire().incoming += answer;
        while (!wire().incoming.isEmpty())
            QVERIFY(pair()->fire(QVStreamSide::Input, QVStreamEvent::HasBytesAvailable));
        pair()->fire(QVStreamSide::Input, QVStreamEvent::EndEncountered);
    }

    QTemporaryDir dir;
    LogCapture log;
    RecordingDelegate d;
    std::unique_ptr<QVStreamer> s;
    QList<QPointer<FakeStreamPair>> pairs;
    QList<std::shared_ptr<FakeWire>> wires;

private Q_SLOTS:
    void init()
    {
        pairs.clear();
        wires.clear();
        log.clear();
        d = RecordingDelegate();
        s = std::make_unique<QVStreamer>();
        s->setDelegate(&d);
        s->setStreamPairFactory([this] {
            wires.append(std::make_shared<FakeWire>());
            pairs.append(new FakeStreamPair(wires.last()));
            return pairs.last().data();
        });
    }

    void getHeadIsByteExact_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<QByteArray>("requestLine");
        QTest::addColumn<int>("port");
        QTest::addColumn<bool>("tls");
        QTest::addColumn<QString>("target");

        QTest::newRow("no path") << "http://h" << QByteArray("GET  HTTP/1.1") << 80 << false
                                 << "http://h";
        QTest::newRow("path decoded, query and fragment dropped")
            << "http://h:80/a%20b?q=1#f" << QByteArray("GET /a b HTTP/1.1") << 80 << false
            << "http://h";
        QTest::newRow("port never in Host") << "http://h:8080/x" << QByteArray("GET /x HTTP/1.1")
                                            << 8080 << false << "http://h:8080";
        QTest::newRow("upper-case scheme is plain")
            << "HTTPS://h/x" << QByteArray("GET /x HTTP/1.1") << 80 << false << "http://h";
        QTest::newRow("tls always on 443, shown with its own port")
            << "https://h:8443/x" << QByteArray("GET /x HTTP/1.1") << 443 << true
            << "http://h:8443";
    }

    void getHeadIsByteExact()
    {
        QFETCH(QString, url);
        QFETCH(QByteArray, requestLine);
        QFETCH(int, port);
        QFETCH(bool, tls);
        QFETCH(QString, target);
        s->setUserName(QStringLiteral("u"));
        s->setPassword(QStringLiteral("p"));
        QVERIFY(s->getFromURL(url, true));
        QCOMPARE(wire().host, QStringLiteral("h"));
        QCOMPARE(wire().port, quint16(port));
        QCOMPARE(wire().tls, tls);
        QCOMPARE(pair()->drainOutput(), 1);
        QCOMPARE(wire().written, requestLine + "\r\nUser-Agent: Hoplift!(0.2.1) mac\r\n"
                                               "Authorization: Basic dTpw\r\n"
                                               "Accept: application/xml\r\n"
                                               "Connection: close\r\nHost: h\r\n\r\n");
        QCOMPARE(s->targetURL(), target);
    }

    void piecesAndPartialWrites_data()
    {
        QTest::addColumn<QList<qint64>>("plan"); // bytes the socket takes per write; none: all
        QTest::addColumn<int>("fileSize");       // -1: a GET
        QTest::addColumn<int>("events");         // space events until the output closes
        QTest::addColumn<QByteArray>("afterHead");

        // One 2048-byte piece per event; the tail carries the body end.
        for (int size : {0, 2047, 2048, 5000}) {
            QTest::addRow("%d bytes", size) << QList<qint64>() << size << 2 + size / 2048
                                            << kBodyStartA + pattern(size) + kBodyEnd;
        }
        QTest::newRow("each piece resumes where the socket stopped")
            << QList<qint64>{100, 7, 2048, 1000, 1, 3000} << 5000 << 8
            << kBodyStartA + pattern(5000) + kBodyEnd;
        QTest::newRow("GET head in two parts") << QList<qint64>{10} << -1 << 2 << QByteArray();
        QTest::newRow("cut last piece sends its body end twice")
            << QList<qint64>{1000000, 3} << 5 << 4
            << kBodyStartA + pattern(5) + kBodyEnd + kBodyEnd;
        QTest::newRow("refused piece is dropped")
            << QList<qint64>{1000000, 0} << 3000 << 3
            << kBodyStartA + pattern(3000).mid(2048) + kBodyEnd;
    }

    void piecesAndPartialWrites()
    {
        QFETCH(QList<qint64>, plan);
        QFETCH(int, fileSize);
        QFETCH(int, events);
        QFETCH(QByteArray, afterHead);
        if (fileSize < 0)
            QVERIFY(s->getFromURL(QStringLiteral("http://h/api/user"), true));
        else
            QVERIFY(startUpload(pattern(fileSize)));
        wire().acceptPlan = plan;
        QCOMPARE(pair()->drainOutput(), events);
        QCOMPARE(wire().written, s->requestHead() + afterHead);
        QCOMPARE(log.count("write error !!"), int(plan.count(0)));
        // Progress follows what the socket took, head included.
        QCOMPARE(s->progressValue(),
                 fileSize < 0 ? 0.0 : double(wire().written.size()) / double(s->requestSize()));
        QVERIFY(!wire().inputClosed); // the answer is still to come
    }

    void unsendableRequestsStopWithoutCallback()
    {
        QVERIFY(!s->getFromURL(QStringLiteral("http://bad host/"), true));
        QCOMPARE(s->errorMessage(), QStringLiteral("Invalid URL"));
        QVERIFY(!s->uploadFile(dir.filePath(QStringLiteral("missing")),
                               QStringLiteral("http://h/a"), false));
        QCOMPARE(s->errorMessage(), QStringLiteral("File not found!"));
        QVERIFY(pairs.isEmpty());
        // A folder exists but cannot be read as a file.
        QVERIFY(s->uploadFile(dir.path(), QStringLiteral("http://h/a"), false));
        pair()->drainOutput();
        QCOMPARE(log.lines(),
                 QByteArrayList({"http://bad host/ is not a valid URL", "error reading file"}));
        QVERIFY(s->isRequestFinished());
        QVERIFY(d.calls.isEmpty());
        QVERIFY(wire().released);
    }

    void answerEndsInTheRightCallbacks_data()
    {
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<QString>("calls");
        QTest::addColumn<QByteArray>("body");
        const QByteArray chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: CHUNKED\r\n\r\n";

        QTest::newRow("answer cut short is taken as it came")
            << QByteArray("HTTP/1.1 201 Created\r\nContent-Length: 100\r\n\r\n<asset>")
            << "complete 201" << QByteArray("<asset>");
        QTest::newRow("error status completes")
            << QByteArray("HTTP/1.1 413 Too Large\r\n\r\nno") << "complete 413" << QByteArray("no");
        QTest::newRow("closed before status") << QByteArray() << "complete 0" << QByteArray();
        QTest::newRow("other encoding stays raw")
            << QByteArray("HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip, chunked\r\n\r\n3\r\nabc")
            << "complete 200" << QByteArray("3\r\nabc");
        QTest::newRow("chunked over several reads")
            << chunked + "a00\r\n" + pattern(2560) + "\r\n0\r\n\r\n"
            << "complete 200" << pattern(2560);
        QTest::newRow("chunk extension, upper-case hex, leading blanks")
            << chunked + "5;x=y\r\nhello\r\n  A\r\n 01234567!\r\n0\r\n\r\n"
            << "complete 200" << QByteArray("hello 01234567!");
        // A bare LF ends a size line one byte early, so its chunk starts one byte late.
        QTest::newRow("bare lf shifts the chunk") << chunked + "3\nabcX\r\n0\r\n\r\n"
                                                  << "complete 200" << QByteArray("bcX");
        QTest::newRow("chunk size past the end") << chunked + "ff\r\nshort"
                                                 << "complete 200" << QByteArray("short");
        QTest::newRow("chunk size past 32 bits") << chunked + "ffffffffff\r\nab"
                                                 << "complete 200" << QByteArray("ab");
        QTest::newRow("chunks after the zero chunk") << chunked + "0\r\n\r\n2\r\nhi\r\n"
                                                     << "complete 200" << QByteArray("hi");
        QTest::newRow("bad chunk size: error, then completion")
            << chunked + "2\r\nok\r\nzz\r\nnope\r\n"
            << "error Chunked message error -1|complete 200" << QByteArray("ok");
        QTest::newRow("trailer is a bad chunk size")
            << chunked + "2\r\nok\r\n0\r\nX-T: 1\r\n\r\n"
            << "error Chunked message error -1|complete 200" << QByteArray("ok");
        QTest::newRow("redirect") << QByteArray(
                                         "HTTP/1.1 302 Found\r\nLocation: http://o/p\r\n\r\n")
                                  << "redirect http://o/p -1" << QByteArray();
        QTest::newRow("redirect without location")
            << QByteArray("HTTP/1.1 301 Moved\r\n\r\n") << "redirect <none> -1" << QByteArray();
    }

    void answerEndsInTheRightCallbacks()
    {
        QFETCH(QByteArray, answer);
        QFETCH(QString, calls);
        QFETCH(QByteArray, body);
        getAndAnswer(QStringLiteral("http://h/api/account.xml"), true, answer);
        QCOMPARE(d.calls.join(QLatin1Char('|')), calls);
        QCOMPARE(d.body, body);
        // A redirect leaves the request open for the receiver to decide.
        const bool redirect = calls.startsWith(QLatin1String("redirect"));
        QCOMPARE(s->isRequestFinished(), !redirect);
        QCOMPARE(wire().inputClosed, !redirect);
    }

    void redirectTheEngineCannotFollowFails()
    {
        const QByteArray found = "HTTP/1.1 302 Found\r\nLocation: http://o/p\r\n\r\n";
        d.implemented = {QVStreamerCallback::HandleError, QVStreamerCallback::ResponseComplete};
        getAndAnswer(QStringLiteral("http://h/x"), false, found);
        getAndAnswer(QStringLiteral("http://h/y"), true, "HTTP/1.1 302 Found\r\n\r\n");
        QCOMPARE(d.calls, QStringList(2, QStringLiteral("error Redirect failed -1")));
        QCOMPARE(pairs.size(), 2);
        // Without a delegate the outcomes go to the log.
        s->setDelegate(nullptr);
        log.clear();
        getAndAnswer(QStringLiteral("http://h/x"), false, found);
        getAndAnswer(QStringLiteral("http://h/y"), false, "HTTP/1.1 404 No\r\n\r\nnone here");
        QCOMPARE(log.lines(),
                 QByteArrayList({"Header {\n    Location = \"http://o/p\";\n}",
                                 "Error:Redirect failed - -1", "Response-Code (404):\nnone here"}));
    }

    void stoppedUploadNeverCallsBackOrRestarts()
    {
        s->setTimeOut(0.02);
        QVERIFY(startUpload(pattern(9000)));
        pair()->fire(QVStreamSide::Output, QVStreamEvent::HasSpaceAvailable);
        s->stopUpload();
        QVERIFY(s->isRequestFinished());
        QVERIFY(wire().released);
        // Ten ticks' worth: a timer left running would restart the upload.
        QVERIFY(!QTest::qWaitFor([this] { return !d.calls.isEmpty() || pairs.size() > 1; }, 200));
    }
};

QTEST_GUILESS_MAIN(TestStreamer)
#include "tst_streamer.moc"
