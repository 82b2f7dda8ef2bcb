#pragma once

#include <QString>
#include <QStringList>

#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

/**
 * @brief Writes the saved queue to the settings file on a thread of its own, so that a long
 * queue is not written out on the window's thread after every change. A change handed over
 * while a write runs is folded into the next write (the newest list wins); wait() returns
 * once everything handed over is on disk.
 */
class QueueSaver
{
public:
    explicit QueueSaver(QString key);
    /** @brief Waits for the last write. */
    ~QueueSaver();
    QueueSaver(const QueueSaver &) = delete;
    QueueSaver &operator=(const QueueSaver &) = delete;

    /** @brief Stores paths under the key, or removes the key when there are none. */
    void save(QStringList paths);
    /** @brief Returns once every list handed to save() is written. */
    void wait();

private:
    void run();

    const QString key;
    std::mutex mutex;
    std::condition_variable handedOver;
    std::condition_variable written;
    std::optional<QStringList> pending;
    bool writing = false;
    bool stopping = false;
    std::thread worker;
};
