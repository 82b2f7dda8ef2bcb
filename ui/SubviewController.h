#pragma once

#include <QObject>
#include <QPointer>
#include <QString>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

class QLabel;
class QPainterPath;
class QRectF;
class QProgressBar;
class QVRolloverButton;
class QVSubView;
class SubviewController;

/** @brief Receiver of a row's button presses: 1 stop, 2 delete, 3 restart. */
class SubviewActionObject
{
public:
    virtual ~SubviewActionObject() = default;
    virtual void buttonPressed(SubviewController *sender, int buttonIndex) = 0;
};

/**
 * @brief One queued item of the upload list: its path, size and upload state (0 queued,
 * 1 uploading, 2 processing, 3 completed, 4 stopped, 5 failed, 6 restarting), the texts its
 * row shows, and the row's view. The view exists only while the list needs it: view() makes
 * it and applies the row's state to it, releaseView() gives it up.
 */
class SubviewController : public QObject
{
    Q_OBJECT
public:
    using Clock = std::chrono::steady_clock;

    SubviewController();
    ~SubviewController() override;

    /** @brief A new item in state 0; the queue owns it. */
    static std::unique_ptr<SubviewController> controller();
    /** @brief "empty file", "%lu Bytes", "%.1f KB", "%.2f MB", "%.2f GB" or "%d TB". */
    static QString initSizeString(quint64 bytes);
    /** @brief A rectangle with elliptic corners of these radii (at most half its sides). */
    static QPainterPath bezierPathWithRoundRect(const QRectF &rect, qreal xRadius, qreal yRadius);
    /** @brief Replaces the clock behind the time estimates (tests); an empty one restores it. */
    static void setClock(std::function<Clock::time_point()> now);
    /**
     * @brief Told of every row whose state one of the state operations (startUpload() to
     * errorOccurred()) changed, once the row shows its new state; one for the whole
     * process, an empty one removes it. setUploadState() is not reported.
     */
    using StateObserver =
        std::function<void(SubviewController *row, qint32 oldState, qint32 newState)>;
    static void setStateObserver(StateObserver observer);

    /** @brief The receiver of button presses (not owned). */
    void setActionObject(SubviewActionObject *object);
    void setIsBundle(bool bundle);
    bool isBundle() const { return _isBundle; }
    /** @brief The queued path; reads its size (one stat, no icon until a view is made). */
    void setFileWithPath(const QString &path);
    const QString &fileWithPath() const { return _fileWithPath; }
    /** @brief The zip archive made for a bundle. */
    void setBundleFile(const QString &path);
    const QString &bundleFile() const { return _bundleFile; }
    /** @brief Reads the size again and returns it. */
    quint64 uploadSize();
    /** @brief Reads the size of the archive (bundle) or the file; returns its low 32 bits. */
    quint32 calcFileSize();
    /** @brief Whether the path still exists, as file or folder. */
    bool checkFile() const;

    /** @brief The row's view, made on first need with the row's state applied. */
    QVSubView *view();
    /** @brief Gives the view up (the row is far out of sight); view() makes a new one. */
    void releaseView();
    bool hasView() const { return !subview.isNull(); }
    /** @brief 55 while uploading or processing, else 45. */
    float rowHeight();

    qint32 uploadState() const { return _uploadState; }
    bool isUploading() const { return _uploadState == 1 || _uploadState == 2; }
    bool canStop() const { return _uploadState == 0 || _uploadState == 1; }
    bool canReStart() const { return _uploadState == 4 || _uploadState == 5; }
    /** @brief Sets the state without touching the row; state 6 (restarting) is reached only so. */
    void setUploadState(qint32 state) { _uploadState = state; }
    /** @brief The error number of the last failure. */
    qint32 errorNumber() const { return errNum; }

    /** @brief State 1: the estimate starts now. */
    void startUpload();
    /** @brief State 2: the service is processing the file. */
    void registering();
    /** @brief State 3. */
    void completed();
    /** @brief State 4. */
    void stopUpload();
    /** @brief State 0. */
    void requeue();
    /** @brief State 5, showing message. */
    void errorOccurred(qint32 errNum, const QString &message);
    /** @brief Percentage 0-100: the bar, and in state 1 the status line with time left. */
    void doProgress(double percent);
    /** @brief prefix, followed by the time left when there is an estimate. */
    QString speedString(const QString &prefix) const;
    /** @brief Sets the status line for the state and lays the view out, if there is one. */
    void updateUI();
    /** @brief Forwarded to the row's buttons. */
    void disableTracking();
    void resetTracking();
    /** @brief A row button was pressed: stop, delete or restart to the action object. */
    void doButtonAction(QObject *sender);
    /** @brief Shows the file selected in the desktop's file manager. */
    void doRevealinFinder();

    /** @brief The status text the row shows now. */
    QString statusLine() const { return statusLineText; }
    /** @brief The last percentage given to doProgress(). */
    double progressValue() const { return _progressValue; }

private:
    void applyToView();
    /** @brief Tells the state observer when the state is no longer oldState. */
    void reportStateChange(qint32 oldState);
    void disposeView();

    QPointer<QVSubView> subview;
    // The controls of subview; valid only while subview exists.
    QProgressBar *progressIndicator = nullptr;
    QLabel *imageView = nullptr;
    QLabel *imageState = nullptr;
    QLabel *fileName = nullptr;
    QLabel *statusText = nullptr;
    QVRolloverButton *buttonRetry = nullptr;
    QVRolloverButton *buttonCancelDel = nullptr;
    QVRolloverButton *buttonOpen = nullptr;
    qint32 status = 0; // reserved
    qint32 errNum = 0;
    quint32 progress = 0;
    float actRowHeight = 45.0f;
    bool _isBundle = false;
    std::optional<Clock::time_point> startTime;
    quint64 _uploadSize = 0;
    qint32 _uploadState = 0;
    QString _fileWithPath;
    QString _bundleFile;
    SubviewActionObject *actionObject = nullptr;
    double _progressValue = 0.0;

    // What the row shows, kept here so that a view made later shows the same.
    QString statusLineText;
    QString cancelDelImage;
    QString cancelDelToolTip;
    // True while a button press is being handled: the handler may delete this row.
    bool dispatching = false;
};
