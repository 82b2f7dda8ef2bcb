#include "net/QVHttpResponse.h"

#include <QTest>

class TestHttpResponse : public QObject
{
    Q_OBJECT
    // What a caller sees: "status|Location|body", a missing field as <none>.
    static QByteArray seen(const QVHttpResponse &r)
    {
        const QByteArray location = r.headerFieldValue("Location");
        return QByteArray::number(r.statusCode()) + '|' +
               (location.isNull() ? "<none>" : location) + '|' + r.body();
    }

private Q_SLOTS:
    void parsesAtEveryByteBoundary_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QByteArray>("expected");
        const auto row = [](const char *name, const char *bytes, const char *expected) {
            QTest::newRow(name) << QByteArray(bytes) << QByteArray(expected);
        };
        row("crlf, names without case, repeats joined",
            "HTTP/1.1 201 Created\r\nlocation: /a\r\nX: 1\r\nLOCATION:  /b \r\n\r\n<x/>",
            "201|/a, /b|<x/>");
        row("empty field is there", "HTTP/1.1 204 No\r\nLocation:\r\n\r\n", "204||");
        row("bare lf", "HTTP/1.0 302 Found\nLocation: b\n\nrest", "302|b|rest");
        row("body kept raw, blank lines and all", "HTTP/1.1 200 OK\r\n\r\n\r\n\r\nx\r\n\r\n",
            "200|<none>|\r\n\r\nx\r\n\r\n");
        row("folded field", "HTTP/1.1 301 M\r\nLocation: /a\r\n  b\r\n\r\n", "301|/a b|");
        row("no reason phrase", "HTTP/1.1 404\r\n\r\n", "404|<none>|");
        row("head cut off", "HTTP/1.1 200 OK\r\nLocation: /a\r\n", "0|<none>|");
        row("not http", "SSH-2.0-x\r\n\r\nz", "0|<none>|z");
        row("bad status digits", "HTTP/1.1 2x0 OK\r\n\r\n", "0|<none>|");
    }

    void parsesAtEveryByteBoundary()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QByteArray, expected);
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
            QVERIFY2(seen(r) == expected, "split at " + QByteArray::number(split) + ": " + seen(r));
        }
    }
};

QTEST_GUILESS_MAIN(TestHttpResponse)
#include "tst_httpresponse.moc"
