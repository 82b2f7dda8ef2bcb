// The engine reading an answer off a connection: a GET is sent over a pair that hands the
// input to the engine in pieces (cut as the first byte says) and then ends. The engine must
// report what the response parser and the chunked decoder make of the same bytes.
#include "FuzzCheck.h"
#include "net/QVHttpResponse.h"
#include "net/QVStreamer.h"
#include "support/FakeStreamPair.h"

#include <QCoreApplication>

#include <memory>

namespace {

/** @brief Every callback, in order, with what came with it. */
class Outcome : public QVStreamerDelegate
{
public:
    bool respondsToCallback(QVStreamerCallback) const override { return true; }
    void handleRedirect(QVStreamer *, const QString &url, qint32) override
    {
        calls += "redirect " + (url.isNull() ? QByteArray("(none)") : url.toUtf8());
    }
    void handleError(QVStreamer *, const QString &message, qint32) override
    {
        calls += message.toUtf8();
    }
    void responseComplete(QVStreamer *, const QByteArray &body, quint32 code) override
    {
        calls += QByteArray::number(code) + ' ' + body;
    }
    void notifyRestart(QVStreamer *, qint32) override { calls += "restart"; }
    QByteArrayList calls;
};

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    startQt<QCoreApplication>("fuzz-streamer-response"); // the engine's time-out timer needs one
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const QByteArray input(reinterpret_cast<const char *>(data) + 1, qsizetype(size - 1));
    Outcome delegate;
    auto wire = std::make_shared<FakeWire>();
    QPointer<FakeStreamPair> pair;
    {
        QVStreamer engine;
        engine.setDelegate(&delegate);
        engine.setStreamPairFactory(
            [&]() -> QVSocketStreamPair * { return pair = new FakeStreamPair(wire); });
        FUZZ_CHECK(
            engine.getFromURL(QStringLiteral("http://127.0.0.1:8642/api/account.xml"), false) &&
            pair);
        pair->fire(QVStreamSide::Input, QVStreamEvent::OpenCompleted);
        pair->fire(QVStreamSide::Output, QVStreamEvent::OpenCompleted);
        pair->drainOutput();
        FUZZ_CHECK(wire->written.startsWith("GET /api/account.xml HTTP/1.1\r\n"));
        FuzzSequence cuts(data[0]);
        inPieces(input, cuts, 1 + data[0] % 128u, [&](const QByteArray &piece) {
            wire->incoming += piece;
            while (!wire->incoming.isEmpty())
                FUZZ_CHECK(pair->fire(QVStreamSide::Input, QVStreamEvent::HasBytesAvailable));
        });
        pair->fire(QVStreamSide::Input, QVStreamEvent::EndEncountered);
    }
    // The pair the engine let go of is deleted now, not at an event loop that never runs.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    FUZZ_CHECK(!pair);

    // A 3xx hands over its Location; anything else its body, decoded when sent chunked, after
    // the report of a bad chunk size line (what was decoded before it still completes).
    QVHttpResponse whole;
    whole.appendBytes(input.constData(), input.size());
    const quint32 code = whole.statusCode();
    const QByteArray location = whole.headerFieldValue("Location");
    Outcome expected;
    if (code >= 300 && code <= 399) {
        expected.handleRedirect(nullptr,
                                location.isNull() ? QString() : QString::fromUtf8(location), -1);
    } else {
        QByteArray body = whole.body();
        if (whole.headerFieldValue("Transfer-Encoding").toLower() == "chunked") {
            QVStreamer decoder;
            decoder.setDelegate(&expected);
            decoder.processChunkedData(whole.body(), body);
        }
        expected.responseComplete(nullptr, body, code);
    }
    FUZZ_CHECK(delegate.calls == expected.calls);
    return 0;
}
