// The engine reading an answer off a connection: a GET is sent over a pair that hands the
// input to the engine in pieces (cut as the first byte says) and then ends. The engine must
// report what the response parser and the chunked decoder make of the same bytes.
#include "FuzzCheck.h"
#include "net/QVHttpResponse.h"
#include "net/QVStreamer.h"
#include "support/FakeStreamPair.h"

#include <QCoreApplication>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace {

/** @brief Every callback, in order: the kind, then what came with it. */
class Outcome : public QVStreamerDelegate
{
public:
    bool respondsToCallback(QVStreamerCallback) const override { return true; }
    void handleRedirect(QVStreamer *, const QString &url, qint32 code) override
    {
        calls += "redirect";
        redirectURL = url;
        FUZZ_CHECK(code == -1);
    }
    void handleError(QVStreamer *, const QString &message, qint32 code) override
    {
        calls += "error";
        FUZZ_CHECK(message == QLatin1String("Chunked message error") && code == -1);
    }
    void responseComplete(QVStreamer *, const QByteArray &data, quint32 code) override
    {
        calls += "complete";
        body = data;
        status = code;
    }
    void notifyRestart(QVStreamer *, qint32) override { calls += "restart"; }

    QByteArrayList calls;
    QString redirectURL;
    QByteArray body;
    quint32 status = 0;
};

/** @brief The body the engine should hand over for a response read whole. */
QByteArray expectedBody(const QVHttpResponse &response, bool *chunkError)
{
    const QByteArray encoding = response.headerFieldValue("Transfer-Encoding");
    if (encoding.isNull() || encoding.compare("chunked", Qt::CaseInsensitive) != 0)
        return response.body();
    Outcome note;
    QVStreamer decoder;
    decoder.setDelegate(&note);
    QByteArray body;
    decoder.processChunkedData(response.body(), body);
    *chunkError = note.calls == QByteArrayList{"error"};
    return body;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    static int argc = 1;
    static char name[] = "fuzz-streamer-response";
    static char *argv[] = {name, nullptr};
    new QCoreApplication(argc, argv); // the engine's time-out timer needs one
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
        engine.setStreamPairFactory([&]() -> QVSocketStreamPair * {
            pair = new FakeStreamPair(wire);
            return pair.data();
        });
        FUZZ_CHECK(
            engine.getFromURL(QStringLiteral("http://127.0.0.1:8642/api/account.xml"), false));
        FUZZ_CHECK(pair);
        pair->fire(QVStreamSide::Input, QVStreamEvent::OpenCompleted);
        pair->fire(QVStreamSide::Output, QVStreamEvent::OpenCompleted);
        pair->drainOutput();
        FUZZ_CHECK(wire->written.startsWith("GET /api/account.xml HTTP/1.1\r\n"));

        FuzzSequence cuts(data[0]);
        const unsigned longest = 1 + data[0] % 128u;
        for (qsizetype at = 0; at < input.size();) {
            const qsizetype length = qMin<qsizetype>(1 + cuts.next(longest), input.size() - at);
            wire->incoming += input.mid(at, length);
            at += length;
            while (!wire->incoming.isEmpty())
                FUZZ_CHECK(pair->fire(QVStreamSide::Input, QVStreamEvent::HasBytesAvailable));
        }
        pair->fire(QVStreamSide::Input, QVStreamEvent::EndEncountered);
    }
    // The pair the engine let go of is deleted now, not at an event loop that never runs.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    FUZZ_CHECK(!pair);

    QVHttpResponse whole;
    whole.appendBytes(input.constData(), input.size());
    const quint32 code = whole.statusCode();
    if (code >= 300 && code <= 399) {
        const QByteArray location = whole.headerFieldValue("Location");
        FUZZ_CHECK(delegate.calls == QByteArrayList{"redirect"});
        FUZZ_CHECK(location.isNull() ? delegate.redirectURL.isNull()
                                     : delegate.redirectURL == QString::fromUtf8(location));
        return 0;
    }
    bool chunkError = false;
    const QByteArray body = expectedBody(whole, &chunkError);
    // A bad chunk size line is reported, and what was decoded before it still completes.
    FUZZ_CHECK(delegate.calls ==
               (chunkError ? QByteArrayList{"error", "complete"} : QByteArrayList{"complete"}));
    FUZZ_CHECK(delegate.status == code && delegate.body == body);
    return 0;
}
