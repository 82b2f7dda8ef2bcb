// QVStreamer against a scripted stream pair whose every event the test fires.
#include "net/QVStreamer.h"
#include "support/FakeStreamPair.h"
#include "support/LogCapture.h"
#include "support/RecordingDelegate.h"

#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {
const QByteArray kBodyStartA =
    "--0xKhTmLbOuNdArY\r\nContent-Disposition: form-data; name=\"file\"; "
    "filename=\"a.txt\"\r\nContent-Type: application/octet-stream\r\n\r\n";
const QByteArray kBodyEnd = "\r\n--0xKhTmLbOuNdArY--\r\n";
} // namespace

class TestStreamer : public QObject
{
    Q_OBJECT
private:
    FakeStreamPair *pair() const { return pairs.last(); }
    FakeWire &wire() const { return *wires.last(); }
    // n bytes in which no 2048-byte piece repeats its neighbours.
    static auto pattern(int n) { return "abcdefghijk"_ba.repeated(n / 11 + 1).left(n); }

    bool startUpload(const QByteArray &content)
    {
        QFile f(dir.filePath(u"f"_s));
        return f.open(QIODevice::WriteOnly) && f.write(content) == content.size() && f.flush() &&
               s->uploadFile(f.fileName(), u"a.txt"_s, u"http://h/api/assets"_s, false);
    }

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
        QTest::addColumn<QByteArray>("path");
        QTest::addColumn<int>("port");
        QTest::addColumn<QString>("target");
        QTest::newRow("path decoded, query and fragment dropped")
            << u"http://h:80/a%20b?q=1#f"_s << "/a b"_ba << 80 << u"http://h"_s;
        QTest::newRow("port never in Host")
            << u"http://h:8080/x"_s << "/x"_ba << 8080 << u"http://h:8080"_s;
        QTest::newRow("upper-case scheme is plain")
            << u"HTTPS://h/x"_s << "/x"_ba << 80 << u"http://h"_s;
        QTest::newRow("tls always on 443, shown with its own port")
            << u"https://h:8443/x"_s << "/x"_ba << 443 << u"http://h:8443"_s;
    }

    void getHeadIsByteExact()
    {
        QFETCH(QString, url);
        QFETCH(QByteArray, path);
        QFETCH(int, port);
        QFETCH(QString, target);
        QVERIFY(s->getFromURL(url, true));
        QCOMPARE(wire().port, quint16(port));
        QCOMPARE(wire().tls, port == 443);
        QCOMPARE(pair()->drainOutput(), 1);
        // No credentials: the value still encodes the colon between them.
        QCOMPARE(wire().written, "GET " + path +
                                     " HTTP/1.1\r\nUser-Agent: Hoplift!(0.2.1) mac\r\n"
                                     "Authorization: Basic Og==\r\nAccept: application/xml\r\n"
                                     "Connection: close\r\nHost: h\r\n\r\n");
        QCOMPARE(s->targetURL(), target);
    }

    void piecesAndPartialWrites_data()
    {
        QTest::addColumn<QList<qint64>>("plan"); // bytes the socket takes per write; none: all
        QTest::addColumn<int>("fileSize");       // -1: a GET
        QTest::addColumn<int>("events");         // space events until the output closes
        QTest::addColumn<QByteArray>("sent");    // what went out between body start and end
        // One 2048-byte piece per event; the tail carries the body end.
        for (int size : {0, 2047, 2048, 5000})
            QTest::addRow("%d bytes", size)
                << QList<qint64>() << size << 2 + size / 2048 << pattern(size);
        QTest::newRow("each piece resumes where the socket stopped")
            << QList<qint64>{100, 7, 2048, 1000, 1, 3000} << 5000 << 8 << pattern(5000);
        QTest::newRow("GET head in two parts") << QList<qint64>{10} << -1 << 2 << QByteArray();
        QTest::newRow("cut last piece sends its body end twice")
            << QList<qint64>{1000000, 3} << 5 << 4 << pattern(5) + kBodyEnd;
        QTest::newRow("refused piece is dropped")
            << QList<qint64>{1000000, 0} << 3000 << 3 << pattern(3000).mid(2048);
    }

    void piecesAndPartialWrites()
    {
        QFETCH(QList<qint64>, plan);
        QFETCH(int, fileSize);
        QFETCH(int, events);
        QFETCH(QByteArray, sent);
        if (fileSize < 0)
            QVERIFY(s->getFromURL(u"http://h/api/user"_s, true));
        else
            QVERIFY(startUpload(pattern(fileSize)));
        wire().acceptPlan = plan;
        QCOMPARE(pair()->drainOutput(), events);
        QCOMPARE(wire().written,
                 s->requestHead() + (fileSize < 0 ? "" : kBodyStartA + sent + kBodyEnd));
        QCOMPARE(log.count("write error !!"), int(plan.count(0)));
        // Progress follows what the socket took, head included.
        QCOMPARE(s->progressValue(),
                 fileSize < 0 ? 0.0 : double(wire().written.size()) / double(s->requestSize()));
        QVERIFY(!wire().inputClosed); // the answer is still to come
    }

    void unsendableOrStoppedRequestsEndSilently()
    {
        s->setTimeOut(0.02);
        QVERIFY(!s->getFromURL(u"http://bad host/"_s, true));
        QVERIFY(!s->uploadFile(dir.filePath(u"missing"_s), u"http://h/a"_s, false));
        QVERIFY(pairs.isEmpty());
        // A folder exists but cannot be read as a file.
        QVERIFY(s->uploadFile(dir.path(), u"http://h/a"_s, false));
        pair()->drainOutput();
        QCOMPARE(log.lines(),
                 QByteArrayList({"http://bad host/ is not a valid URL", "error reading file"}));
        QVERIFY(s->isRequestFinished() && wire().released);
        QVERIFY(startUpload(pattern(9000)));
        pair()->fire(QVStreamSide::Output, QVStreamEvent::HasSpaceAvailable);
        s->stopUpload();
        QVERIFY(s->isRequestFinished() && wire().released);
        // Ten ticks' worth: a timer left running would call back or restart an upload.
        QVERIFY(!QTest::qWaitFor([this] { return !d.calls.isEmpty() || pairs.size() > 2; }, 200));
    }

    void answerEndsInTheRightCallbacks_data()
    {
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<QString>("calls");
        QTest::addColumn<QByteArray>("body");
        const auto row = [](const char *name, const QByteArray &answer, const QByteArray &body,
                            const char *calls = "complete 200") {
            QTest::newRow(name) << answer << QString::fromLatin1(calls) << body;
        };
        const QByteArray chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: CHUNKED\r\n\r\n";
        row("413 cut short as it came", "HTTP/1.1 413 No\r\nContent-Length: 100\r\n\r\n<e>", "<e>",
            "complete 413");
        row("closed before status", "", "", "complete 0");
        row("other encoding stays raw",
            "HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip, chunked\r\n\r\n3\r\nabc", "3\r\nabc");
        row("chunked over several reads", chunked + "a00\r\n" + pattern(2560) + "\r\n0\r\n\r\n",
            pattern(2560));
        row("extension, upper-case hex, leading blanks, chunks after the zero chunk",
            chunked + "1;x\r\nh\r\n  A\r\n 01234567!\r\n0\r\n\r\n2\r\nhi\r\n", "h 01234567!hi");
        // A bare LF ends a size line one byte early, so its chunk starts one byte late.
        row("bare lf shifts the chunk", chunked + "3\nabcX\r\n0\r\n\r\n", "bcX");
        // 2^32 must not wrap round to a size of 0.
        row("chunk size past the end and past 32 bits", chunked + "100000000\r\nab", "ab");
        row("bad size line (a trailer): error, then completion",
            chunked + "2\r\nok\r\n0\r\nX-T: 1\r\n\r\n", "ok",
            "error Chunked message error -1|complete 200");
        row("redirect", "HTTP/1.1 302 Found\r\nLocation: /p\r\n\r\n", "", "redirect /p -1");
        row("redirect without location", "HTTP/1.1 301 Moved\r\n\r\n", "", "redirect <none> -1");
    }

    void answerEndsInTheRightCallbacks()
    {
        QFETCH(QByteArray, answer);
        QFETCH(QString, calls);
        QFETCH(QByteArray, body);
        getAndAnswer(u"http://h/api/account.xml"_s, true, answer);
        QCOMPARE(d.calls.join(u'|'), calls);
        QCOMPARE(d.body, body);
        // A redirect leaves the request open for the receiver to decide.
        const bool redirect = calls.startsWith(u"redirect");
        QCOMPARE(s->isRequestFinished(), !redirect);
        QCOMPARE(wire().inputClosed, !redirect);
    }

    void redirectTheEngineCannotFollowFails()
    {
        const QByteArray found = "HTTP/1.1 302 Found\r\nLocation: http://o/p\r\n\r\n";
        d.implemented = {QVStreamerCallback::HandleError, QVStreamerCallback::ResponseComplete};
        getAndAnswer(u"http://h/x"_s, false, found);
        getAndAnswer(u"http://h/y"_s, true, "HTTP/1.1 302 Found\r\n\r\n");
        QCOMPARE(d.calls, QStringList(2, u"error Redirect failed -1"_s));
        // Without a delegate the outcomes go to the log.
        s->setDelegate(nullptr);
        log.clear();
        getAndAnswer(u"http://h/x"_s, false, found);
        getAndAnswer(u"http://h/y"_s, false, "HTTP/1.1 404 No\r\n\r\nnone here");
        QCOMPARE(log.lines(),
                 QByteArrayList({"Header {\n    Location = \"http://o/p\";\n}",
                                 "Error:Redirect failed - -1", "Response-Code (404):\nnone here"}));
    }
};

QTEST_GUILESS_MAIN(TestStreamer)
#include "tst_streamer.moc"
