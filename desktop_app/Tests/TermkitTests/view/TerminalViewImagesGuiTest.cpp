// Pictures in the terminal view, in a real window: a kitty picture fed to the view and a
// sixel picture from img2sixel run in the view's own shell are drawn as textures where
// their cells are, over the text or under it by their z-index; a picture under the text shows
// through the default background on either rendering path; Unicode placeholder cells show
// their pieces of a virtual placement and never a glyph of their own; inline JPEG and GIF
// pictures are decoded by the view.

#include <QBuffer>
#include <QDir>
#include <QGuiApplication>
#include <QImage>
#include <QQuickWindow>
#include <QSGRendererInterface>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include "Termkit/buffer/Utf8.h"
#include "Termkit/graphics/ImageCodec.h"
#include "Termkit/graphics/KittyPlaceholder.h"
#include "Termkit/view/LocalProcessTerminalView.h"

using namespace termkit;

namespace {

QString screenshotPath(const QString& name) {
    const QString folder = QDir::current().filePath(QStringLiteral("screenshots"));
    QDir().mkpath(folder);
    return QDir(folder).filePath(name + QStringLiteral(".png"));
}

QString apiName(const QQuickWindow& window) {
    return window.rendererInterface()->graphicsApi() == QSGRendererInterface::Software
               ? QStringLiteral("software")
               : QStringLiteral("gpu");
}

// Four solid quadrants: red, green, blue and yellow, clockwise from the top left.
QImage quadrants(int side) {
    QImage image(side, side, QImage::Format_RGBA8888);
    const int half = side / 2;
    for (int y = 0; y < side; ++y)
        for (int x = 0; x < side; ++x)
            image.setPixelColor(x, y,
                                y < half ? (x < half ? QColor(255, 0, 0) : QColor(0, 255, 0))
                                         : (x < half ? QColor(255, 255, 0) : QColor(0, 0, 255)));
    return image;
}

std::string kittyCommand(const QImage& image, const std::string& control) {
    RgbaImage rgba;
    rgba.width = image.width();
    rgba.height = image.height();
    const QImage converted = image.convertToFormat(QImage::Format_RGBA8888);
    rgba.rgba.assign(converted.constBits(), converted.constBits() + converted.sizeInBytes());
    const auto png = encodePng(rgba);
    const QByteArray base64 =
        QByteArray(reinterpret_cast<const char*>(png.data()), qsizetype(png.size())).toBase64();
    return "\x1b_G" + control + ";" + base64.toStdString() + "\x1b\\";
}

bool near(QColor a, QColor b) {
    return std::abs(a.red() - b.red()) < 40 && std::abs(a.green() - b.green()) < 40 &&
           std::abs(a.blue() - b.blue()) < 40;
}

QImage solid(int side, QColor color) {
    QImage image(side, side, QImage::Format_RGBA8888);
    image.fill(color);
    return image;
}

// A placeholder cell with diacritics for its row and column.
std::string placeholder(int row, int col) {
    std::string out;
    appendUtf8(kKittyPlaceholderCharacter, out);
    appendUtf8(kittyDiacritic(row), out);
    appendUtf8(kittyDiacritic(col), out);
    return out;
}

struct Harness {
    QQuickWindow window;
    LocalProcessTerminalView* view = nullptr;
    explicit Harness(QSize size = QSize(640, 400)) {
        window.resize(size);
        window.setColor(Qt::white);
        view = new LocalProcessTerminalView(window.contentItem());
        view->setSize(QSizeF(size));
        window.show();
    }
    bool presentedAll(int timeoutMs = 5000) {
        return QTest::qWaitFor(
            [&] { return view->bytesPresented() == view->bytesFed() && view->bytesFed() > 0; }, timeoutMs);
    }
    // The colour of the screenshot at a point of the item, in logical pixels.
    static QColor at(const QImage& shot, QPointF p, qreal dpr) {
        return shot.pixelColor(int(p.x() * dpr), int(p.y() * dpr));
    }
};

} // namespace

