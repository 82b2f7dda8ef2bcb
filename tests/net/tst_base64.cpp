#include "net/Base64.h"

#include <QTest>

#include <cstdlib>

namespace {

QByteArray encodeWithLines(const QByteArray &in, size_t lineLen, size_t *outLen)
{
    char *out = cuEnc64WithLines(reinterpret_cast<const unsigned char *>(in.constData()),
                                 size_t(in.size()), lineLen, outLen);
    // The text and its NUL; outLen counts the final line feed and the NUL.
    QByteArray text(out, qsizetype(*outLen));
    std::free(out);
    return text;
}

bool decode(const QByteArray &text, QByteArray *result)
{
    size_t n = 12345;
    unsigned char *out =
        cuDec64(reinterpret_cast<const unsigned char *>(text.constData()), size_t(text.size()), &n);
    if (!out)
        return false;
    *result = QByteArray(reinterpret_cast<const char *>(out), qsizetype(n));
    std::free(out);
    return true;
}

} // namespace

class TestBase64 : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void encodesWithFinalLineFeedAndNul_data();
    void encodesWithFinalLineFeedAndNul();
    void directEncodingDropsFinalLineFeedButKeepsLength_data();
    void directEncodingDropsFinalLineFeedButKeepsLength();
    void encodingRoundTripsEveryByteValue();
    void decodes_data();
    void decodes();
    void decodingFailureLeavesLengthAlone();
    void validates_data();
    void validates();
    void whiteSpaceIsExactlyNulTabLfCrSpace();
};

void TestBase64::encodesWithFinalLineFeedAndNul_data()
{
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<int>("lineLen");
    QTest::addColumn<QByteArray>("expected"); // including the NUL

    QTest::newRow("empty") << QByteArray() << 0 << QByteArray("\n\0", 2);
    QTest::newRow("empty with lines") << QByteArray() << 8 << QByteArray("\n\0", 2);
    QTest::newRow("one byte pads twice") << QByteArray("A") << 0 << QByteArray("QQ==\n\0", 6);
    QTest::newRow("two bytes pad once") << QByteArray("AB") << 0 << QByteArray("QUI=\n\0", 6);
    QTest::newRow("credentials") << QByteArray("u:p") << 0 << QByteArray("dTpw\n\0", 6);
    QTest::newRow("high bytes") << QByteArray("\xff\xfe\xfd", 3) << 0 << QByteArray("//79\n\0", 6);
    // A line length of 5 is rounded up to 8; no break after the last group.
    QTest::newRow("line length rounded up")
        << QByteArray("0123456789ab") << 5 << QByteArray("MDEyMzQ1\nNjc4OWFi\n\0", 19);
    QTest::newRow("partial last line")
        << QByteArray("0123456789abc") << 8 << QByteArray("MDEyMzQ1\nNjc4OWFi\nYw==\n\0", 24);
}

void TestBase64::encodesWithFinalLineFeedAndNul()
{
    QFETCH(QByteArray, input);
    QFETCH(int, lineLen);
    QFETCH(QByteArray, expected);
    size_t outLen = 0;
    const QByteArray text = encodeWithLines(input, size_t(lineLen), &outLen);
    QCOMPARE(outLen, size_t(expected.size()));
    QCOMPARE(text, expected);
}

void TestBase64::directEncodingDropsFinalLineFeedButKeepsLength_data()
{
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<QByteArray>("expected");
    QTest::newRow("empty") << QByteArray() << QByteArray();
    QTest::newRow("u:p") << QByteArray("u:p") << QByteArray("dTpw");
    QTest::newRow("60 bytes, no breaks") << QByteArray(60, 'x') << QByteArray("eHh4").repeated(20);
}

void TestBase64::directEncodingDropsFinalLineFeedButKeepsLength()
{
    QFETCH(QByteArray, input);
    QFETCH(QByteArray, expected);
    size_t outLen = 0;
    char *out = cuEnc64direct(reinterpret_cast<const unsigned char *>(input.constData()),
                              size_t(input.size()), &outLen);
    const QByteArray text(out);
    std::free(out);
    QCOMPARE(text, expected);
    QCOMPARE(outLen, size_t(text.size()) + 2);
}

