#include "net/QVStreamer.h"

#include "app/Log.h"
#include "net/Base64.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr qint64 kPieceSize = 2048;

QByteArray describeHeaders(const QList<QVHttpResponse::HeaderField> &fields)
{
    QByteArray text = "{";
    for (const QVHttpResponse::HeaderField &f : fields)
        text += "\n    " + f.first + " = \"" + f.second + "\";";
    text += fields.isEmpty() ? "}" : "\n}";
    return text;
}

// Reads a hexadecimal number from the start of text, after leading blanks,
// stopping at the first other character; false when there is no digit.
// Values past 32 bits saturate.
bool scanHexInt(QByteArrayView text, quint32 *value)
{
    qsizetype i = 0;
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t'))
        ++i;
    quint64 v = 0;
    bool any = false;
    for (; i < text.size(); ++i) {
        const char c = text[i];
        int digit;
        if (c >= '0' && c <= '9')
            digit = c - '0';
        else if (c >= 'a' && c <= 'f')
            digit = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            digit = c - 'A' + 10;
        else
            break;
        any = true;
        v = qMin<quint64>(v * 16 + quint64(digit), 0xFFFFFFFFu);
    }
    *value = quint32(v);
    return any;
}

} // namespace

// 128 KiB per trip to the kernel instead of one per 2048-byte piece: at loopback speed
// the system calls, not the copying, were what reading cost.
constexpr size_t kReadAheadSize = 128 * 1024;

QVFileStream::QVFileStream(const QString &path)
    : file(std::fopen(QFile::encodeName(path).constData(), "rb"))
{
    if (!file)
        return;
    readAhead = std::make_unique<char[]>(kReadAheadSize);
    std::setvbuf(file, readAhead.get(), _IOFBF, kReadAheadSize);
}

QVFileStream::~QVFileStream()
{
    if (file)
        std::fclose(file);
}

qint64 QVFileStream::read(char *buffer, qint64 maxLength)
{
    if (!file)
        return -1;
    // The stream is this object's alone, so stdio's per-call locking buys nothing.
    const size_t count = fread_unlocked(buffer, 1, size_t(maxLength), file);
    if (count < size_t(maxLength) && ferror_unlocked(file))
        return -1;
    return qint64(count);
}

void QVStreamerDelegate::handleRedirect(QVStreamer *, const QString &, qint32) {}
void QVStreamerDelegate::handleError(QVStreamer *, const QString &, qint32) {}
void QVStreamerDelegate::responseComplete(QVStreamer *, const QByteArray &, quint32) {}
void QVStreamerDelegate::notifyRestart(QVStreamer *, qint32) {}

QVStreamer::QVStreamer(QObject *parent)
    : QObject(parent), _stringBoundary(QStringLiteral("0xKhTmLbOuNdArY")),
      _contentType(QStringLiteral("multipart/form-data; boundary=%1").arg(_stringBoundary)),
      streamPairFactory([] { return new QVSslStreamPair; })
{}

QVStreamer::~QVStreamer()
{
    stopUpload();
    releaseStreams();
    deallocInternalStream();
}

void QVStreamer::setUserName(const QString &name)
{
    userName = name;
    reInitStream = true;
}

void QVStreamer::setPassword(const QString &password)
{
    userPassword = password;
    reInitStream = true;
}

bool QVStreamer::setTargetURL(const QString &url, bool withSSL)
{
    website = QUrl();
    _url.clear();
    useSSL = withSSL;
    const QUrl parsed(url, QUrl::StrictMode);
    if (url.isEmpty() || !parsed.isValid()) {
        hlog("%s is not a valid URL", qUtf8Printable(url));
        Errmsg = QStringLiteral("Invalid URL");
        return false;
    }
    website = parsed;
    _url = url;
    reInitStream = true;
    return true;
}

QString QVStreamer::targetURL() const
{
    const QString host = website.host();
    if (useSSL && (portnum == 0 || portnum == 80 || portnum == 443))
        return QStringLiteral("https://") + host;
    if (portnum != 0 && portnum != 80)
        return QStringLiteral("http://%1:%2").arg(host).arg(portnum);
    return QStringLiteral("http://") + host;
}

bool QVStreamer::setFileWithPath(const QString &path)
{
    uploadFilePath.clear();
    fileSize = 0;
    const QFileInfo info(path);
    if (path.isEmpty() || !info.exists()) {
        Errmsg = QStringLiteral("File not found!");
        return false;
    }
    fileSize = quint64(info.size());
    uploadFilePath = path;
    return true;
}

bool QVStreamer::setUploadFileName(const QString &name)
{
    uploadFileName = name;
    return true;
}

