#include "net/QVHttpResponse.h"

namespace {

QByteArrayView chopCR(QByteArrayView line)
{
    return line.endsWith('\r') ? line.chopped(1) : line;
}

// "HTTP/1.1 200 OK": the three digits after the first blank, else 0.
quint32 parseStatusLine(QByteArrayView line)
{
    if (!line.startsWith("HTTP/"))
        return 0;
    const qsizetype blank = line.indexOf(' ');
    if (blank < 0)
        return 0;
    QByteArrayView rest = line.sliced(blank).trimmed();
    if (rest.size() < 3)
        return 0;
    quint32 code = 0;
    for (int i = 0; i < 3; ++i) {
        const char c = rest[i];
        if (c < '0' || c > '9')
            return 0;
        code = code * 10 + quint32(c - '0');
    }
    if (rest.size() > 3 && rest[3] != ' ' && rest[3] != '\t')
        return 0;
    return code;
}

} // namespace

void QVHttpResponse::appendBytes(const char *data, qsizetype count)
{
    if (count <= 0)
        return;
    if (headerComplete) {
        rawBody.append(data, count);
        return;
    }

    const qsizetype scanFrom = qMax<qsizetype>(0, pending.size() - 2);
    pending.append(data, count);

    // Lines end in LF or CRLF; empty lines before the status line are skipped.
    qsizetype start = 0;
    while (start < pending.size() && (pending[start] == '\r' || pending[start] == '\n')) {
        if (pending[start] == '\r' && start + 1 == pending.size())
            break;
        ++start;
    }
    qsizetype end = -1;
    qsizetype bodyAt = -1;
    for (qsizetype i = qMax(scanFrom, start); i < pending.size(); ++i) {
        if (pending[i] != '\n' || i == start)
            continue;
        // A line feed followed by an empty line (LF or CRLF) ends the head.
        if (i + 1 < pending.size() && pending[i + 1] == '\n') {
            end = i;
            bodyAt = i + 2;
            break;
        }
        if (i + 2 < pending.size() && pending[i + 1] == '\r' && pending[i + 2] == '\n') {
            end = i;
            bodyAt = i + 3;
            break;
        }
    }
    if (end < 0)
        return;

    headerComplete = true;
    parseHead(QByteArrayView(pending).sliced(start, end - start));
    rawBody = pending.mid(bodyAt);
    pending = QByteArray();
}

void QVHttpResponse::parseHead(QByteArrayView head)
{
    qsizetype lineStart = 0;
    bool first = true;
    while (lineStart <= head.size()) {
        qsizetype lf = head.indexOf('\n', lineStart);
        if (lf < 0)
            lf = head.size();
        const QByteArrayView line = chopCR(head.sliced(lineStart, lf - lineStart));
        lineStart = lf + 1;

        if (first) {
            status = parseStatusLine(line);
            first = false;
            continue;
        }
        if (line.isEmpty())
            continue;
        if ((line[0] == ' ' || line[0] == '\t') && !fields.isEmpty()) {
            // A folded line continues the previous field's value.
            QByteArray &value = fields.last().second;
            value += ' ';
            value += line.trimmed();
            continue;
        }
        const qsizetype colon = line.indexOf(':');
        if (colon <= 0)
            continue;
        const QByteArray name = line.first(colon).trimmed().toByteArray();
        const QByteArray value = line.sliced(colon + 1).trimmed().toByteArray();
        bool merged = false;
        for (HeaderField &f : fields) {
            if (f.first.compare(name, Qt::CaseInsensitive) == 0) {
                f.second += ", ";
                f.second += value;
                merged = true;
                break;
            }
        }
        if (!merged)
            fields.append({name, value});
    }
}

QByteArray QVHttpResponse::headerFieldValue(QByteArrayView name) const
{
    for (const HeaderField &f : fields) {
        if (QByteArrayView(f.first).compare(name, Qt::CaseInsensitive) == 0)
            return f.second.isNull() ? QByteArray("") : f.second;
    }
    return QByteArray();
}