class TerminalViewImagesGuiTest : public QObject {
    Q_OBJECT

private slots:
    void aKittyPictureIsDrawnOverItsCells() {
        Harness h;
        QVERIFY(QTest::qWaitForWindowExposed(&h.window));
        const CellMetrics& cell = h.view->cellMetrics();
        const qreal dpr = h.window.effectiveDevicePixelRatio();
        h.view->feed("text before\r\n  ");
        // Eight columns by four rows from column 2 of row 1, over the text.
        h.view->feed(kittyCommand(quadrants(64), "a=T,f=100,i=1,c=8,r=4,q=2"));
        h.view->feed("\r\nafter");
        QVERIFY(h.presentedAll());
        QTest::qWait(100);
        QCOMPARE(h.view->imagesAboveText().size(), size_t(1));
        const QRectF target = h.view->imagesAboveText()[0].target;
        const qreal cw = cell.width / dpr;
        const qreal ch = cell.height / dpr;
        QCOMPARE(target, QRectF(2 * cw, 1 * ch, 8 * cw, 4 * ch));
        const QImage shot = h.window.grabWindow();
        QVERIFY(shot.save(screenshotPath("view-kitty-" + apiName(h.window))));
        const QPointF topLeft = target.topLeft();
        const qreal qw = target.width() / 4;
        const qreal qh = target.height() / 4;
        QVERIFY(near(Harness::at(shot, topLeft + QPointF(qw, qh), dpr), QColor(255, 0, 0)));
        QVERIFY(near(Harness::at(shot, topLeft + QPointF(3 * qw, qh), dpr), QColor(0, 255, 0)));
        QVERIFY(near(Harness::at(shot, topLeft + QPointF(qw, 3 * qh), dpr), QColor(255, 255, 0)));
        QVERIFY(near(Harness::at(shot, topLeft + QPointF(3 * qw, 3 * qh), dpr), QColor(0, 0, 255)));
        // Outside the picture the background shows.
        QVERIFY(!near(Harness::at(shot, QPointF(12 * cw, 2.5 * ch), dpr), QColor(255, 0, 0)));
        // A negative z-index puts the picture under the text; deleting it takes it away.
        h.view->feed(kittyCommand(quadrants(16), "a=T,f=100,i=2,z=-1,C=1,q=2"));
        h.view->feed("\x1b_Ga=d,d=i,i=1\x1b\\");
        QVERIFY(h.presentedAll());
        QTest::qWait(100);
        QCOMPARE(h.view->imagesAboveText().size(), size_t(0));
        QCOMPARE(h.view->imagesBelowText().size(), size_t(1));
    }

    void aPictureUnderTheTextShowsThroughTheDefaultBackground() {
        Harness h;
        QVERIFY(QTest::qWaitForWindowExposed(&h.window));
        const qreal dpr = h.window.effectiveDevicePixelRatio();
        const qreal cw = h.view->cellMetrics().width / dpr;
        const qreal ch = h.view->cellMetrics().height / dpr;
        // Row 0: four cells with a blue background of their own; row 2: two full blocks of
        // text in the default colours. A red picture under the text covers ten by four cells.
        h.view->feed("\x1b[44m    \x1b[m\r\n\r\n     \u2588\u2588\x1b[H");
        h.view->feed(kittyCommand(solid(64, QColor(255, 0, 0)), "a=T,f=100,i=3,c=10,r=4,z=-1,C=1,q=2"));
        QVERIFY(h.presentedAll());
        QTest::qWait(100);
        QCOMPARE(h.view->imagesBelowText().size(), size_t(1));
        const QImage shot = h.window.grabWindow();
        QVERIFY(shot.save(screenshotPath("view-below-text-" + apiName(h.window))));
        // Where the cells keep the default background the picture shows...
        QVERIFY(near(Harness::at(shot, QPointF(7.5 * cw, 1.5 * ch), dpr), QColor(255, 0, 0)));
        QVERIFY(near(Harness::at(shot, QPointF(2.5 * cw, 3.5 * ch), dpr), QColor(255, 0, 0)));
        // ...a cell's own background covers it, and text is drawn over it.
        QVERIFY(!near(Harness::at(shot, QPointF(1.5 * cw, 0.5 * ch), dpr), QColor(255, 0, 0)));
        QVERIFY(Harness::at(shot, QPointF(1.5 * cw, 0.5 * ch), dpr).blue() > 100);
        const QColor text = Harness::at(shot, QPointF(5.5 * cw, 2.5 * ch), dpr);
        QVERIFY2(text.red() < 60, qPrintable(text.name()));
    }