bool QVStreamer::uploadFile(const QString &path, const QString &fileName, const QString &url,
                            bool autoRedirect)
{
    _method = QStringLiteral("POST");
    const bool ssl = url.startsWith(QLatin1String("https:"));
    isFileUpload = true;
    autoredirect = autoRedirect;
    if (!setTargetURL(url, ssl) || !setFileWithPath(path) || !setUploadFileName(fileName))
        return false;
    startStreaming();
    return true;
}

bool QVStreamer::uploadFile(const QString &path, const QString &url, bool autoRedirect)
{
    return uploadFile(path, path, url, autoRedirect);
}

bool QVStreamer::getFromURL(const QString &url, bool autoRedirect)
{
    _method = QStringLiteral("GET");
    const bool ssl = url.startsWith(QLatin1String("https:"));
    isFileUpload = false;
    autoredirect = autoRedirect;
    if (!setTargetURL(url, ssl))
        return false;
    uploadFilePath.clear();
    fileSize = 0;
    startStreaming();
    return true;
}

void QVStreamer::initInternalStream()
{
    byteIndex = 0;
    deallocInternalStream();

    // The authorization value is assembled in a fixed buffer; credentials too long
    // for it are cut off rather than overflowing it.
    const QByteArray credentials = QStringLiteral("%1:%2").arg(userName, userPassword).toUtf8();
    size_t encodedLength = 0;
    char *encoded = cuEnc64direct(reinterpret_cast<const unsigned char *>(credentials.constData()),
                                  size_t(credentials.size()), &encodedLength);
    char authorization[512];
    std::snprintf(authorization, sizeof authorization, "Basic %s", encoded ? encoded : "");
    std::free(encoded);

    msgBody.clear();
    _header.clear();
    _bodystart.clear();
    _bodyend.clear();

    if (isFileUpload) {
        _bodystart += QStringLiteral("--%1\r\n").arg(_stringBoundary).toUtf8();
        _bodystart += QStringLiteral("Content-Disposition: form-data; name=\"file\"; "
                                     "filename=\"%1\"\r\n")
                          .arg(uploadFileName)
                          .toUtf8();
        _bodystart += QByteArrayLiteral("Content-Type: application/octet-stream\r\n\r\n");
        _bodyend += QStringLiteral("\r\n--%1--\r\n").arg(_stringBoundary).toUtf8();
        bodySize = fileSize + quint64(_bodystart.size()) + quint64(_bodyend.size());
    } else {
        bodySize = 0;
    }

    auto field = [this](const char *name, const QByteArray &value) {
        _header += name;
        _header += ": ";
        _header += value;
        _header += "\r\n";
    };
    _header += _method.toUtf8() + ' ' + website.path(QUrl::FullyDecoded).toUtf8() + " HTTP/1.1\r\n";
    field("User-Agent", "Hoplift!(0.2.1) mac");
    field("Authorization", authorization);
    field("Accept", "application/xml");
    if (isFileUpload) {
        const QByteArray length = "Content-Length: " + QByteArray::number(bodySize) + "\r\n";
        field("Content-Type", _contentType.toUtf8());
        _header += length;
    }
    field("Connection", "close");
    _header += "Host: " + website.host().toUtf8() + "\r\n\r\n";

    messageSize = bodySize + quint64(_header.size());
    reInitStream = false;
}

void QVStreamer::startStreaming()
{
    dataSent = 0;
    touched = true;
    timeout = false;
    bodyStart = false;
    repeatCount = 0;
    respCode = 0;
    readfileSize = 0;
    requestFinished = false;
    hasUnwrittenBytes = false;
    response.reset();

    if (reInitStream)
        initInternalStream();

    response = std::make_unique<QVHttpResponse>();
    fileStream.reset();
    if (isFileUpload) {
        // An unopened file stays in place: reading it then fails, which stops the request.
        fileStream = std::make_unique<QVFileStream>(uploadFilePath);
    }
    headerSent = false;

    portnum = website.port(80);
    const quint16 port = useSSL ? 443 : quint16(portnum);

    // A stalled pair left by a time-out or redirect never reaches this request.
    releaseStreams();
    streams = streamPairFactory();
    streams->setClient(this);
    iStream = true;
    oStream = true;

    if (!timer) {
        timer = new QTimer(this);
        timer->setInterval(int(timeoutValue * 1000));
        connect(timer, &QTimer::timeout, this, &QVStreamer::checkTimeOut);
        timer->start();
    }
    streams->open(website.host(), port, useSSL);
}

