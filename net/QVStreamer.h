#pragma once

#include "net/QVHttpResponse.h"
#include "net/QVSocketStreamPair.h"

#include <QByteArray>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>
#include <QUrl>

#include <cstdio>
#include <functional>
#include <memory>

/** @brief The most body bytes an answer may bring; more ends the request as an error. */
constexpr qsizetype kMaxResponseBody = qsizetype(64) << 20;

class QVStreamer;

/**
 * @brief The file of an upload, read front to back. Pieces are copied out of a read-ahead
 * buffer, so that the kernel is asked for a large block only now and then.
 */
class QVFileStream
{
public:
    explicit QVFileStream(const QString &path);
    ~QVFileStream();
    QVFileStream(const QVFileStream &) = delete;
    QVFileStream &operator=(const QVFileStream &) = delete;
    /** @brief Up to maxLength bytes: the count, 0 at the end, -1 when the file cannot be read. */
    qint64 read(char *buffer, qint64 maxLength);

private:
    std::FILE *file = nullptr;
    std::unique_ptr<char[]> readAhead;
};

/** @brief The four optional callbacks of a QVStreamer, as asked for with respondsToCallback(). */
enum class QVStreamerCallback
{
    HandleRedirect,
    HandleError,
    ResponseComplete,
    NotifyRestart
};

/**
 * @brief Receiver of a QVStreamer's outcome. Every callback is optional: the streamer sends
 * only those for which respondsToCallback() answers true, and does its own default otherwise.
 * Callbacks are delivered synchronously; a receiver may start a new request from inside one.
 */
class QVStreamerDelegate
{
public:
    virtual ~QVStreamerDelegate() = default;

    /** @brief Whether this delegate implements the given callback. */
    virtual bool respondsToCallback(QVStreamerCallback callback) const = 0;

    /** @brief A 3xx response; newURL is its Location (null when missing); code is -1. */
    virtual void handleRedirect(QVStreamer *streamer, const QString &newURL, qint32 code);
    /** @brief An error the streamer detected ("timeout", "Redirect failed", "Chunked message
     * error"). */
    virtual void handleError(QVStreamer *streamer, const QString &message, qint32 code);
    /** @brief A non-3xx response read to its end; body stays valid until the next request. */
    virtual void responseComplete(QVStreamer *streamer, const QByteArray &body, quint32 code);
    /** @brief The streamer is sending its request again from the first byte; code is -1. */
    virtual void notifyRestart(QVStreamer *streamer, qint32 code);
};

/**
 * @brief Hoplift's HTTP client: one request at a time over its own socket stream pair, with a
 * hand-built HTTP/1.1 head, basic authentication and multipart uploads streamed from disk.
 *
 * Sources: QVStreamer.cpp holds request composition, stream driving, time-outs, redirects and
 * the callbacks; the response parser is QVHttpResponse.
 */
class QVStreamer : public QObject, private QVStreamPairClient
{
    Q_OBJECT
public:
    using StreamPairFactory = std::function<QVSocketStreamPair *()>;

    explicit QVStreamer(QObject *parent = nullptr);
    ~QVStreamer() override;

    QVStreamerDelegate *delegate() const { return delegateRef; }
    void setDelegate(QVStreamerDelegate *delegate) { delegateRef = delegate; }

    /** @brief Replaces the connection maker (tests hand in fake pairs). */
    void setStreamPairFactory(StreamPairFactory factory) { streamPairFactory = std::move(factory); }

    void setUserName(const QString &name);
    void setPassword(const QString &password);
    /** @brief The time-out tick in seconds; used from the next timer on. */
    void setTimeOut(double seconds) { timeoutValue = seconds; }
    /** @brief Parses and keeps the target URL; false (and "Invalid URL") when it does not parse. */
    bool setTargetURL(const QString &url, bool withSSL);
    /** @brief Scheme, host and a port other than 80 of the target, without path. */
    QString targetURL() const;
    /** @brief Keeps the path and its size; false (and "File not found!") when it does not exist. */
    bool setFileWithPath(const QString &path);
    bool setUploadFileName(const QString &name);

