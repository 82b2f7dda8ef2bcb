// The engine's chunked-body decoder. The input is decoded as it is, and is also taken as a
// payload that is sent chunked (chunk sizes and the look of the size lines drawn from the
// first byte): the decoder must give the payload back, and a prefix of it when the chunked
// text is cut short.
#include "FuzzCheck.h"
#include "net/QVStreamer.h"

#include <cstddef>
#include <cstdint>

namespace {

/** @brief Notes the decoder's "Chunked message error" instead of logging it. */
class ErrorNote : public QVStreamerDelegate
{
public:
    bool respondsToCallback(QVStreamerCallback callback) const override
    {
        return callback == QVStreamerCallback::HandleError;
    }
    void handleError(QVStreamer *, const QString &message, qint32 code) override
    {
        FUZZ_CHECK(message == QLatin1String("Chunked message error") && code == -1);
        ++errors;
    }
    int errors = 0;
};

QByteArray sizeLine(unsigned size, FuzzSequence &style)
{
    QByteArray line(qsizetype(style.next(3)), ' ');
    if (style.next(4) == 0)
        line += '\t';
    line += QByteArray(qsizetype(style.next(3)), '0');
    QByteArray digits = QByteArray::number(size, 16);
    if (style.next(2) == 0)
        digits = digits.toUpper();
    line += digits;
    switch (style.next(4)) {
    case 0:
        line += ";name=value";
        break;
    case 1:
        line += " ";
        break;
    default:
        break;
    }
    return line + "\r\n";
}

/** @brief payload as a chunked body with CRLF line ends and a last, empty chunk. */
QByteArray chunked(const QByteArray &payload, FuzzSequence &style)
{
    const unsigned longest = 1 + style.next(300);
    QByteArray text;
    for (qsizetype at = 0; at < payload.size();) {
        const qsizetype length = qMin<qsizetype>(1 + style.next(longest), payload.size() - at);
        text += sizeLine(unsigned(length), style);
        text += payload.mid(at, length);
        text += "\r\n";
        at += length;
    }
    return text + sizeLine(0, style) + "\r\n";
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static ErrorNote note;
    static QVStreamer engine;
    engine.setDelegate(&note);
    note.errors = 0;
    const QByteArray input(reinterpret_cast<const char *>(data), qsizetype(size));

    // Anything: no crash, and never more bytes out than came in.
    QByteArray result("left over");
    engine.processChunkedData(input, result);
    FUZZ_CHECK(result.size() <= input.size());
    FUZZ_CHECK(note.errors <= 1);

    if (size == 0)
        return 0;
    FuzzSequence style(data[0]);
    const QByteArray payload = input.mid(1);
    const QByteArray text = chunked(payload, style);

    note.errors = 0;
    engine.processChunkedData(text, result);
    FUZZ_CHECK(note.errors == 0);
    FUZZ_CHECK(result == payload);

    const QByteArray cut = text.left(qsizetype(style.next(unsigned(text.size()))));
    engine.processChunkedData(cut, result);
    FUZZ_CHECK(note.errors == 0);
    FUZZ_CHECK(payload.startsWith(result));
    return 0;
}
