// The header gradient, the clickable link field, the round rectangle path and file references.
#include "ui/FileRef.h"
#include "ui/QVGradient.h"
#include "ui/SubviewController.h"
#include "ui/ZRClickableURLTextField.h"

#include <QDesktopServices>
#include <QFile>
#include <QFileInfo>
#include <QPainterPath>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTextBlock>
#include <QTextDocument>

#include <cmath>

namespace {

// The characters of a document whose format passes a test, others as '_'.
template <typename Test> QString mask(const QTextDocument &document, Test test)
{
    QString result;
    for (QTextBlock block = document.begin(); block.isValid(); block = block.next()) {
        for (auto it = block.begin(); !it.atEnd(); ++it) {
            const QTextFragment fragment = it.fragment();
            const bool pass = test(fragment.charFormat());
            result += pass ? fragment.text() : QString(fragment.length(), u'_');
        }
    }
    return result;
}

} // namespace

class TestControls : public QObject
{
    Q_OBJECT
public Q_SLOTS:
    void recordUrl(const QUrl &url) { opened << url; }

private Q_SLOTS:
    void gradientShadesBottomToTop_data();
    void gradientShadesBottomToTop();
    void hyperlinkMarksItsRun_data();
    void hyperlinkMarksItsRun();
    void clicksOpenTheirURL_data();
    void clicksOpenTheirURL();
    void roundRectPath_data();
    void roundRectPath();
    void fileRef_data();
    void fileRef();

private:
    QList<QUrl> opened;
};

void TestControls::gradientShadesBottomToTop_data()
{
    QTest::addColumn<QColor>("top");
    QTest::addColumn<QColor>("bottom");
    QTest::addColumn<qreal>("ratio");
    QTest::addColumn<QColor>("topRow"); // RGB not compared when translucent
    QTest::addColumn<QColor>("bottomRow");
    const QColor grey3 = QColor::fromRgbF(0.2f, 0.2f, 0.2f);
    const QColor grey2(0x22, 0x22, 0x22);
    const QColor clearRed(0xff, 0, 0, 0);
    const QColor blue(0, 0, 0xff);
    for (qreal ratio : {1.0, 2.0}) {
        const QByteArray at = "@" + QByteArray::number(ratio);
        QTest::newRow("greys" + at) << grey3 << grey2 << ratio << grey3 << grey2;
        // Alpha only grows from the bottom one, while the hue still reaches the top's.
        QTest::newRow("transparent top" + at)
            << clearRed << blue << ratio << QColor(0xff, 0, 0) << blue;
        QTest::newRow("transparent bottom" + at)
            << blue << clearRed << ratio << blue << QColor(0, 0, 0, 0);
    }
}

void TestControls::gradientShadesBottomToTop()
{
    QFETCH(QColor, top);
    QFETCH(QColor, bottom);
    QFETCH(qreal, ratio);
    QFETCH(QColor, topRow);
    QFETCH(QColor, bottomRow);
    QVGradient gradient;
    gradient.resize(20, 100);
    QCOMPARE(gradient.topColor(), QColor(Qt::black));
    QCOMPARE(gradient.bottomColor(), QColor(Qt::black));
    gradient.setTopColor(top);
    gradient.setBottomColor(bottom);
    QImage image(QSize(20, 100) * ratio, QImage::Format_ARGB32);
    image.setDevicePixelRatio(ratio);
    image.fill(Qt::transparent);
    gradient.render(&image, QPoint(), QRegion(), QWidget::RenderFlags());

    // Colours of translucent pixels lose a unit more to premultiplication.
    const auto near = [](const QColor &pixel, const QColor &expected) {
        const int tolerance = pixel.alpha() == 255 ? 1 : 2;
        const bool rgb =
            expected.alpha() < 255 || (std::abs(pixel.red() - expected.red()) <= tolerance &&
                                       std::abs(pixel.green() - expected.green()) <= tolerance &&
                                       std::abs(pixel.blue() - expected.blue()) <= tolerance);
        return rgb && std::abs(pixel.alpha() - expected.alpha()) <= 1;
    };
    const int last = image.height() - 1;
    QVERIFY(near(image.pixelColor(0, 0), topRow));
    QVERIFY(near(image.pixelColor(0, last), bottomRow));
    for (int y = 0; y < last; ++y) {
        QCOMPARE(image.pixelColor(image.width() - 1, y), image.pixelColor(0, y));
        QVERIFY2(image.pixelColor(0, y).alpha() >= image.pixelColor(0, y + 1).alpha(),
                 qPrintable(QString::number(y)));
    }
}