    /** @brief Starts a multipart POST of path under the given file name. */
    bool uploadFile(const QString &path, const QString &fileName, const QString &url,
                    bool autoRedirect);
    /** @brief Starts a multipart POST of path, with the whole path as its file name. */
    bool uploadFile(const QString &path, const QString &url, bool autoRedirect);
    /** @brief Starts a GET. */
    bool getFromURL(const QString &url, bool autoRedirect);

    /** @brief Builds the request head, body start and body end. */
    void initInternalStream();
    /** @brief Connects and starts sending the current request. */
    void startStreaming();
    void stopStreaming();
    void stopUpload() { stopStreaming(); }
    /** @brief Stops and sends the same request again from its first byte. */
    void restartUpload();

    /** @brief Share of the request's bytes taken by the socket; 0 for a GET. */
    double progressValue() const;
    bool isRequestFinished() const { return requestFinished; }

    /** @brief De-chunks raw into result; a bad size line reports "Chunked message error". */
    void processChunkedData(const QByteArray &raw, QByteArray &result);

    /** @brief Restarts (retry, under the limit) or reports an error. */
    void doError(const QString &message, qint32 code, bool retryCount);

    // The engine sends these to itself: each does the engine's part, then forwards
    // to the delegate when it implements the callback.
    void handleRedirect(const QString &newURL, qint32 code);
    void handleError(const QString &message, qint32 code);
    void responseComplete(const QByteArray &body, quint32 code);
    void notifyRestart(qint32 code);

    /** @brief True when a delegate is set and implements the callback. */
    bool isValidDelegateForSelector(QVStreamerCallback callback) const;

    // Read-only views for owners and diagnostics.
    quint32 responseCode() const { return respCode; }
    const QByteArray &responseBody() const { return respBody; }
    qint32 errorCode() const { return ErrCode; }
    const QString &errorMessage() const { return Errmsg; }
    quint64 bytesSent() const { return dataSent; }
    quint64 requestSize() const { return messageSize; }
    const QByteArray &requestHead() const { return _header; }

private:
    void streamHandleEvent(QVStreamSide stream, int eventKind) override;
    void writeNextPiece();
    void readResponseBytes();
    void endOfResponse();
    void checkTimeOut();
    void doTimeOut();
    void finalizeStream(bool &stream);
    void deallocInternalStream();
    void releaseStreams();
    void invalidateTimer();

    QVStreamerDelegate *delegateRef = nullptr;
    char fileBuffer[3072];
    char streamBuffer[3072];
    QByteArray msgBody;
    quint32 respCode = 0;
    QByteArray respBody;
    QByteArray _data;
    QByteArray _header;
    QByteArray _bodystart;
    QByteArray _bodyend;
    QString uploadFilePath;
    QString uploadFileName;
    bool headerSent = false;
    bool bodyStart = false;
    bool isChunked = false;
    bool headerProcessed = false;
    bool useSSL = false;
    bool autoredirect = false;
    bool isFileUpload = false;
    bool reInitStream = true;
    bool requestFinished = false;
    bool timeout = false;
    bool waitInfinitive = true;
    bool hasUnwrittenBytes = false;
    quint64 offset = 0;
    quint64 fileSize = 0;
    quint64 readfileSize = 0;
    quint64 headerSize = 0;
    quint64 bodySize = 0;
    quint64 messageSize = 0;
    quint64 dataSent = 0;
    quint64 fileread = 0;
    qint32 portnum = 0;
    double timeoutValue = 20.0;
    std::unique_ptr<QVHttpResponse> response;
    std::unique_ptr<QVHttpResponse> request;
    quint32 byteIndex = 0;
    std::unique_ptr<QVFileStream> fileStream;
    // Both streams live in one pair; the flags say which of them is still open.
    bool iStream = false;
    bool oStream = false;
    QPointer<QVSocketStreamPair> streams;
    QTimer *timer = nullptr;
    qint32 ErrCode = 0;
    QString Errmsg;
    QUrl website;
    QString _method;
    QString _url;
    QString _stringBoundary;
    QString _contentType;
    QString userPassword;
    QString userName;
    bool touched = false;
    qint32 repeatCount = 0;

    StreamPairFactory streamPairFactory;
};
