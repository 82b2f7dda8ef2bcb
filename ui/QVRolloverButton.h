#pragma once

#include <QAbstractButton>
#include <QList>
#include <QPixmap>
#include <QString>

/** @brief Posted by the queue before it changes many rows: buttons drop their hover areas. */
extern const QString ButtonTrackingDisable;
/** @brief Posted by the queue after such a change: buttons install their hover areas again. */
extern const QString ButtonTrackingEnable;
/** @brief Posted after the list scrolled: buttons re-install their areas where they are now. */
extern const QString ButtonTrackingReset;

/** @brief Delivers one of the three tracking notifications to every button that observes it. */
void postButtonTrackingNotification(const QString &name, QObject *object);

/**
 * @brief An image button that swaps to its "NAME-hover" image while the pointer is over its
 * hover area. The area is installed by addTracking() and can be switched off for good with
 * disableTracking(); the row buttons of the upload list are switched off that way.
 */
class QVRolloverButton : public QAbstractButton
{
    Q_OBJECT
public:
    explicit QVRolloverButton(QWidget *parent = nullptr);
    ~QVRolloverButton() override;

    /** @brief Shows the compiled-in image :/images/NAME (nothing when it does not exist). */
    void setImage(const QString &name);
    /** @brief The name of the image shown now; empty without one. */
    const QString &image() const { return currentImage; }
    /** @brief The base name of the hover pair: "NAME" at rest, "NAME-hover" under the pointer. */
    void setImageName(const QString &name);
    const QString &rolloverImageName() const { return imageName; }
    /** @brief The hover area's tag: 0 none, positive installed, -1 tracking disabled. */
    qint32 trackingTag() const { return trackingRect; }

    /** @brief (Re-)installs the hover area over the visible part; nothing once disabled. */
    void addTracking();
    /** @brief Removes the hover area, if one is installed. */
    void removeTracking();
    /** @brief Stops tracking for good: no area, no notifications, the plain image back. */
    void disableTracking();
    /** @brief The pointer entered the hover area: shows "NAME-hover" when it exists. */
    void mouseEntered();
    /** @brief The pointer left the hover area: shows "NAME". */
    void mouseExited();

    /** @brief Handlers of the three notifications. */
    void buttonTrackingReset();
    void buttonTrackingDisable();
    void buttonTrackingEnable();

    /** @brief Every live rollover button, oldest first. */
    static const QList<QVRolloverButton *> &trackingButtons();
    /** @brief Installs an area over the button's visible rectangle; its tag, or 0 for none. */
    static qint32 addTrackingRect(QVRolloverButton *button);
    /** @brief Removes the area with this tag; unknown tags are ignored. */
    static void removeTrackingRect(QVRolloverButton *button, qint32 tag);
    /** @brief Sends mouseExited to every button, so no hover image outlives a row change. */
    static void notifyExitTracking();
    /** @brief A compiled-in SVG image at its own size, rendered for the pixel ratio; cached. */
    static QPixmap namedImage(const QString &name, qreal devicePixelRatio);
    /** @brief Whether :/images/NAME exists. */
    static bool imageExists(const QString &name);

    QSize sizeHint() const override;

protected:
    bool event(QEvent *event) override;
    void paintEvent(QPaintEvent *event) override;
    void enterEvent(QEnterEvent *event) override;
    void leaveEvent(QEvent *event) override;
    void moveEvent(QMoveEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;

private:
    void learnImageName();

    qint32 trackingRect = 0;
    QString imageName;
    QString currentImage;
};
