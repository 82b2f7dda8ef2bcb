// The base64 codec. The input is decoded and validated as text, and encoded (with line
// breaks every few characters, drawn from the first byte) and decoded back as data.
#include "FuzzCheck.h"
#include "net/Base64.h"

#include <QByteArray>
#include <QByteArrayList>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

const QByteArray alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

const unsigned char *bytes(const QByteArray &a)
{
    return reinterpret_cast<const unsigned char *>(a.constData());
}

/** @brief The decoded bytes, or a null array when the text is refused. */
QByteArray decode(const QByteArray &text)
{
    size_t length = 4242;
    unsigned char *out = cuDec64(bytes(text), size_t(text.size()), &length);
    if (!out) {
        FUZZ_CHECK(length == 4242); // a refusal leaves the length alone
        return QByteArray();
    }
    QByteArray result(reinterpret_cast<const char *>(out), qsizetype(length));
    std::free(out);
    return result.isNull() ? QByteArray("") : result;
}

/** @brief Plain encoding, without the final line feed and NUL. */
QByteArray encode(const QByteArray &data)
{
    size_t length = 0;
    char *out = cuEnc64(bytes(data), size_t(data.size()), &length);
    FUZZ_CHECK(out != nullptr && length >= 2);
    FUZZ_CHECK(out[length - 2] == '\n' && out[length - 1] == '\0');
    const QByteArray text(out, qsizetype(length - 2));
    std::free(out);
    return text;
}

bool isWhiteByte(char c)
{
    return c == 0 || c == '\t' || c == '\n' || c == '\r' || c == ' ';
}

int value(char c)
{
    return int(alphabet.indexOf(c));
}

void checkText(const QByteArray &text)
{
    QByteArray significant;
    for (char c : text) {
        if (!isWhiteByte(c))
            significant += c;
    }
    size_t cleanLength = 0;
    unsigned char *clean = stringCleanse(bytes(text), size_t(text.size()), &cleanLength);
    FUZZ_CHECK(clean != nullptr && cleanLength == size_t(significant.size()));
    FUZZ_CHECK(std::memcmp(clean, significant.constData(), cleanLength) == 0);
    std::free(clean);

    const QByteArray decoded = decode(text);
    const int valid = cuIsValidEnc64(bytes(text), size_t(text.size()));
    FUZZ_CHECK(valid == 0 || valid == 1);
    if (!decoded.isNull()) {
        FUZZ_CHECK(significant.size() % 4 == 0);
        FUZZ_CHECK(decoded.size() <= significant.size() / 4 * 3);
        if (valid) {
            // Well-formed text with clear pad bits is exactly what the encoder makes.
            FUZZ_CHECK(encode(decoded) == significant);
        } else {
            // The decoder goes on after a single pad; validity does not.
            const qsizetype pad = significant.indexOf('=');
            FUZZ_CHECK(pad % 4 == 3 && pad + 1 < significant.size() && significant[pad + 1] != '=');
        }
    } else if (valid) {
        // Validity does not look at pad bits; that is the only thing it lets through.
        const qsizetype n = significant.size();
        FUZZ_CHECK(n >= 4 && significant.endsWith('='));
        if (significant[n - 2] == '=')
            FUZZ_CHECK((value(significant[n - 3]) & 0x0F) != 0);
        else
            FUZZ_CHECK((value(significant[n - 2]) & 0x03) != 0);
    }
}

void checkData(const QByteArray &data, size_t lineLength)
{
    const QByteArray plain = encode(data);
    FUZZ_CHECK(plain.size() == (data.size() + 2) / 3 * 4);
    FUZZ_CHECK(decode(plain) == data);
    FUZZ_CHECK(cuIsValidEnc64(bytes(plain), size_t(plain.size())) == 1);

    size_t length = 0;
    char *direct = cuEnc64direct(bytes(data), size_t(data.size()), &length);
    FUZZ_CHECK(direct != nullptr && std::strlen(direct) == size_t(plain.size()));
    FUZZ_CHECK(length == size_t(plain.size()) + 2 && plain == direct);
    std::free(direct);

    char *lines = cuEnc64WithLines(bytes(data), size_t(data.size()), lineLength, &length);
    FUZZ_CHECK(lines != nullptr && length >= 2 && std::strlen(lines) == length - 1);
    const QByteArray text(lines, qsizetype(length));
    std::free(lines);
    FUZZ_CHECK(QByteArray(text).replace('\n', QByteArray()).chopped(1) == plain);
    // Full lines are the line length rounded up to whole groups of four.
    const QByteArrayList rows = text.chopped(2).split('\n');
    const qsizetype width = lineLength ? qsizetype((lineLength + 3) / 4 * 4) : plain.size();
    for (qsizetype i = 0; i < rows.size(); ++i)
        FUZZ_CHECK(i + 1 < rows.size()
                       ? rows[i].size() == width
                       : rows[i].size() <= width && (data.isEmpty() || rows[i].size() > 0));
    FUZZ_CHECK(decode(text) == data);
    FUZZ_CHECK(cuIsValidEnc64(bytes(text), size_t(text.size())) == 1);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray input(reinterpret_cast<const char *>(data), qsizetype(size));
    checkText(input);
    if (size > 0)
        checkData(input.mid(1), data[0] % 81u);
    return 0;
}
