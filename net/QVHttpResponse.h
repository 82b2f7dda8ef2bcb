#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>

/**
 * @brief Incremental HTTP response parser: bytes are appended as they arrive; the
 * head is parsed once it is complete and the body is kept raw (still chunked if it was).
 */
class QVHttpResponse
{
public:
    using HeaderField = QPair<QByteArray, QByteArray>;

    /** @brief Adds the next bytes of the response. */
    void appendBytes(const char *data, qsizetype count);

    /** @brief True once the blank line that ends the head has arrived. */
    bool isHeaderComplete() const { return headerComplete; }

    /** @brief The status code, or 0 while the head is incomplete or its status line unreadable. */
    quint32 statusCode() const { return status; }

    /** @brief Every header field in order of first appearance; repeated names are joined with ", ".
     */
    const QList<HeaderField> &allHeaderFields() const { return fields; }

    /** @brief The value of the named field, compared without case; a null array when missing. */
    QByteArray headerFieldValue(QByteArrayView name) const;

    /** @brief The bytes that followed the head, as received. */
    const QByteArray &body() const { return rawBody; }

private:
    void parseHead(QByteArrayView head);

    QByteArray pending; // head bytes received so far
    QByteArray rawBody;
    QList<HeaderField> fields;
    quint32 status = 0;
    bool headerComplete = false;
};
