#include "ui/ZRClickableURLTextField.h"

#include <QAbstractTextDocumentLayout>
#include <QDesktopServices>
#include <QFont>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QStyleOptionFocusRect>
#include <QStylePainter>
#include <QTextBlock>
#include <QTextDocument>

ZRClickableURLTextField::ZRClickableURLTextField(QWidget *parent) : QLabel(parent)
{
    setTextFormat(Qt::RichText);
    // The whole field shows the hand, not only its link runs.
    setCursor(Qt::PointingHandCursor);
    // Reachable with Tab; Return or Space act as a click on the field's first link.
    setFocusPolicy(Qt::StrongFocus);
}

QString ZRClickableURLTextField::hyperlinkFromString(const QString &text,
                                                     const QString &underlineText, const QUrl &url,
                                                     const QFont *font)
{
    qsizetype start = 0;
    qsizetype length = text.size();
    if (!underlineText.isNull()) {
        start = underlineText.isEmpty() ? -1 : text.indexOf(underlineText);
        length = start < 0 ? 0 : underlineText.size();
        start = std::max<qsizetype>(start, 0);
    }
    QString run = text.mid(start, length).toHtmlEscaped();
    if (length > 0) {
        run = QStringLiteral("<u>%1</u>").arg(run);
        if (url.isValid())
            run = QStringLiteral("<a href=\"%1\">%2</a>")
                      .arg(QString::fromUtf8(url.toEncoded()).toHtmlEscaped(), run);
    }
    QString html =
        text.left(start).toHtmlEscaped() + run + text.mid(start + length).toHtmlEscaped();
    if (font) {
        // A font set in pixels has no point size.
        const QString size = font->pointSizeF() > 0 ? QStringLiteral("%1pt").arg(font->pointSizeF())
                                                    : QStringLiteral("%1px").arg(font->pixelSize());
        html = QStringLiteral("<span style=\"font-family:'%1'; font-size:%2\">%3</span>")
                   .arg(font->family().toHtmlEscaped(), size, html);
    }
    return html;
}

void ZRClickableURLTextField::setAttributedStringValue(const QString &html)
{
    storage = html;
    applyStorage();
}

void ZRClickableURLTextField::applyStorage()
{
    // Rich text paints anchors in the application's link colour; the field's own colour
    // is written into each anchor instead.
    const QString color = palette().color(foregroundRole()).name(QColor::HexArgb);
    QString html = storage;
    html.replace(QLatin1String("<a href="),
                 QStringLiteral("<a style=\"color:%1\" href=").arg(color));
    setText(html);
}

void ZRClickableURLTextField::changeEvent(QEvent *event)
{
    QLabel::changeEvent(event);
    if (event->type() == QEvent::PaletteChange && !storage.isNull())
        applyStorage();
}

QString ZRClickableURLTextField::linkAt(const QPoint &point) const
{
    const QRect area = contentsRect();
    if (text().isEmpty() || !area.contains(point))
        return QString();
    // Lay the text out the way the label does and ask that layout.
    QTextDocument document;
    document.setDocumentMargin(0);
    document.setDefaultFont(font());
    document.setHtml(text());
    QTextOption option(alignment() & Qt::AlignHorizontal_Mask);
    option.setWrapMode(wordWrap() ? QTextOption::WordWrap : QTextOption::NoWrap);
    document.setDefaultTextOption(option);
    document.setTextWidth(area.width());
    QPointF offset = area.topLeft();
    const qreal spare = area.height() - document.size().height();
    if (alignment() & Qt::AlignVCenter)
        offset.ry() += spare / 2;
    else if (alignment() & Qt::AlignBottom)
        offset.ry() += spare;
    return document.documentLayout()->anchorAt(QPointF(point) - offset);
}

void ZRClickableURLTextField::mouseReleaseEvent(QMouseEvent *event)
{
    if (event->button() != Qt::LeftButton) {
        QLabel::mouseReleaseEvent(event);
        return;
    }
    const QString link = linkAt(event->position().toPoint());
    if (!link.isEmpty())
        QDesktopServices::openUrl(QUrl::fromEncoded(link.toUtf8()));
    else if (targetURL.isValid())
        QDesktopServices::openUrl(targetURL);
    emit clicked(this);
    QLabel::mouseReleaseEvent(event);
}

void ZRClickableURLTextField::keyPressEvent(QKeyEvent *event)
{
    if (event->key() != Qt::Key_Return && event->key() != Qt::Key_Enter &&
        event->key() != Qt::Key_Space) {
        QLabel::keyPressEvent(event);
        return;
    }
    QTextDocument document;
    document.setHtml(text());
    QString link;
    for (QTextBlock block = document.begin(); block.isValid() && link.isEmpty();
         block = block.next()) {
        for (auto it = block.begin(); !it.atEnd() && link.isEmpty(); ++it)
            link = it.fragment().charFormat().anchorHref();
    }
    if (!link.isEmpty())
        QDesktopServices::openUrl(QUrl::fromEncoded(link.toUtf8()));
    else if (targetURL.isValid())
        QDesktopServices::openUrl(targetURL);
    emit clicked(this);
}

void ZRClickableURLTextField::paintEvent(QPaintEvent *event)
{
    QLabel::paintEvent(event);
    if (!hasFocus())
        return;
    // A label draws no focus of its own; keyboard users need to see where they are.
    QStylePainter painter(this);
    QStyleOptionFocusRect option;
    option.initFrom(this);
    option.backgroundColor = palette().color(backgroundRole());
    painter.drawPrimitive(QStyle::PE_FrameFocusRect, option);
}
