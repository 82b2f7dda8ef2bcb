#pragma once

#include <QByteArrayList>

/** @brief Collects every line Hoplift logs while it exists. */
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    QByteArrayList lines() const;
    /** @brief How many lines equal text exactly. */
    int count(const QByteArray &text) const;
    void clear();
};
