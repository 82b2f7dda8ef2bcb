#include "ui/QVRolloverButton.h"

#include <QEnterEvent>
#include <QFile>
#include <QHash>
#include <QPainter>
#include <QSvgRenderer>

#include <set>

const QString ButtonTrackingDisable = QStringLiteral("Button Tracking Disable");
const QString ButtonTrackingEnable = QStringLiteral("Button Tracking Enable");
const QString ButtonTrackingReset = QStringLiteral("Button Tracking Reset");

namespace {

QString imagePath(const QString &name)
{
    return QStringLiteral(":/images/") + name;
}

QList<QVRolloverButton *> &liveButtons()
{
    static QList<QVRolloverButton *> buttons;
    return buttons;
}

// Buttons that still listen to the tracking notifications; disableTracking leaves for good.
QList<QVRolloverButton *> &observers()
{
    static QList<QVRolloverButton *> buttons;
    return buttons;
}

std::set<qint32> &liveTags()
{
    static std::set<qint32> tags;
    return tags;
}

qint32 nextTag = 1;

} // namespace

void postButtonTrackingNotification(const QString &name, QObject *)
{
    // A handler may destroy or disable other buttons: work on a copy, re-checking each.
    const QList<QVRolloverButton *> current = observers();
    for (QVRolloverButton *button : current) {
        if (!observers().contains(button))
            continue;
        if (name == ButtonTrackingReset)
            button->buttonTrackingReset();
        else if (name == ButtonTrackingDisable)
            button->buttonTrackingDisable();
        else if (name == ButtonTrackingEnable)
            button->buttonTrackingEnable();
    }
}

QVRolloverButton::QVRolloverButton(QWidget *parent) : QAbstractButton(parent)
{
    // Row buttons must not take the keyboard focus away from the list (delete keys).
    setFocusPolicy(Qt::NoFocus);
    liveButtons().append(this);
    observers().append(this);
}

QVRolloverButton::~QVRolloverButton()
{
    liveButtons().removeOne(this);
    observers().removeOne(this);
    removeTracking();
}

void QVRolloverButton::setImage(const QString &name)
{
    if (currentImage == name)
        return;
    currentImage = name;
    update();
}

void QVRolloverButton::setImageName(const QString &name)
{
    imageName = name;
}

void QVRolloverButton::addTracking()
{
    if (trackingRect > 0)
        removeTracking();
    if (trackingRect < 0)
        return;
    trackingRect = addTrackingRect(this);
}

void QVRolloverButton::removeTracking()
{
    if (trackingRect >= 1) {
        removeTrackingRect(this, trackingRect);
        trackingRect = 0;
    }
}

void QVRolloverButton::disableTracking()
{
    observers().removeOne(this);
    removeTracking();
    if (!imageName.isEmpty() && currentImage == imageName + QStringLiteral("-hover"))
        setImage(imageName);
    trackingRect = -1;
}

void QVRolloverButton::learnImageName()
{
    if (imageName.isEmpty() && !currentImage.isEmpty())
        imageName = currentImage;
}

void QVRolloverButton::mouseEntered()
{
    if (!parentWidget())
        return;
    learnImageName();
    const QString hover = imageName + QStringLiteral("-hover");
    if (!imageName.isEmpty() && imageExists(hover))
        setImage(hover);
}

void QVRolloverButton::mouseExited()
{
    if (!parentWidget())
        return;
    learnImageName();
    if (!imageName.isEmpty())
        setImage(imageName);
}

void QVRolloverButton::buttonTrackingReset()
{
    addTracking();
}

void QVRolloverButton::buttonTrackingDisable()
{
    removeTracking();
    trackingRect = -1;
}

void QVRolloverButton::buttonTrackingEnable()
{
    if (trackingRect < 0)
        trackingRect = 0;
    addTracking();
}

const QList<QVRolloverButton *> &QVRolloverButton::trackingButtons()
{
    return liveButtons();
}

qint32 QVRolloverButton::addTrackingRect(QVRolloverButton *button)
{
    if (!button || !button->parentWidget() || button->visibleRegion().isEmpty())
        return 0;
    const qint32 tag = nextTag++;
    liveTags().insert(tag);
    return tag;
}

void QVRolloverButton::removeTrackingRect(QVRolloverButton *, qint32 tag)
{
    liveTags().erase(tag);
}

void QVRolloverButton::notifyExitTracking()
{
    for (QVRolloverButton *button : liveButtons())
        button->mouseExited();
}

bool QVRolloverButton::imageExists(const QString &name)
{
    return !name.isEmpty() && QFile::exists(imagePath(name));
}

QPixmap QVRolloverButton::namedImage(const QString &name, qreal devicePixelRatio)
{
    static QHash<QString, QPixmap> cache;
    const QString key = name + QLatin1Char('@') + QString::number(devicePixelRatio);
    const auto found = cache.constFind(key);
    if (found != cache.constEnd())
        return *found;
    QPixmap pixmap;
    QSvgRenderer renderer(imagePath(name));
    if (renderer.isValid()) {
        const QSize size = renderer.defaultSize();
        pixmap = QPixmap(size * devicePixelRatio);
        pixmap.fill(Qt::transparent);
        QPainter painter(&pixmap);
        renderer.render(&painter);
        painter.end();
        pixmap.setDevicePixelRatio(devicePixelRatio);
    }
    cache.insert(key, pixmap);
    return pixmap;
}

QSize QVRolloverButton::sizeHint() const
{
    return {24, 26};
}

bool QVRolloverButton::event(QEvent *event)
{
    switch (event->type()) {
    case QEvent::ParentAboutToChange:
        removeTracking();
        break;
    case QEvent::ParentChange:
        if (parentWidget())
            addTracking();
        else
            removeTracking();
        break;
    default:
        break;
    }
    return QAbstractButton::event(event);
}

void QVRolloverButton::paintEvent(QPaintEvent *)
{
    if (currentImage.isEmpty())
        return;
    const QPixmap pixmap = namedImage(currentImage, devicePixelRatioF());
    if (pixmap.isNull())
        return;
    const QSize size = (pixmap.deviceIndependentSize()).toSize();
    QPainter painter(this);
    if (isDown())
        painter.setOpacity(0.6);
    painter.drawPixmap(
        QRect(QPoint((width() - size.width()) / 2, (height() - size.height()) / 2), size), pixmap);
}

void QVRolloverButton::enterEvent(QEnterEvent *event)
{
    QAbstractButton::enterEvent(event);
    if (trackingRect > 0 && liveTags().count(trackingRect))
        mouseEntered();
}

void QVRolloverButton::leaveEvent(QEvent *event)
{
    QAbstractButton::leaveEvent(event);
    if (trackingRect > 0 && liveTags().count(trackingRect))
        mouseExited();
}

void QVRolloverButton::moveEvent(QMoveEvent *event)
{
    QAbstractButton::moveEvent(event);
    addTracking();
}

void QVRolloverButton::resizeEvent(QResizeEvent *event)
{
    QAbstractButton::resizeEvent(event);
    addTracking();
}
