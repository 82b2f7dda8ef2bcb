#include "app/Log.h"

#include <cstdarg>
#include <cstdio>
#include <syslog.h>

namespace {
HLogObserver observer = nullptr;
}

void hlogSetObserver(HLogObserver o)
{
    observer = o;
}

void hlog(const char *format, ...)
{
    static const bool opened = [] {
        openlog("Hoplift", LOG_PID, LOG_USER);
        return true;
    }();
    Q_UNUSED(opened);

    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    QByteArray line(length > 0 ? length : 0, Qt::Uninitialized);
    if (length > 0)
        std::vsnprintf(line.data(), size_t(length) + 1, format, again);
    va_end(again);

    // One call, one line: the system log keeps embedded line breaks as they are,
    // stderr gets the text followed by a newline.
    syslog(LOG_NOTICE, "%s", line.constData());
    std::fprintf(stderr, "Hoplift: %s\n", line.constData());
    if (observer)
        observer(line);
}

void hassert(const char *file, int line, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    char message[1024];
    std::vsnprintf(message, sizeof message, format, args);
    va_end(args);
    hlog("*** Assertion failure in %s:%d: %s", file, line, message);
}
