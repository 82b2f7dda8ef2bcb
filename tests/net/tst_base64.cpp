#include "net/Base64.h"

#include <QTest>

#include <cstdlib>

namespace {
// Every character of the alphabet once, in lines of 16, and the bytes it stands for.
const QByteArray kAlphabet =
    "ABCDEFGHIJKLMNOP\nQRSTUVWXYZabcdef\nghijklmnopqrstuv\nwxyz0123456789+/";
const QByteArray kAlphabetBytes =
    QByteArray::fromHex("00108310518720928b30d38f41149351559761969b71d79f8218a39259a7a29aabb2dbafc3"
                        "1cb3d35db7e39ebbf3dfbf");
} // namespace

class TestBase64 : public QObject
{
    Q_OBJECT
    static const unsigned char *u8(const QByteArray &a)
    {
        return reinterpret_cast<const unsigned char *>(a.constData());
    }

private Q_SLOTS:
    void encodingPadsBreaksAndCountsLineFeedAndNul_data()
    {
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<int>("lineLen");
        QTest::addColumn<QByteArray>("expected"); // including the final line feed and the NUL

        QTest::newRow("empty with lines") << QByteArray() << 8 << QByteArray("\n\0", 2);
        QTest::newRow("two bytes pad once") << QByteArray("AB") << 0 << QByteArray("QUI=\n\0", 6);
        QTest::newRow("high bytes")
            << QByteArray("\xff\xfe\xfd", 3) << 0 << QByteArray("//79\n\0", 6);
        QTest::newRow("60 bytes never break")
            << QByteArray(60, 'x') << 0 << QByteArray("eHh4").repeated(20) + QByteArray("\n\0", 2);
        // 5 is rounded up to 8; no break after the last group.
        QTest::newRow("line length rounded up")
            << QByteArray("0123456789ab") << 5 << QByteArray("MDEyMzQ1\nNjc4OWFi\n\0", 19);
        QTest::newRow("every character")
            << kAlphabetBytes << 16 << kAlphabet + QByteArray("\n\0", 2);
        QTest::newRow("partial last line")
            << QByteArray("0123456789abc") << 8 << QByteArray("MDEyMzQ1\nNjc4OWFi\nYw==\n\0", 24);
    }

    void encodingPadsBreaksAndCountsLineFeedAndNul()
    {
        QFETCH(QByteArray, input);
        QFETCH(int, lineLen);
        QFETCH(QByteArray, expected);
        size_t outLen = 0;
        char *out = cuEnc64WithLines(u8(input), size_t(input.size()), size_t(lineLen), &outLen);
        QCOMPARE(QByteArray(out, qsizetype(outLen)), expected);
        std::free(out);
        if (lineLen != 0)
            return;
        // The direct form drops the final line feed but still counts it and the NUL.
        outLen = 0;
        out = cuEnc64direct(u8(input), size_t(input.size()), &outLen);
        QCOMPARE(QByteArray(out), expected.chopped(2));
        QCOMPARE(outLen, size_t(expected.size()));
        std::free(out);
    }

    void decoderAndValidatorKeepTheirOwnRules_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QByteArray>("decoded"); // null: refused
        QTest::addColumn<int>("valid");

        QTest::newRow("NUL, tab, CR, LF, space")
            << QByteArray("\0\t\r\n ", 5) << QByteArray("") << 1;
        QTest::newRow("every character") << kAlphabet << kAlphabetBytes << 1;
        QTest::newRow("spread by white") << QByteArray(" Q Q = = ") << QByteArray("A") << 1;
        QTest::newRow("single pad goes on") << QByteArray("QUI=QUI=") << QByteArray("ABAB") << 0;
        QTest::newRow("double pad ends") << QByteArray("QQ==QQ==") << QByteArray() << 0;
        QTest::newRow("pad bits set, one byte") << QByteArray("QR==") << QByteArray() << 1;
        QTest::newRow("pad bits set, two bytes") << QByteArray("QUJ=") << QByteArray() << 1;
        QTest::newRow("short") << QByteArray("QQ=") << QByteArray() << 0;
        QTest::newRow("three pads") << QByteArray("Q===") << QByteArray() << 0;
        QTest::newRow("pad first") << QByteArray("=QQQ") << QByteArray() << 0;
        QTest::newRow("pad third only") << QByteArray("QQ=Q") << QByteArray() << 0;
        QTest::newRow("vertical tab is not white") << QByteArray("QQ==\v") << QByteArray() << 0;
        QTest::newRow("high byte") << QByteArray("QQ\xc3\xa9") << QByteArray() << 0;
        QTest::newRow("foreign character") << QByteArray("QQ-Q") << QByteArray() << 0;
    }

    void decoderAndValidatorKeepTheirOwnRules()
    {
        QFETCH(QByteArray, text);
        QFETCH(QByteArray, decoded);
        QFETCH(int, valid);
        QCOMPARE(cuIsValidEnc64(u8(text), size_t(text.size())), valid);
        size_t n = 77;
        unsigned char *out = cuDec64(u8(text), size_t(text.size()), &n);
        QCOMPARE(out != nullptr, !decoded.isNull());
        if (out)
            QCOMPARE(QByteArray(reinterpret_cast<char *>(out), qsizetype(n)), decoded);
        else
            QCOMPARE(n, size_t(77)); // a refusal leaves the length alone
        std::free(out);
    }
};

QTEST_GUILESS_MAIN(TestBase64)
#include "tst_base64.moc"