void TestControls::hyperlinkMarksItsRun_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("underline");
    QTest::addColumn<QUrl>("url");
    QTest::addColumn<int>("pixelSize");      // 0: no font
    QTest::addColumn<QString>("underlined"); // empty: nothing
    QTest::addColumn<QString>("linked");
    const QUrl url(QStringLiteral("hopliftclick://host/page?a=1&b=<2>"));
    const QString log = QStringLiteral("see the log, the log");
    QTest::newRow("whole text") << log << QString() << url << 0 << log << log;
    QTest::newRow("whole, no url") << log << QString() << QUrl() << 0 << log << "";
    QTest::newRow("first occurrence") << log << "log" << url << 0 << "________log_________"
                                      << "________log_________";
    QTest::newRow("empty underline") << log << "" << url << 0 << ""
                                     << "";
    QTest::newRow("absent underline") << log << "none" << url << 0 << ""
                                      << "";
    QTest::newRow("escaped") << "a <b> & c"
                             << "&" << url << 0 << "______&__"
                             << "______&__";
    QTest::newRow("font in points") << log << "the" << url << -1 << "____the_____________"
                                    << "____the_____________";
    QTest::newRow("font in pixels") << log << QString() << QUrl() << 23 << log << "";
}

void TestControls::hyperlinkMarksItsRun()
{
    QFETCH(QString, text);
    QFETCH(QString, underline);
    QFETCH(QUrl, url);
    QFETCH(int, pixelSize);
    QFETCH(QString, underlined);
    QFETCH(QString, linked);
    QFont font(QStringLiteral("Hoplift Test Face"), 17);
    if (pixelSize > 0)
        font.setPixelSize(pixelSize);
    QTextDocument document;
    document.setHtml(ZRClickableURLTextField::hyperlinkFromString(text, underline, url,
                                                                  pixelSize ? &font : nullptr));
    QCOMPARE(document.toPlainText(), text);
    const auto isUnderlined = [](const QTextCharFormat &format) { return format.fontUnderline(); };
    const auto isLinked = [&](const QTextCharFormat &format) {
        return format.isAnchor() && QUrl(format.anchorHref()) == url;
    };
    const auto hasFont = [&](const QTextCharFormat &format) {
        return format.fontFamilies().toStringList().contains(font.family()) &&
               (pixelSize > 0 ? format.intProperty(QTextFormat::FontPixelSize) == pixelSize
                              : format.fontPointSize() == 17);
    };
    const QString none(text.size(), u'_');
    QCOMPARE(mask(document, isUnderlined), underlined.isEmpty() ? none : underlined);
    QCOMPARE(mask(document, isLinked), linked.isEmpty() ? none : linked);
    QCOMPARE(mask(document, hasFont), pixelSize ? text : none);
}

void TestControls::clicksOpenTheirURL_data()
{
    QTest::addColumn<bool>("onLink");
    QTest::addColumn<QUrl>("target");
    QTest::addColumn<QUrl>("expected"); // empty: nothing opened
    const QUrl link(QStringLiteral("hopliftclick://link/run"));
    const QUrl target(QStringLiteral("hopliftclick://target"));
    QTest::newRow("link, with target") << true << target << link;
    QTest::newRow("link, no target") << true << QUrl() << link;
    QTest::newRow("plain, with target") << false << target << target;
    QTest::newRow("plain, no target") << false << QUrl() << QUrl();
}

void TestControls::clicksOpenTheirURL()
{
    QFETCH(bool, onLink);
    QFETCH(QUrl, target);
    QFETCH(QUrl, expected);
    QDesktopServices::setUrlHandler(QStringLiteral("hopliftclick"), this, "recordUrl");
    opened.clear();

    QWidget window;
    window.resize(320, 40);
    auto *field = new ZRClickableURLTextField(&window);
    field->setGeometry(5, 5, 300, 30);
    const QString plain = QStringLiteral("Uploaded to the server, ");
    const QString run = QStringLiteral("open it");
    field->setAttributedStringValue(ZRClickableURLTextField::hyperlinkFromString(
        plain + run, run, QUrl(QStringLiteral("hopliftclick://link/run"))));
    field->setTargetURL(target);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));

    const QFontMetrics metrics(field->font());
    const int x = onLink ? metrics.horizontalAdvance(plain) + metrics.horizontalAdvance(run) / 2
                         : metrics.horizontalAdvance(plain) / 2;
    QSignalSpy clicked(field, &ZRClickableURLTextField::clicked);
    QTest::mouseClick(field, Qt::LeftButton, {}, QPoint(x, field->height() / 2));
    QDesktopServices::unsetUrlHandler(QStringLiteral("hopliftclick"));

    QCOMPARE(opened, expected.isEmpty() ? QList<QUrl>() : QList<QUrl>{expected});
    QCOMPARE(clicked.size(), 1);
    QCOMPARE(clicked.first().first().value<ZRClickableURLTextField *>(), field);
}

