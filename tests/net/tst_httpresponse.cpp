#include "net/QVHttpResponse.h"

#include <QTest>

class TestHttpResponse : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void parsesAtEveryByteBoundary_data();
    void parsesAtEveryByteBoundary();
    void headerLookupIgnoresCase();
};

void TestHttpResponse::parsesAtEveryByteBoundary_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<bool>("complete");
    QTest::addColumn<quint32>("status");
    QTest::addColumn<QByteArray>("location");
    QTest::addColumn<QByteArray>("body");

    QTest::newRow("crlf") << QByteArray("HTTP/1.1 201 Created\r\nLocation: /a\r\n\r\n<x/>") << true
                          << 201u << QByteArray("/a") << QByteArray("<x/>");
    QTest::newRow("bare lf") << QByteArray("HTTP/1.0 302 Found\nLocation: b\n\nrest") << true
                             << 302u << QByteArray("b") << QByteArray("rest");
    QTest::newRow("body keeps its own blank lines")
        << QByteArray("HTTP/1.1 200 OK\r\n\r\n\r\n\r\nx\r\n\r\n") << true << 200u << QByteArray()
        << QByteArray("\r\n\r\nx\r\n\r\n");
    QTest::newRow("chunked body stays raw")
        << QByteArray("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n")
        << true << 200u << QByteArray() << QByteArray("3\r\nabc\r\n0\r\n\r\n");
    QTest::newRow("folded field") << QByteArray("HTTP/1.1 301 M\r\nLocation: /a\r\n  b\r\n\r\n")
                                  << true << 301u << QByteArray("/a b") << QByteArray();
    QTest::newRow("no reason phrase")
        << QByteArray("HTTP/1.1 404\r\n\r\n") << true << 404u << QByteArray() << QByteArray();
    QTest::newRow("head cut off") << QByteArray("HTTP/1.1 200 OK\r\nLocation: /a\r\n") << false
                                  << 0u << QByteArray() << QByteArray();
    QTest::newRow("nothing") << QByteArray() << false << 0u << QByteArray() << QByteArray();
    QTest::newRow("not http") << QByteArray("SSH-2.0-x\r\n\r\nz") << true << 0u << QByteArray()
                              << QByteArray("z");
    QTest::newRow("bad status digits")
        << QByteArray("HTTP/1.1 2x0 OK\r\n\r\n") << true << 0u << QByteArray() << QByteArray();
}

void TestHttpResponse::parsesAtEveryByteBoundary()
{
    QFETCH(QByteArray, bytes);
    QFETCH(bool, complete);
    QFETCH(quint32, status);
    QFETCH(QByteArray, location);
    QFETCH(QByteArray, body);

    // Whole, then split once at every position, then byte by byte.
    for (qsizetype split = -1; split <= bytes.size(); ++split) {
        QVHttpResponse r;
        if (split < 0) {
            for (char c : bytes)
                r.appendBytes(&c, 1);
        } else {
            r.appendBytes(bytes.constData(), split);
            r.appendBytes(bytes.constData() + split, bytes.size() - split);
        }
        const QByteArray where = "split at " + QByteArray::number(split);
        QVERIFY2(r.isHeaderComplete() == complete, where);
        QVERIFY2(r.statusCode() == status, where);
        QVERIFY2(r.headerFieldValue("Location") == location, where);
        QVERIFY2(r.body() == body, where);
    }
}

void TestHttpResponse::headerLookupIgnoresCase()
{
    QVHttpResponse r;
    const QByteArray bytes = "HTTP/1.1 200 OK\r\ntransfer-ENCODING:  Chunked \r\nX-A: 1\r\n"
                             "x-a: 2\r\nEmpty:\r\n\r\n";
    r.appendBytes(bytes.constData(), bytes.size());
    QCOMPARE(r.headerFieldValue("Transfer-Encoding"), QByteArray("Chunked"));
    QCOMPARE(r.headerFieldValue("X-A"), QByteArray("1, 2"));
    QVERIFY(!r.headerFieldValue("Empty").isNull());
    QVERIFY(r.headerFieldValue("Missing").isNull());
    QCOMPARE(r.allHeaderFields().size(), 3);
}

QTEST_GUILESS_MAIN(TestHttpResponse)
#include "tst_httpresponse.moc"