    void placeholderCellsShowTheirPiecesOfAVirtualPlacement() {
        Harness h;
        QVERIFY(QTest::qWaitForWindowExposed(&h.window));
        const qreal dpr = h.window.effectiveDevicePixelRatio();
        const CellMetrics& cell = h.view->cellMetrics();
        const qreal cw = cell.width / dpr;
        const qreal ch = cell.height / dpr;
        // Image 7, placed virtually in eight by four cells; the program writes the cells from
        // row 1, column 3, with the image id as its foreground colour.
        h.view->feed(kittyCommand(quadrants(64), "a=T,f=100,i=7,U=1,c=8,r=4,q=2"));
        std::string text = "line 0\r\n";
        for (int r = 0; r < 4; ++r) {
            text += "\x1b[" + std::to_string(r + 2) + ";4H\x1b[38;5;7m";
            for (int c = 0; c < 8; ++c)
                text += placeholder(r, c);
            text += "\x1b[m";
        }
        // A row of placeholders naming an image that does not exist: drawn as nothing at all.
        text += "\x1b[8;1H\x1b[38;5;99m" + placeholder(0, 0) + placeholder(0, 1) + "\x1b[m";
        h.view->feed(text);
        QVERIFY(h.presentedAll());
        QTest::qWait(100);
        QCOMPARE(h.view->imagesAboveText().size(), size_t(1));
        // The square picture fits the cells' box with its aspect kept, centred in it.
        const double boxW = 8 * cell.width;
        const double boxH = 4 * cell.height;
        const double side = std::min(boxW, boxH) / dpr;
        const QRectF expected(3 * cw + (8 * cw - side) / 2, 1 * ch + (4 * ch - side) / 2, side, side);
        const QRectF target = h.view->imagesAboveText()[0].target;
        QVERIFY2(std::abs(target.x() - expected.x()) < 0.01 && std::abs(target.y() - expected.y()) < 0.01 &&
                     std::abs(target.width() - expected.width()) < 0.01 &&
                     std::abs(target.height() - expected.height()) < 0.01,
                 qPrintable(QStringLiteral("%1,%2 %3x%4")
                                .arg(target.x())
                                .arg(target.y())
                                .arg(target.width())
                                .arg(target.height())));
        const QImage shot = h.window.grabWindow();
        QVERIFY(shot.save(screenshotPath("view-placeholder-" + apiName(h.window))));
        const qreal q = side / 4;
        const QPointF p = expected.topLeft();
        QVERIFY(near(Harness::at(shot, p + QPointF(q, q), dpr), QColor(255, 0, 0)));
        QVERIFY(near(Harness::at(shot, p + QPointF(3 * q, q), dpr), QColor(0, 255, 0)));
        QVERIFY(near(Harness::at(shot, p + QPointF(q, 3 * q), dpr), QColor(255, 255, 0)));
        QVERIFY(near(Harness::at(shot, p + QPointF(3 * q, 3 * q), dpr), QColor(0, 0, 255)));
        // The cells of the missing image are the background of a blank cell, pixel for pixel.
        const QColor background = Harness::at(shot, QPointF(20.5 * cw, 7.5 * ch), dpr);
        for (int y = int(7 * ch * dpr); y < int(8 * ch * dpr); ++y)
            for (int x = 0; x < int(2 * cw * dpr); ++x)
                QVERIFY2(shot.pixelColor(x, y) == background,
                         qPrintable(QStringLiteral("%1,%2").arg(x).arg(y)));
        // Scrolled by a line, the picture goes up with its text.
        h.view->feed("\x1b[99;1H\n");
        QVERIFY(h.presentedAll());
        QTest::qWait(50);
        QCOMPARE(h.view->imagesAboveText().size(), size_t(1));
        QVERIFY(std::abs(h.view->imagesAboveText()[0].target.y() - (expected.y() - ch)) < 0.01);
    }