void TestControls::roundRectPath_data()
{
    QTest::addColumn<QRectF>("rect");
    QTest::addColumn<qreal>("radius");
    QTest::addColumn<int>("elements"); // edges of no length are left out of a path
    QTest::newRow("wide") << QRectF(3, 4, 100, 40) << qreal(10) << 17;
    QTest::newRow("clamped to a circle") << QRectF(0, 0, 10, 10) << qreal(50) << 13;
    QTest::newRow("clamped to the height") << QRectF(-20, 10, 60, 8) << qreal(6) << 15;
}

void TestControls::roundRectPath()
{
    QFETCH(QRectF, rect);
    QFETCH(qreal, radius);
    QFETCH(int, elements);
    const QPainterPath path = SubviewController::bezierPathWithRoundRect(rect, radius, radius);
    QCOMPARE(path.elementCount(), elements);
    QCOMPARE(path.boundingRect(), rect);
    QVERIFY(path.contains(rect.center()));
    const qreal rx = std::min(radius, rect.width() / 2);
    const qreal ry = std::min(radius, rect.height() / 2);
    const QPointF corners[] = {rect.topLeft(), rect.topRight(), rect.bottomLeft(),
                               rect.bottomRight()};
    for (const QPointF &corner : corners) {
        QVERIFY(!path.contains(corner));
        // Halfway round the corner the curve lies on the ellipse of the corner's radii.
        const qreal sx = corner.x() < rect.center().x() ? 1 : -1;
        const qreal sy = corner.y() < rect.center().y() ? 1 : -1;
        const QPointF centre(corner.x() + sx * rx, corner.y() + sy * ry);
        const QPointF diagonal(-sx * rx * M_SQRT1_2, -sy * ry * M_SQRT1_2);
        QVERIFY(path.contains(centre + diagonal * 0.99));
        QVERIFY(!path.contains(centre + diagonal * 1.01));
    }
}

void TestControls::fileRef_data()
{
    QTest::addColumn<QString>("name"); // inside a fresh directory
    QTest::addColumn<bool>("create");
    QTest::addColumn<bool>("result");
    QTest::addColumn<bool>("exists");
    QTest::newRow("existing") << "present" << false << true << true;
    QTest::newRow("existing, kept") << "present" << true << true << true;
    QTest::newRow("missing") << "missing" << false << false << false;
    QTest::newRow("missing, created") << "missing" << true << true << true;
    QTest::newRow("directory") << "sub" << true << false << true;
    QTest::newRow("under a file") << "present/inner" << true << false << false;
    QTest::newRow("read-only directory") << "locked/new" << true << false << false;
}

void TestControls::fileRef()
{
    QFETCH(QString, name);
    QFETCH(bool, create);
    QFETCH(bool, result);
    QFETCH(bool, exists);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QFile present(dir.filePath(QStringLiteral("present")));
    QVERIFY(present.open(QIODevice::WriteOnly));
    QCOMPARE(present.write("data"), 4);
    present.close();
    QVERIFY(QDir(dir.path()).mkdir(QStringLiteral("sub")));
    const QString locked = dir.filePath(QStringLiteral("locked"));
    QVERIFY(QDir(dir.path()).mkdir(QStringLiteral("locked")));
    QVERIFY(QFile::setPermissions(locked, QFile::ReadOwner | QFile::ExeOwner));
    if (name.startsWith(QLatin1String("locked")) && QFileInfo(locked).isWritable())
        QSKIP("this user writes into read-only directories");

    const QString path = dir.filePath(name);
    QFileInfo ref;
    QCOMPARE(getFSRef(path, &ref, create), result);
    QCOMPARE(QFileInfo::exists(path), exists);
    if (result) {
        QCOMPARE(ref.absoluteFilePath(), QFileInfo(path).absoluteFilePath());
        QVERIFY(ref.isFile());
        QCOMPARE(ref.size(), name == QLatin1String("present") ? 4 : 0);
    }
    QFile::setPermissions(locked, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

QTEST_MAIN(TestControls)
#include "tst_controls.moc"