void TestBase64::encodingRoundTripsEveryByteValue()
{
    QByteArray all;
    for (int i = 0; i < 256; ++i)
        all.append(char(i));
    for (int length = 0; length <= all.size(); length += 37) {
        size_t outLen = 0;
        QByteArray text = encodeWithLines(all.left(length), 16, &outLen);
        QByteArray back;
        QVERIFY(decode(text, &back)); // line feeds and the NUL are white space
        QCOMPARE(back, all.left(length));
    }
}

void TestBase64::decodes_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<bool>("ok");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("empty") << QByteArray() << true << QByteArray();
    QTest::newRow("all white") << QByteArray(" \t\r\n\0", 5) << true << QByteArray();
    QTest::newRow("one byte") << QByteArray("QQ==") << true << QByteArray("A");
    QTest::newRow("spread by blanks") << QByteArray(" Q Q = = ") << true << QByteArray("A");
    QTest::newRow("NUL is white") << QByteArray("dT\0pw", 5) << true << QByteArray("u:p");
    QTest::newRow("single pad continues") << QByteArray("QUI=QUI=") << true << QByteArray("ABAB");
    QTest::newRow("double pad ends") << QByteArray("QQ==QQ==") << false << QByteArray();
    QTest::newRow("pad bits set, one byte") << QByteArray("QR==") << false << QByteArray();
    QTest::newRow("pad bits set, two bytes") << QByteArray("QUJ=") << false << QByteArray();
    QTest::newRow("short") << QByteArray("QQ=") << false << QByteArray();
    QTest::newRow("vertical tab is not white") << QByteArray("QQ==\v") << false << QByteArray();
    QTest::newRow("form feed is not white") << QByteArray("\fQQ==") << false << QByteArray();
    QTest::newRow("high byte") << QByteArray("QQ\xc3\xa9") << false << QByteArray();
    QTest::newRow("pad first") << QByteArray("=QQQ") << false << QByteArray();
    QTest::newRow("pad second") << QByteArray("Q=QQ") << false << QByteArray();
    QTest::newRow("pad third only") << QByteArray("QQ=Q") << false << QByteArray();
    QTest::newRow("foreign character") << QByteArray("QQ-Q") << false << QByteArray();
}

void TestBase64::decodes()
{
    QFETCH(QByteArray, text);
    QFETCH(bool, ok);
    QFETCH(QByteArray, expected);
    QByteArray result;
    QCOMPARE(decode(text, &result), ok);
    if (ok)
        QCOMPARE(result, expected);
}

void TestBase64::decodingFailureLeavesLengthAlone()
{
    size_t n = 77;
    const QByteArray bad("QR==");
    QVERIFY(!cuDec64(reinterpret_cast<const unsigned char *>(bad.constData()), 4, &n));
    QCOMPARE(n, size_t(77));
}

void TestBase64::validates_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<int>("valid");
    QTest::newRow("empty") << QByteArray() << 1;
    QTest::newRow("plain") << QByteArray("dTpw") << 1;
    QTest::newRow("white inside") << QByteArray("dT\npw\r\n\0", 8) << 1;
    QTest::newRow("double pad") << QByteArray("QQ==") << 1;
    QTest::newRow("after single pad") << QByteArray("QUI=QUI=") << 0;
    QTest::newRow("three pads") << QByteArray("Q===") << 0;
    QTest::newRow("not a multiple of four") << QByteArray("QQ=") << 0;
    QTest::newRow("high byte") << QByteArray("QQ\x80Q") << 0;
    QTest::newRow("foreign") << QByteArray("QQ_Q") << 0;
}

void TestBase64::validates()
{
    QFETCH(QByteArray, text);
    QFETCH(int, valid);
    QCOMPARE(cuIsValidEnc64(reinterpret_cast<const unsigned char *>(text.constData()),
                            size_t(text.size())),
             valid);
}

void TestBase64::whiteSpaceIsExactlyNulTabLfCrSpace()
{
    for (int c = 0; c < 256; ++c) {
        const bool white = c == 0 || c == 9 || c == 10 || c == 13 || c == 32;
        QCOMPARE(isWhite(static_cast<unsigned char>(c)), white ? 1 : 0);
    }
}

QTEST_GUILESS_MAIN(TestBase64)
#include "tst_base64.moc"
