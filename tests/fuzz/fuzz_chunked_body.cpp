// The engine's chunked-body decoder. The input is decoded as it is, and is also taken as a
// payload that is sent chunked (chunk sizes and the look of the size lines drawn from the
// first byte): the decoder must give the payload back, and a prefix of it when the chunked
// text is cut short.
#include "FuzzCheck.h"
#include "net/QVStreamer.h"

namespace {

/** @brief Counts the decoder's reports of a bad size line instead of logging them. */
class ErrorCount : public QVStreamerDelegate
{
public:
    bool respondsToCallback(QVStreamerCallback c) const override
    {
        return c == QVStreamerCallback::HandleError;
    }
    void handleError(QVStreamer *, const QString &, qint32) override { ++errors; }
    int errors = 0;
};

// Blanks and zeros before the digits, either case, an extension or a blank after them.
QByteArray sizeLine(unsigned size, FuzzSequence &style)
{
    static const char *const lead[] = {"", " ", "\t", "  \t"};
    static const char *const tail[] = {"", "", ";name=value", " "};
    QByteArray line(lead[style.next(4)]);
    line += QByteArray(qsizetype(style.next(3)), '0');
    const QByteArray digits = QByteArray::number(size, 16);
    line += style.next(2) ? digits : digits.toUpper();
    return line + tail[style.next(4)] + "\r\n";
}

/** @brief payload as a chunked body with CRLF line ends and a last, empty chunk. */
QByteArray chunked(const QByteArray &payload, FuzzSequence &style)
{
    QByteArray text;
    inPieces(payload, style, 1 + style.next(300), [&](const QByteArray &piece) {
        text += sizeLine(unsigned(piece.size()), style) + piece + "\r\n";
    });
    return text + sizeLine(0, style) + "\r\n";
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static ErrorCount note;
    static QVStreamer engine;
    engine.setDelegate(&note);
    const QByteArray input(reinterpret_cast<const char *>(data), qsizetype(size));

    // Anything: never more bytes out than came in, and at most one error.
    QByteArray result("left over");
    note.errors = 0;
    engine.processChunkedData(input, result);
    FUZZ_CHECK(result.size() <= input.size() && note.errors <= 1);
    if (size == 0)
        return 0;

    FuzzSequence style(data[0]);
    const QByteArray payload = input.mid(1);
    const QByteArray text = chunked(payload, style);
    note.errors = 0;
    engine.processChunkedData(text, result);
    FUZZ_CHECK(note.errors == 0 && result == payload);
    engine.processChunkedData(text.left(qsizetype(style.next(unsigned(text.size())))), result);
    FUZZ_CHECK(note.errors == 0 && payload.startsWith(result));
    return 0;
}