void QVStreamer::streamHandleEvent(QVStreamSide stream, int eventKind)
{
    touched = true;
    if (eventKind == QVStreamEvent::ErrorOccurred) {
        const int code = streams ? streams->errorCode() : 0;
        const QString message = streams ? streams->errorString() : QString();
        hlog("Error with stream!");
        hlog("Error %i: %s", code, qUtf8Printable(message));
        stopStreaming();
        ErrCode = code;
        Errmsg = message;
        return;
    }
    if (stream == QVStreamSide::Output) {
        if (eventKind == QVStreamEvent::HasSpaceAvailable)
            writeNextPiece();
        else if (eventKind != QVStreamEvent::OpenCompleted)
            hlog("Unknown stream event %d", eventKind);
        return;
    }
    if (eventKind == QVStreamEvent::HasBytesAvailable)
        readResponseBytes();
    else if (eventKind == QVStreamEvent::EndEncountered)
        endOfResponse();
}

void QVStreamer::writeNextPiece()
{
    // A GET is over once its head is out; the mark is not carried from one event
    // to the next, so a partly written last piece of an upload leaves the output open.
    bool finished = !isFileUpload;
    if (!hasUnwrittenBytes) {
        offset = 0;
        msgBody.truncate(0);
        if (!headerSent) {
            msgBody += _header;
            if (!bodyStart)
                msgBody += _bodystart;
            headerSent = true;
        } else {
            bodyStart = true;
            // A file stream released at end of file reads nothing.
            const qint64 count = fileStream ? fileStream->read(fileBuffer, kPieceSize) : 0;
            if (count < 0) {
                hlog("error reading file");
                stopStreaming();
                ErrCode = -1;
                Errmsg = QStringLiteral("Error reading file");
                return;
            }
            fileread += quint64(count);
            msgBody.append(fileBuffer, count);
            if (count < kPieceSize) {
                fileStream.reset();
                msgBody += _bodyend;
                finished = true;
            }
        }
    }

    const qint64 remainder = msgBody.size() - qint64(offset);
    const qint64 written = streams ? streams->write(msgBody.constData() + offset, remainder) : -1;
    if (written > 0)
        dataSent += quint64(written);
    else
        hlog("write error !!");
    if (written > 0 && written < remainder) {
        hasUnwrittenBytes = true;
        offset += quint64(written);
    } else {
        hasUnwrittenBytes = false;
        offset = 0;
    }
    if (finished && offset == 0)
        finalizeStream(oStream);
}

void QVStreamer::readResponseBytes()
{
    if (!streams)
        return;
    const qint64 count = streams->read(streamBuffer, kPieceSize);
    if (count >= 1 && count <= kPieceSize && response)
        response->appendBytes(streamBuffer, count);
    // Every answer Hoplift asks for is small (documents, artwork, an upload's receipt);
    // a server that never stops sending is cut off like a broken connection.
    if (response && response->body().size() > kMaxResponseBody) {
        hlog("Error with stream!");
        hlog("Error %i: %s", EFBIG, "response larger than 64 MiB");
        stopStreaming();
        ErrCode = EFBIG;
        Errmsg = QStringLiteral("response larger than 64 MiB");
    }
}

void QVStreamer::endOfResponse()
{
    respCode = response ? response->statusCode() : 0;
    if (respCode >= 300 && respCode <= 399) {
        hlog("Header %s", describeHeaders(response->allHeaderFields()).constData());
        const QByteArray location = response->headerFieldValue("Location");
        handleRedirect(location.isNull() ? QString() : QString::fromUtf8(location), -1);
        return;
    }

    const QByteArray raw = response ? response->body() : QByteArray();
    const QByteArray encoding =
        response ? response->headerFieldValue("Transfer-Encoding") : QByteArray();
    if (!encoding.isNull() && encoding.compare("chunked", Qt::CaseInsensitive) == 0)
        processChunkedData(raw, respBody);
    else
        respBody = raw;
    finalizeStream(iStream);
    responseComplete(respBody, respCode);
}

