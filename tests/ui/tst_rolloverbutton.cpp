// The rollover button: its hover image, its hover area across the three tracking
// notifications, and the row buttons that never track.
#include "ui/QVRolloverButton.h"

#include <QEnterEvent>
#include <QTest>

namespace {

void hover(QWidget *button, bool inside)
{
    if (inside) {
        QEnterEvent enter(QPointF(1, 1), QPointF(1, 1), QPointF(1, 1));
        QCoreApplication::sendEvent(button, &enter);
    } else {
        QEvent leave(QEvent::Leave);
        QCoreApplication::sendEvent(button, &leave);
    }
}

} // namespace

class TestRolloverButton : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void cleanup();
    void hoverSwapsToTheHoverImage_data();
    void hoverSwapsToTheHoverImage();
    void notificationsMoveTheHoverArea();
    void disabledButtonNeverTracksAgain();
    void buttonsLeaveTheListWhenDestroyed();

private:
    QWidget *window = nullptr;
    QVRolloverButton *button = nullptr;
};

void TestRolloverButton::init()
{
    window = new QWidget;
    window->resize(100, 40);
    button = new QVRolloverButton(window);
    button->setGeometry(10, 5, 24, 26);
    button->setImage(QStringLiteral("show"));
    window->show();
    QVERIFY(QTest::qWaitForWindowExposed(window));
    button->addTracking();
    QVERIFY(button->trackingTag() > 0);
}

void TestRolloverButton::cleanup()
{
    delete window;
}

void TestRolloverButton::hoverSwapsToTheHoverImage_data()
{
    QTest::addColumn<QString>("image");
    QTest::addColumn<QString>("name"); // set with setImageName; empty: learnt from the image
    QTest::addColumn<QString>("hovered");
    QTest::newRow("learns its name") << "show"
                                     << ""
                                     << "show-hover";
    QTest::newRow("named") << "cancel"
                           << "delete"
                           << "delete-hover";
    QTest::newRow("no hover image") << "hoplift"
                                    << ""
                                    << "hoplift";
}

void TestRolloverButton::hoverSwapsToTheHoverImage()
{
    QFETCH(QString, image);
    QFETCH(QString, name);
    QFETCH(QString, hovered);
    button->setImage(image);
    button->setImageName(name);
    hover(button, true);
    QCOMPARE(button->image(), hovered);
    const QString plain = name.isEmpty() ? image : name;
    QCOMPARE(button->rolloverImageName(), plain);
    hover(button, false);
    QCOMPARE(button->image(), plain);

    hover(button, true);
    QVRolloverButton::notifyExitTracking();
    QCOMPARE(button->image(), plain);
}

void TestRolloverButton::notificationsMoveTheHoverArea()
{
    const qint32 first = button->trackingTag();
    postButtonTrackingNotification(ButtonTrackingReset, nullptr);
    QVERIFY(button->trackingTag() > 0 && button->trackingTag() != first);

    postButtonTrackingNotification(ButtonTrackingDisable, this);
    QCOMPARE(button->trackingTag(), -1);
    button->move(12, 5);
    QCOMPARE(button->trackingTag(), -1);
    hover(button, true);
    QCOMPARE(button->image(), QStringLiteral("show"));

    postButtonTrackingNotification(ButtonTrackingEnable, this);
    QVERIFY(button->trackingTag() > 0);
    hover(button, true);
    QCOMPARE(button->image(), QStringLiteral("show-hover"));

    button->setParent(nullptr);
    QCOMPARE(button->trackingTag(), 0);
    delete button;
}

void TestRolloverButton::disabledButtonNeverTracksAgain()
{
    hover(button, true);
    QCOMPARE(button->image(), QStringLiteral("show-hover"));
    button->disableTracking();
    QCOMPARE(button->image(), QStringLiteral("show"));
    QCOMPARE(button->trackingTag(), -1);

    button->move(20, 5);
    button->addTracking();
    postButtonTrackingNotification(ButtonTrackingEnable, this);
    postButtonTrackingNotification(ButtonTrackingReset, this);
    QCOMPARE(button->trackingTag(), -1);
    hover(button, true);
    QCOMPARE(button->image(), QStringLiteral("show"));
}

void TestRolloverButton::buttonsLeaveTheListWhenDestroyed()
{
    QVERIFY(QVRolloverButton::trackingButtons().contains(button));
    delete button;
    QVERIFY(!QVRolloverButton::trackingButtons().contains(button));
    postButtonTrackingNotification(ButtonTrackingReset, this); // reaches no dead button
}

QTEST_MAIN(TestRolloverButton)
#include "tst_rolloverbutton.moc"
