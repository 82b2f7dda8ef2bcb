#include "net/Base64.h"

#include <QTest>

#include <cstdlib>

using namespace Qt::StringLiterals;

namespace {
// Every character of the alphabet once, in lines of 16, and the bytes it stands for.
const QByteArray kAlphabet =
    "ABCDEFGHIJKLMNOP\nQRSTUVWXYZabcdef\nghijklmnopqrstuv\nwxyz0123456789+/";
const QByteArray kAlphabetBytes = QByteArray::fromBase64(kAlphabet); // as Qt decodes it
} // namespace

class TestBase64 : public QObject
{
    Q_OBJECT
    static auto u8(const QByteArray &a) { return reinterpret_cast<const uchar *>(a.constData()); }

private Q_SLOTS:
    void encodingPadsBreaksAndCountsLineFeedAndNul_data()
    {
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<int>("lineLen");
        QTest::addColumn<QByteArray>("expected"); // before the final line feed and the NUL
        QTest::newRow("empty with lines") << QByteArray() << 8 << QByteArray();
        QTest::newRow("two bytes pad once") << "AB"_ba << 0 << "QUI="_ba;
        QTest::newRow("high bytes") << "\xff\xfe\xfd"_ba << 0 << "//79"_ba;
        QTest::newRow("60 bytes never break") << QByteArray(60, 'x') << 0 << "eHh4"_ba.repeated(20);
        // 5 is rounded up to 8; the last group pads one byte and ends without a break.
        QTest::newRow("line length rounded up") << "0123456789"_ba << 5 << "MDEyMzQ1\nNjc4OQ=="_ba;
        QTest::newRow("every character") << kAlphabetBytes << 16 << kAlphabet;
    }

    void encodingPadsBreaksAndCountsLineFeedAndNul()
    {
        QFETCH(QByteArray, input);
        QFETCH(int, lineLen);
        QFETCH(QByteArray, expected);
        size_t n = 0;
        char *out = cuEnc64WithLines(u8(input), size_t(input.size()), size_t(lineLen), &n);
        QCOMPARE(QByteArray(out, qsizetype(n)), expected + "\n\0"_ba);
        std::free(out);
        if (lineLen != 0)
            return;
        // The direct form drops the final line feed but still counts it and the NUL.
        size_t directLen = 0;
        out = cuEnc64direct(u8(input), size_t(input.size()), &directLen);
        QCOMPARE(QByteArray(out), expected);
        QCOMPARE(directLen, n);
        std::free(out);
    }

    void decoderAndValidatorKeepTheirOwnRules_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QByteArray>("decoded"); // null: refused
        QTest::addColumn<int>("valid");
        QTest::newRow("NUL, tab, CR, LF, space") << "\0\t\r\n "_ba << QByteArray("") << 1;
        QTest::newRow("every character") << kAlphabet << kAlphabetBytes << 1;
        QTest::newRow("spread by white") << " Q Q = = "_ba << QByteArray("A") << 1;
        QTest::newRow("single pad goes on") << "QUI=QUI="_ba << QByteArray("ABAB") << 0;
        QTest::newRow("double pad ends") << "QQ==QQ=="_ba << QByteArray() << 0;
        QTest::newRow("pad bits set, one byte") << "QR=="_ba << QByteArray() << 1;
        QTest::newRow("pad bits set, two bytes") << "QUJ="_ba << QByteArray() << 1;
        QTest::newRow("short") << "QQ="_ba << QByteArray() << 0;
        QTest::newRow("three pads") << "Q==="_ba << QByteArray() << 0;
        QTest::newRow("pad first") << "=QQQ"_ba << QByteArray() << 0;
        QTest::newRow("pad third only") << "QQ=Q"_ba << QByteArray() << 0;
        QTest::newRow("vertical tab is not white") << "QQ==\v"_ba << QByteArray() << 0;
        QTest::newRow("high byte") << "QQ\xc3\xa9"_ba << QByteArray() << 0;
        QTest::newRow("foreign character") << "QQ-Q"_ba << QByteArray() << 0;
    }

    void decoderAndValidatorKeepTheirOwnRules()
    {
        QFETCH(QByteArray, text);
        QFETCH(QByteArray, decoded);
        QFETCH(int, valid);
        QCOMPARE(cuIsValidEnc64(u8(text), size_t(text.size())), valid);
        size_t n = 77; // a refusal leaves the length alone
        unsigned char *out = cuDec64(u8(text), size_t(text.size()), &n);
        const QByteArray got(reinterpret_cast<char *>(out), out ? qsizetype(n) : 0);
        std::free(out);
        QCOMPARE(got, decoded);
        QCOMPARE(n, decoded.isNull() ? size_t(77) : size_t(decoded.size()));
    }
};

QTEST_GUILESS_MAIN(TestBase64)
#include "tst_base64.moc"
