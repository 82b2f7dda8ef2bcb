#include "queue/QueueSaver.h"

#include "app/MainController.h"

#include <QSettings>

QueueSaver::QueueSaver(QString k) : key(std::move(k)) {}

QueueSaver::~QueueSaver()
{
    {
        std::lock_guard lock(mutex);
        stopping = true;
    }
    handedOver.notify_one();
    if (worker.joinable())
        worker.join();
}

void QueueSaver::save(QStringList paths)
{
    std::lock_guard lock(mutex);
    pending = std::move(paths);
    if (!worker.joinable())
        worker = std::thread(&QueueSaver::run, this);
    handedOver.notify_one();
}

void QueueSaver::wait()
{
    std::unique_lock lock(mutex);
    written.wait(lock, [this] { return !pending && !writing; });
}

void QueueSaver::run()
{
    std::unique_lock lock(mutex);
    for (;;) {
        handedOver.wait(lock, [this] { return pending || stopping; });
        // What was handed over before the stop is still written.
        if (!pending)
            return;
        const QStringList paths = std::move(*pending);
        pending.reset();
        writing = true;
        lock.unlock();
        {
            // QSettings objects on different threads may share one file: Qt serialises them.
            QSettings settings;
            if (paths.isEmpty())
                settings.remove(key);
            else
                settings.setValue(key, paths);
            syncSettings(settings);
        }
        lock.lock();
        writing = false;
        written.notify_all();
    }
}
