#pragma once

#include <sanitizer/common_interface_defs.h>

#include <QByteArray>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

/**
 * @brief A property every input must keep. A broken one reports where and what (through the
 * sanitizers' report channel, which stays open when the test closes standard error), then
 * aborts: libFuzzer reports a crash and keeps the input as an artifact.
 */
#define FUZZ_CHECK(condition)                                                                      \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            char what[512];                                                                        \
            std::snprintf(what, sizeof what, "%s:%d: check failed: %s", __FILE__, __LINE__,        \
                          #condition);                                                             \
            __sanitizer_report_error_summary(what);                                                \
            std::abort();                                                                          \
        }                                                                                          \
    } while (false)

/** @brief A small deterministic sequence drawn from one input byte (piece sizes, styles). */
class FuzzSequence
{
public:
    explicit FuzzSequence(unsigned seed) : state(seed * 2654435761u + 1u) {}
    unsigned next(unsigned bound) // 0 to bound - 1
    {
        state = state * 1103515245u + 12345u;
        return (state >> 16) % bound;
    }

private:
    unsigned state;
};

/** @brief Hands text to take() in copies of 1 to longest bytes, as cuts says. */
template <typename Take>
void inPieces(const QByteArray &text, FuzzSequence &cuts, unsigned longest, Take take)
{
    for (qsizetype at = 0; at < text.size();) {
        const qsizetype length = qMin<qsizetype>(1 + cuts.next(longest), text.size() - at);
        take(text.mid(at, length));
        at += length;
    }
}

/** @brief The Qt application of a target: libFuzzer's arguments are none of Qt's business. */
template <typename Application> void startQt(const char *name)
{
    static int argc = 1;
    static char *argv[] = {const_cast<char *>(name), nullptr};
    new Application(argc, argv);
}
