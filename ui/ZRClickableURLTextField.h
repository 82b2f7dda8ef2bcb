#pragma once

#include <QLabel>
#include <QUrl>

/**
 * @brief A text field that shows links and reacts to clicks: a click opens its target URL
 * when it has one, and is reported through clicked() either way.
 */
class ZRClickableURLTextField : public QLabel
{
    Q_OBJECT
public:
    explicit ZRClickableURLTextField(QWidget *parent = nullptr);

    void setTargetURL(const QUrl &url) { targetURL = url; }
    QUrl target() const { return targetURL; }

Q_SIGNALS:
    void clicked(ZRClickableURLTextField *sender);

protected:
    void mouseReleaseEvent(QMouseEvent *event) override;

private:
    QUrl targetURL;
};
