#pragma once

#include <sanitizer/common_interface_defs.h>

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
    /** @brief A number from 0 to bound - 1; bound must not be 0. */
    unsigned next(unsigned bound)
    {
        state = state * 1103515245u + 12345u;
        return (state >> 16) % bound;
    }

private:
    unsigned state;
};
