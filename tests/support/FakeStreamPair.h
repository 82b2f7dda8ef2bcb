#pragma once

#include "net/QVSocketStreamPair.h"

#include <QByteArray>
#include <QList>

#include <memory>

/** @brief What a FakeStreamPair saw and will hand out; outlives the pair. */
struct FakeWire
{
    QString host;
    quint16 port = 0;
    bool tls = false;
    QByteArray written;       // every byte the pair took, in order
    QList<QByteArray> takes;  // the bytes of each write, one entry per call
    QList<qint64> acceptPlan; // per write: at most this many bytes; empty: all
    QByteArray incoming;      // bytes read() hands out
    bool inputClosed = false;
    bool outputClosed = false;
    bool released = false;
    int errorCode = 0;
    QString errorString;
};

/** @brief A stream pair whose events the test fires by hand. */
class FakeStreamPair : public QVSocketStreamPair
{
    Q_OBJECT
public:
    explicit FakeStreamPair(std::shared_ptr<FakeWire> wire);

    void open(const QString &host, quint16 port, bool tls) override;
    qint64 read(char *buffer, qint64 maxLength) override;
    qint64 write(const char *data, qint64 length) override;
    void closeInput() override;
    void closeOutput() override;
    int errorCode() const override { return wire->errorCode; }
    QString errorString() const override { return wire->errorString; }

    /** @brief Delivers one event; false when the client has let go of the pair. */
    bool fire(QVStreamSide stream, int eventKind) { return deliver(stream, eventKind); }
    /** @brief Space events until the output closes (at most limit); returns how many. */
    int drainOutput(int limit = 100000);

protected:
    void abortConnection() override { wire->released = true; }

private:
    std::shared_ptr<FakeWire> wire;
};
