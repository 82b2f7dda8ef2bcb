#include "support/FakeStreamPair.h"

#include <cstring>

FakeStreamPair::FakeStreamPair(std::shared_ptr<FakeWire> w) : wire(std::move(w)) {}

void FakeStreamPair::open(const QString &host, quint16 port, bool tls)
{
    wire->host = host;
    wire->port = port;
    wire->tls = tls;
}

qint64 FakeStreamPair::read(char *buffer, qint64 maxLength)
{
    const qint64 n = qMin<qint64>(maxLength, wire->incoming.size());
    std::memcpy(buffer, wire->incoming.constData(), size_t(n));
    wire->incoming.remove(0, n);
    return n;
}

qint64 FakeStreamPair::write(const char *data, qint64 length)
{
    qint64 n = length;
    if (!wire->acceptPlan.isEmpty())
        n = qMin(n, wire->acceptPlan.takeFirst());
    if (n > 0) {
        wire->written.append(data, n);
        wire->takes.append(QByteArray(data, n));
    }
    return n;
}

void FakeStreamPair::closeInput()
{
    wire->inputClosed = true;
}

void FakeStreamPair::closeOutput()
{
    wire->outputClosed = true;
}

int FakeStreamPair::drainOutput(int limit)
{
    int events = 0;
    while (!wire->outputClosed && !wire->released && events < limit) {
        if (!fire(QVStreamSide::Output, QVStreamEvent::HasSpaceAvailable))
            break;
        ++events;
    }
    return events;
}