    void inlineJpegAndGifPicturesAreDecodedByTheView() {
        Harness h;
        QVERIFY(QTest::qWaitForWindowExposed(&h.window));
        const qreal dpr = h.window.effectiveDevicePixelRatio();
        const qreal cw = h.view->cellMetrics().width / dpr;
        const qreal ch = h.view->cellMetrics().height / dpr;
        // A JPEG written by Qt's own encoder, eight by four cells from column 0 of row 1.
        QByteArray jpeg;
        QBuffer buffer(&jpeg);
        buffer.open(QIODevice::WriteOnly);
        QVERIFY(quadrants(64).save(&buffer, "JPEG", 95));
        h.view->feed("jpeg:\r\n");
        h.view->feed("\x1b]1337;File=inline=1;width=8;height=4;preserveAspectRatio=0:" +
                     jpeg.toBase64().toStdString() + "\a");
        // A one-pixel GIF whose only colour is red, written byte by byte (Qt writes no GIF), two
        // by one cells on the row after the JPEG.
        const QByteArray gif = QByteArray::fromHex("47494638396101000100800000"   // header: 1x1, 2 colours
                                                   "ff0000000000"                 // red, black
                                                   "2c00000000010001000002024401" // image, LZW: clear, 0, end
                                                   "003b");
        h.view->feed("gif:");
        h.view->feed("\x1b]1337;File=inline=1;width=2;height=1;preserveAspectRatio=0:" +
                     gif.toBase64().toStdString() + "\a");
        // Not a picture at all: dropped, and the text goes on.
        h.view->feed("\x1b]1337;File=inline=1:" + QByteArray("not an image").toBase64().toStdString() +
                     "\aend");
        QVERIFY(h.presentedAll());
        QTest::qWait(100);
        const auto& draws = h.view->imagesAboveText();
        QCOMPARE(draws.size(), size_t(2));
        QCOMPARE(draws[0].target, QRectF(0, 1 * ch, 8 * cw, 4 * ch));
        QCOMPARE(draws[1].target, QRectF(4 * cw, 5 * ch, 2 * cw, 1 * ch));
        const QImage shot = h.window.grabWindow();
        QVERIFY(shot.save(screenshotPath("view-inline-jpeg-gif-" + apiName(h.window))));
        // JPEG is lossy: solid quadrants stay within the tolerance away from their edges.
        QVERIFY(near(Harness::at(shot, QPointF(2 * cw, 2 * ch), dpr), QColor(255, 0, 0)));
        QVERIFY(near(Harness::at(shot, QPointF(6 * cw, 2 * ch), dpr), QColor(0, 255, 0)));
        QVERIFY(near(Harness::at(shot, QPointF(2 * cw, 4 * ch), dpr), QColor(255, 255, 0)));
        QVERIFY(near(Harness::at(shot, QPointF(6 * cw, 4 * ch), dpr), QColor(0, 0, 255)));
        QVERIFY(near(Harness::at(shot, QPointF(5 * cw, 5.5 * ch), dpr), QColor(255, 0, 0)));
        QVERIFY(h.view->screenText().contains("end"));
    }

    void anImg2sixelPictureFromTheShellAppears() {
        if (QStandardPaths::findExecutable("img2sixel").isEmpty())
            QSKIP("img2sixel (libsixel-bin) is not installed; scripts/bootstrap installs it");
        QTemporaryDir dir;
        const QString png = dir.filePath("quadrants.png");
        QVERIFY(quadrants(96).save(png));
        Harness h;
        QVERIFY(QTest::qWaitForWindowExposed(&h.window));
        const std::string script =
            "printf 'sixel:\\n'; img2sixel '" + png.toStdString() + "'; printf 'done\\n'; sleep 5";
        h.view->startProcess("/bin/sh", {"-c", script});
        QVERIFY(QTest::qWaitFor([&] { return h.view->screenText().contains("done"); }, 5000));
        QVERIFY(h.presentedAll());
        QTest::qWait(200);
        QCOMPARE(h.view->imagesAboveText().size(), size_t(1));
        const QRectF target = h.view->imagesAboveText()[0].target;
        const qreal dpr = h.window.effectiveDevicePixelRatio();
        const CellMetrics& cell = h.view->cellMetrics();
        // At the view's own cell size the picture keeps its 96 device pixels, on row 1.
        QCOMPARE(target.topLeft(), QPointF(0, cell.height / dpr));
        QCOMPARE(qRound(target.width() * dpr), 96);
        const QImage shot = h.window.grabWindow();
        QVERIFY(shot.save(screenshotPath("view-sixel-" + apiName(h.window))));
        const QPointF c = target.topLeft();
        QVERIFY(near(Harness::at(shot, c + QPointF(target.width() / 4, target.height() / 4), dpr),
                     QColor(255, 0, 0)));
        QVERIFY(near(Harness::at(shot, c + QPointF(3 * target.width() / 4, 3 * target.height() / 4), dpr),
                     QColor(0, 0, 255)));
        h.view->terminate();
    }
};

QTEST_MAIN(TerminalViewImagesGuiTest)
#include "TerminalViewImagesGuiTest.moc"
