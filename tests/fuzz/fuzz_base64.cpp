// The base64 codec, against Qt's own encoder. The input is decoded and validated as text, and
// encoded (with line breaks every few characters, drawn from the first byte) and decoded back
// as data.
#include "FuzzCheck.h"
#include "net/Base64.h"

namespace {

const unsigned char *bytes(const QByteArray &a)
{
    return reinterpret_cast<const unsigned char *>(a.constData());
}

/** @brief The decoded bytes, or a null array when the text is refused. */
QByteArray decode(const QByteArray &text)
{
    size_t length = 4242;
    unsigned char *out = cuDec64(bytes(text), size_t(text.size()), &length);
    FUZZ_CHECK(out || length == 4242); // a refusal leaves the length alone
    const QByteArray result =
        out ? QByteArray(reinterpret_cast<char *>(out), qsizetype(length)) : QByteArray();
    std::free(out);
    return result;
}

/** @brief All the bytes an encoder reports (its text, line feed and NULs), freed. */
template <typename Encoder> QByteArray encoded(Encoder encoder)
{
    size_t length = 0;
    char *out = encoder(&length);
    FUZZ_CHECK(out != nullptr);
    const QByteArray text(out, qsizetype(length));
    std::free(out);
    return text;
}

void checkText(const QByteArray &text)
{
    QByteArray significant;
    for (char c : text) {
        if (c != 0 && c != '\t' && c != '\n' && c != '\r' && c != ' ')
            significant += c;
    }
    size_t cleanLength = 0;
    unsigned char *clean = stringCleanse(bytes(text), size_t(text.size()), &cleanLength);
    FUZZ_CHECK(clean &&
               QByteArray(reinterpret_cast<char *>(clean), qsizetype(cleanLength)) == significant);
    std::free(clean);

    const QByteArray decoded = decode(text);
    if (cuIsValidEnc64(bytes(text), size_t(text.size()))) {
        // Well-formed text: the decoder takes just what an encoder makes (validity does not
        // look at pad bits, which Qt's decoder drops).
        const QByteArray reference = QByteArray::fromBase64(significant);
        FUZZ_CHECK(reference.toBase64() == significant ? !decoded.isNull() && decoded == reference
                                                       : decoded.isNull());
    } else if (!decoded.isNull()) {
        // The decoder goes on after a single pad; validity does not.
        const qsizetype pad = significant.indexOf('=');
        FUZZ_CHECK(significant.size() % 4 == 0 && pad % 4 == 3 && pad + 1 < significant.size() &&
                   significant[pad + 1] != '=');
    }
}

void checkData(const QByteArray &data, size_t lineLength)
{
    // Full lines are the line length rounded up to whole groups of four.
    const QByteArray plain = data.toBase64();
    const qsizetype width = lineLength ? qsizetype((lineLength + 3) / 4 * 4) : plain.size() + 1;
    QByteArray lined;
    for (qsizetype at = 0; at == 0 || at < plain.size(); at += width)
        lined += plain.mid(at, width) + '\n';
    const unsigned char *in = bytes(data);
    const size_t size = size_t(data.size());
    FUZZ_CHECK(encoded([&](size_t *n) { return cuEnc64(in, size, n); }) == plain + "\n" + '\0');
    FUZZ_CHECK(encoded([&](size_t *n) { return cuEnc64direct(in, size, n); }) ==
               plain + '\0' + '\0');
    FUZZ_CHECK(encoded([&](size_t *n) { return cuEnc64WithLines(in, size, lineLength, n); }) ==
               lined + '\0');
    FUZZ_CHECK(decode(lined) == data && cuIsValidEnc64(bytes(lined), size_t(lined.size())) == 1);
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
