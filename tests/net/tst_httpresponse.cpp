#include "net/QVHttpResponse.h"

#include <QTest>

class TestHttpResponse : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void parsesAtEveryByteBoundary_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<bool>("complete");
        QTest::addColumn<quint32>("status");
        QTest::addColumn<QByteArray>("location");
        QTest::addColumn<QByteArray>("body");

        QTest::newRow("crlf, names without case, repeats joined")
            << QByteArray(
                   "HTTP/1.1 201 Created\r\nlocation: /a\r\nX: 1\r\nLOCATION:  /b \r\n\r\n<x/>")
            << true << 201u << QByteArray("/a, /b") << QByteArray("<x/>");
        QTest::newRow("empty field is there") << QByteArray("HTTP/1.1 204 No\r\nLocation:\r\n\r\n")
                                              << true << 204u << QByteArray("") << QByteArray();
        QTest::newRow("bare lf") << QByteArray("HTTP/1.0 302 Found\nLocation: b\n\nrest") << true
                                 << 302u << QByteArray("b") << QByteArray("rest");
        QTest::newRow("body kept raw, blank lines and all")
            << QByteArray("HTTP/1.1 200 OK\r\n\r\n\r\n\r\nx\r\n\r\n") << true << 200u
            << QByteArray() << QByteArray("\r\n\r\nx\r\n\r\n");
        QTest::newRow("folded field") << QByteArray("HTTP/1.1 301 M\r\nLocation: /a\r\n  b\r\n\r\n")
                                      << true << 301u << QByteArray("/a b") << QByteArray();
        QTest::newRow("no reason phrase")
            << QByteArray("HTTP/1.1 404\r\n\r\n") << true << 404u << QByteArray() << QByteArray();
        QTest::newRow("head cut off") << QByteArray("HTTP/1.1 200 OK\r\nLocation: /a\r\n") << false
                                      << 0u << QByteArray() << QByteArray();
        QTest::newRow("not http") << QByteArray("SSH-2.0-x\r\n\r\nz") << true << 0u << QByteArray()
                                  << QByteArray("z");
        QTest::newRow("bad status digits")
            << QByteArray("HTTP/1.1 2x0 OK\r\n\r\n") << true << 0u << QByteArray() << QByteArray();
    }

    void parsesAtEveryByteBoundary()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(bool, complete);
        QFETCH(quint32, status);
        QFETCH(QByteArray, location);
        QFETCH(QByteArray, body);

        // Byte by byte (split -1), then whole bytes split once at every position.
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
            QVERIFY2(r.headerFieldValue("Location").isNull() == location.isNull(), where);
            QVERIFY2(r.body() == body, where);
        }
    }
};

QTEST_GUILESS_MAIN(TestHttpResponse)
#include "tst_httpresponse.moc"