void QVStreamer::processChunkedData(const QByteArray &raw, QByteArray &result)
{
    result.clear();
    const qsizetype length = raw.size();
    const char *data = raw.constData();
    qsizetype position = 0;
    qsizetype lineStart = 0;
    bool inSizeLine = true;
    bool skippingLineEnds = false;

    while (position < length) {
        const char c = data[position];
        if (skippingLineEnds) {
            if (c == '\r' || c == '\n') {
                ++position;
                continue;
            }
            skippingLineEnds = false;
            inSizeLine = true;
            lineStart = position;
        }
        if (c != '\r' && c != '\n') {
            ++position;
            continue;
        }
        // The size line ends here; its chunk starts one byte past the line end,
        // which skips the LF of a CRLF (and the first data byte after a bare LF).
        const QByteArrayView line(data + lineStart, position - lineStart);
        ++position;
        quint32 size = 0;
        if (!scanHexInt(line, &size)) {
            handleError(QStringLiteral("Chunked message error"), -1);
            return;
        }
        if (size > 0) {
            const qsizetype start = position + 1;
            if (start < length)
                result.append(data + start, qMin<qsizetype>(qsizetype(size), length - start));
            // A size past the end of the data takes what there is and ends the scan.
            position = qMin<qsizetype>(length, position + qsizetype(size) + 1);
        }
        Q_ASSERT(inSizeLine);
        skippingLineEnds = true;
    }
}

void QVStreamer::finalizeStream(bool &stream)
{
    if (!stream)
        return;
    stream = false;
    if (!streams)
        return;
    if (&stream == &iStream)
        streams->closeInput();
    else
        streams->closeOutput();
    if (!iStream && !oStream)
        releaseStreams();
}

void QVStreamer::releaseStreams()
{
    iStream = false;
    oStream = false;
    if (streams)
        streams->release();
    streams = nullptr;
}

void QVStreamer::deallocInternalStream()
{
    fileStream.reset();
    response.reset();
}

void QVStreamer::invalidateTimer()
{
    if (!timer)
        return;
    timer->stop();
    timer->disconnect(this);
    // The tick that got here may be running from this very timer.
    timer->deleteLater();
    timer = nullptr;
}

void QVStreamer::stopStreaming()
{
    invalidateTimer();
    // During a time-out the stalled input is left to the restart, which drops it.
    if (!timeout)
        finalizeStream(iStream);
    finalizeStream(oStream);
    fileStream.reset();
    requestFinished = true;
}

double QVStreamer::progressValue() const
{
    if (bodySize == 0 || dataSent == 0 || messageSize == 0)
        return 0.0;
    return double(dataSent) / double(messageSize);
}

void QVStreamer::restartUpload()
{
    stopStreaming();
    notifyRestart(-1);
    startStreaming();
}

void QVStreamer::checkTimeOut()
{
    if (touched) {
        touched = false;
        return;
    }
    doTimeOut();
    if (timeout)
        invalidateTimer();
}

void QVStreamer::doTimeOut()
{
    hlog("timeout !");
    // Everything is sent: the answer may take as long as the server needs.
    if (dataSent == messageSize && waitInfinitive)
        return;
    timeout = true;
    ++repeatCount;
    // startStreaming() clears repeatCount, so a silence is retried for as long as it recurs.
    if (repeatCount < 3) {
        hlog("restarting ...");
        restartUpload();
        hlog("restart done!");
    } else {
        handleError(QStringLiteral("timeout"), -1);
    }
}

void QVStreamer::doError(const QString &message, qint32 code, bool retryCount)
{
    if (retryCount) {
        ++repeatCount;
        if (repeatCount < 3) {
            restartUpload();
            return;
        }
    }
    handleError(message, code);
}

bool QVStreamer::isValidDelegateForSelector(QVStreamerCallback callback) const
{
    return delegateRef && delegateRef->respondsToCallback(callback);
}

void QVStreamer::handleRedirect(const QString &newURL, qint32 code)
{
    if (isValidDelegateForSelector(QVStreamerCallback::HandleRedirect)) {
        delegateRef->handleRedirect(this, newURL, code);
        return;
    }
    if (autoredirect && setTargetURL(newURL, newURL.startsWith(QLatin1String("https:")))) {
        startStreaming();
        return;
    }
    handleError(QStringLiteral("Redirect failed"), -1);
}

void QVStreamer::handleError(const QString &message, qint32 code)
{
    stopStreaming();
    if (isValidDelegateForSelector(QVStreamerCallback::HandleError))
        delegateRef->handleError(this, message, code);
    else
        hlog("Error:%s - %d", qUtf8Printable(message), code);
}

void QVStreamer::responseComplete(const QByteArray &body, quint32 code)
{
    requestFinished = true;
    invalidateTimer();
    if (isValidDelegateForSelector(QVStreamerCallback::ResponseComplete))
        delegateRef->responseComplete(this, body, code);
    else
        hlog("Response-Code (%d):\n%s", int(code), QString::fromUtf8(body).toUtf8().constData());
}

void QVStreamer::notifyRestart(qint32 code)
{
    if (isValidDelegateForSelector(QVStreamerCallback::NotifyRestart))
        delegateRef->notifyRestart(this, code);
}
