// The response parser as the engine uses it: bytes arrive in pieces of any size. The first
// input byte picks how the rest is cut; the cut response must read exactly like the whole one,
// and like one fed a byte at a time.
#include "FuzzCheck.h"
#include "net/QVHttpResponse.h"

namespace {

void checkConsistent(const QVHttpResponse &response, const QByteArray &input)
{
    // Nothing is known before the blank line that ends the head.
    if (!response.isHeaderComplete()) {
        FUZZ_CHECK(response.statusCode() == 0 && response.allHeaderFields().isEmpty() &&
                   response.body().isEmpty());
        return;
    }
    // The body is what followed the head, byte for byte.
    FUZZ_CHECK(response.statusCode() <= 999 && input.endsWith(response.body()) &&
               response.body().size() < input.size());
    const QList<QVHttpResponse::HeaderField> &fields = response.allHeaderFields();
    for (qsizetype i = 0; i < fields.size(); ++i) {
        const auto &[name, value] = fields[i];
        FUZZ_CHECK(!name.contains(':') && !name.contains('\n') && !value.contains('\n'));
        // Repeated names were joined into the first field of that name.
        for (qsizetype j = i + 1; j < fields.size(); ++j)
            FUZZ_CHECK(name.compare(fields[j].first, Qt::CaseInsensitive) != 0);
        const QByteArray found = response.headerFieldValue(name);
        FUZZ_CHECK(!found.isNull() && found == value &&
                   response.headerFieldValue(name.toUpper()) == found &&
                   response.headerFieldValue(name.toLower()) == found);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const QByteArray input(reinterpret_cast<const char *>(data) + 1, qsizetype(size - 1));
    QVHttpResponse whole;
    whole.appendBytes(input.constData(), input.size());
    checkConsistent(whole, input);

    // Single bytes, then pieces of 1 to 1 + (first byte % 64) bytes with empty appends between.
    FuzzSequence cuts(data[0]);
    for (unsigned longest : {1u, 1 + data[0] % 64u}) {
        QVHttpResponse pieces;
        inPieces(input, cuts, longest, [&](const QByteArray &piece) {
            pieces.appendBytes(piece.constData(), piece.size());
            pieces.appendBytes(piece.constData(), 0);
        });
        FUZZ_CHECK(pieces.isHeaderComplete() == whole.isHeaderComplete() &&
                   pieces.statusCode() == whole.statusCode() &&
                   pieces.allHeaderFields() == whole.allHeaderFields() &&
                   pieces.body() == whole.body());
    }
    return 0;
}
