#pragma once

#include <QByteArray>

/** @brief Hoplift's one diagnostic call: a printf-style line to stderr and the system log. */
void hlog(const char *format, ...) __attribute__((format(printf, 1, 2)));

/** @brief Receives a copy of every logged line (used by tests); nullptr removes it. */
using HLogObserver = void (*)(const QByteArray &line);
void hlogSetObserver(HLogObserver observer);

/**
 * @brief The assertion handler: logs a failed condition with the file name and line given
 * and returns; the caller then refuses what it was asked to do.
 */
void hassert(const char *file, int line, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
