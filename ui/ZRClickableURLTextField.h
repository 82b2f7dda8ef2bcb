#pragma once

#include <QLabel>
#include <QUrl>

class QFont;

/**
 * @brief A text field whose link runs open their URL when clicked. A click elsewhere opens
 * the field's target URL when it has one; every click is reported through clicked().
 */
class ZRClickableURLTextField : public QLabel
{
    Q_OBJECT
public:
    explicit ZRClickableURLTextField(QWidget *parent = nullptr);

    /**
     * @brief Link text for a field: the first occurrence of underlineText (the whole text
     * when it is null) is underlined and, given a URL, linked; a font applies to all of it.
     */
    static QString hyperlinkFromString(const QString &text, const QString &underlineText,
                                       const QUrl &url, const QFont *font = nullptr);

    /**
     * @brief Shows link text made by hyperlinkFromString(); link runs take the field's
     * text colour, also when it changes later.
     */
    void setAttributedStringValue(const QString &html);
    QString attributedStringValue() const { return storage; }

    void setTargetURL(const QUrl &url) { targetURL = url; }
    QUrl target() const { return targetURL; }
    /** @brief The link under a point of the field, or an empty string. */
    QString linkAt(const QPoint &point) const;

Q_SIGNALS:
    void clicked(ZRClickableURLTextField *sender);

protected:
    void mouseReleaseEvent(QMouseEvent *event) override;
    void changeEvent(QEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    void paintEvent(QPaintEvent *event) override;

private:
    void applyStorage();

    QString storage;
    QUrl targetURL;
};
