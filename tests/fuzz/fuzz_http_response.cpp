// The response parser as the engine uses it: bytes arrive in pieces of any size. The first
// input byte picks how the rest is cut; the cut response must read exactly like the whole one,
// and like one fed a byte at a time.
#include "FuzzCheck.h"
#include "net/QVHttpResponse.h"

#include <cstddef>
#include <cstdint>

namespace {

bool sameParse(const QVHttpResponse &a, const QVHttpResponse &b)
{
    return a.isHeaderComplete() == b.isHeaderComplete() && a.statusCode() == b.statusCode() &&
           a.allHeaderFields() == b.allHeaderFields() && a.body() == b.body();
}

void checkConsistent(const QVHttpResponse &response, const QByteArray &input)
{
    if (!response.isHeaderComplete()) {
        // Nothing is known before the blank line that ends the head.
        FUZZ_CHECK(response.statusCode() == 0);
        FUZZ_CHECK(response.allHeaderFields().isEmpty());
        FUZZ_CHECK(response.body().isEmpty());
        return;
    }
    FUZZ_CHECK(response.statusCode() <= 999);
    // The body is what followed the head, byte for byte.
    FUZZ_CHECK(input.endsWith(response.body()));
    FUZZ_CHECK(response.body().size() < input.size());

    const QList<QVHttpResponse::HeaderField> &fields = response.allHeaderFields();
    for (qsizetype i = 0; i < fields.size(); ++i) {
        const QByteArray &name = fields[i].first;
        const QByteArray &value = fields[i].second;
        FUZZ_CHECK(!name.contains(':') && !name.contains('\n') && !value.contains('\n'));
        // Repeated names were joined into the first field of that name.
        for (qsizetype j = i + 1; j < fields.size(); ++j)
            FUZZ_CHECK(name.compare(fields[j].first, Qt::CaseInsensitive) != 0);
        const QByteArray found = response.headerFieldValue(name);
        FUZZ_CHECK(!found.isNull() && found == value);
        FUZZ_CHECK(response.headerFieldValue(name.toUpper()) == found);
        FUZZ_CHECK(response.headerFieldValue(name.toLower()) == found);
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

    // Pieces of 1 to 1 + (first byte % 64) bytes, with empty appends in between.
    FuzzSequence cuts(data[0]);
    const unsigned longest = 1 + data[0] % 64u;
    QVHttpResponse pieces;
    for (qsizetype at = 0; at < input.size();) {
        const qsizetype length = qMin<qsizetype>(1 + cuts.next(longest), input.size() - at);
        pieces.appendBytes(input.constData() + at, length);
        pieces.appendBytes(input.constData() + at, 0);
        at += length;
    }
    FUZZ_CHECK(sameParse(whole, pieces));

    QVHttpResponse bytes;
    for (qsizetype at = 0; at < input.size(); ++at)
        bytes.appendBytes(input.constData() + at, 1);
    FUZZ_CHECK(sameParse(whole, bytes));
    return 0;
}
