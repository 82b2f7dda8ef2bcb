#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>

#include <array>
#include <optional>

class MainController;
class QWidget;
class SubviewController;

/**
 * @brief Speaks for Hoplift while its window is out of sight: desktop notifications
 * (org.freedesktop.Notifications) when the queue has run empty after uploads and when a row
 * fails, and the taskbar's progress and count (com.canonical.Unity.LauncherEntry) while
 * rows wait. It follows the rows through SubviewController's state observer; every bus call
 * is asynchronous.
 *
 * A notification replaces the one of its kind shown before, so a long batch gives one
 * notice. Notifications go out only while the window is not the active window; without a
 * notification service nothing is shown, and that is logged once.
 */
class DesktopNotifier : public QObject
{
    Q_OBJECT
public:
    /** @brief Follows controller's queue; window is what "active" and a click refer to. */
    DesktopNotifier(MainController *controller, QWidget *window);
    ~DesktopNotifier() override;

private Q_SLOTS:
    /** @brief A notification's action was chosen: "default" raises the window. */
    void actionInvoked(uint id, const QString &action);

private:
    enum Kind
    {
        Completion,
        Failure,
    };
    struct Notice
    {
        QString summary;
        QString body;
        QString category;
        QPointer<SubviewController> row; // selected when the notice is clicked
    };
    // One kind of notification: the id it has on the desktop, and the notice that waits
    // for the answer to the one in flight, so that it can replace that one.
    struct Channel
    {
        uint id = 0;
        bool inFlight = false;
        std::optional<Notice> waiting;
        QPointer<SubviewController> row;
    };

    void stateChanged(SubviewController *row, qint32 oldState, qint32 newState);
    /** @brief Whether any row is queued or uploading. */
    bool anyWaiting() const;
    /** @brief Every tick while rows wait: the taskbar, or the end of the batch. */
    void tick();
    /** @brief The queue ran empty: clears the taskbar and tells of the batch. */
    void queueIdle();
    void notify(Kind kind, Notice notice);
    void send(Kind kind, const Notice &notice);
    void updateLauncher(std::optional<double> progress, qint64 count);
    bool windowIsActive() const;

    MainController *controller;
    QPointer<QWidget> window;
    QTimer ticker;
    QElapsedTimer sinceLauncher; // since the last taskbar update
    bool launcherShown = false;
    double shownProgress = -1;
    qint64 shownCount = -1;
    // The batch: rows completed since the queue was last empty.
    int batchFiles = 0;
    quint64 batchBytes = 0;
    QPointer<SubviewController> lastCompleted;
    std::array<Channel, 2> channels;
    bool absenceLogged = false;
};
