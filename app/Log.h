#pragma once

#include <QByteArray>

/** @brief Hoplift's one diagnostic call: a printf-style line to stderr and the system log. */
void hlog(const char *format, ...) __attribute__((format(printf, 1, 2)));

/** @brief Receives a copy of every logged line (used by tests); nullptr removes it. */
using HLogObserver = void (*)(const QByteArray &line);
void hlogSetObserver(HLogObserver observer);
