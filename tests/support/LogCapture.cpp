#include "support/LogCapture.h"

#include "app/Log.h"

namespace {
QByteArrayList captured;
void collect(const QByteArray &line)
{
    captured.append(line);
}
} // namespace

LogCapture::LogCapture()
{
    captured.clear();
    hlogSetObserver(collect);
}

LogCapture::~LogCapture()
{
    hlogSetObserver(nullptr);
}

QByteArrayList LogCapture::lines() const
{
    return captured;
}

int LogCapture::count(const QByteArray &text) const
{
    return int(captured.count(text));
}

void LogCapture::clear()
{
    captured.clear();
}
