// Right-to-left text in the view, in a real window: rows drawn in visual order, the caret,
// the pointer and the selection through each row's layout, and the arrow-key swap.

#include <QDir>
#include <QGuiApplication>
#include <QQuickWindow>
#include <QTest>

#include "Termkit/view/TerminalView.h"

using namespace termkit;

namespace {

class Recorder : public TerminalViewDelegate {
public:
    void send(TerminalView&, std::span<const uint8_t> data) override {
        sent.append(reinterpret_cast<const char*>(data.data()), static_cast<qsizetype>(data.size()));
    }
    QByteArray sent;
};

QString screenshotPath(const QString& name) {
    const QString folder = QDir::current().filePath(QStringLiteral("screenshots"));
    QDir().mkpath(folder);
    return QDir(folder).filePath(name + QStringLiteral(".png"));
}

// Hebrew "shalom", Arabic "salam alaikum" (with a lam-alef), Hebrew "alef bet gimel".
const char* const kShalom = "\xd7\xa9\xd7\x9c\xd7\x95\xd7\x9d";
const char* const kSalam = "\xd8\xb3\xd9\x84\xd8\xa7\xd9\x85 \xd8\xb9\xd9\x84\xd9\x8a\xd9\x83\xd9\x85";
const char* const kAlefBetGimel = "\xd7\x90\xd7\x91\xd7\x92";

struct Harness {
    QQuickWindow window;
    TerminalView* view = nullptr;
    Recorder recorder;
    bool exposed = false;

    Harness() {
        window.resize(640, 240);
        window.setColor(Qt::white);
        view = new TerminalView(window.contentItem());
        view->setSize(QSizeF(640, 240));
        view->setDelegate(&recorder);
        window.show();
        exposed = QTest::qWaitForWindowExposed(&window);
        view->forceActiveFocus();
    }
    bool presented() {
        return QTest::qWaitFor(
            [&] { return view->bytesPresented() == view->bytesFed() && view->bytesFed() > 0; }, 5000);
    }
    double cellWidth() { return view->cellMetrics().width / window.devicePixelRatio(); }
    double cellHeight() { return view->cellMetrics().height / window.devicePixelRatio(); }
    // Dark pixels in columns [from, to) of a row of the picture.
    int ink(const QImage& shot, int row, int from, int to) {
        const CellMetrics& cell = view->cellMetrics();
        int dark = 0;
        for (int y = row * cell.height; y < (row + 1) * cell.height && y < shot.height(); ++y)
            for (int x = from * cell.width; x < to * cell.width && x < shot.width(); ++x)
                dark += qGray(shot.pixel(x, y)) < 128 ? 1 : 0;
        return dark;
    }
    QPoint at(double col, int row) {
        return QPoint(static_cast<int>(col * cellWidth()), static_cast<int>((row + 0.5) * cellHeight()));
    }
};

} // namespace

class TerminalViewBidiTest : public QObject {
    Q_OBJECT

private slots:
    void rightToLeftRowsAreDrawnInVisualOrder() {
        Harness h;
        QVERIFY(h.exposed);
        // Large enough for a person to read the screenshot.
        h.view->setFontSize(22);
        h.view->feed(std::string("abc ") + kShalom + " def\r\n" + kSalam + "\r\n" + kAlefBetGimel + " 123");
        QVERIFY(h.presented());
        const QImage shot = h.window.grabWindow();
        QVERIFY(shot.save(screenshotPath(h.view->usesGpu() ? "view-bidi-gpu" : "view-bidi-software")));
        const int cols = h.view->cols();
        // The Arabic and Hebrew paragraphs are right-aligned: ink at the right, none at the left.
        QVERIFY(h.ink(shot, 1, cols - 10, cols) > 30);
        QCOMPARE(h.ink(shot, 1, 0, cols - 12), 0);
        QVERIFY(h.ink(shot, 2, cols - 7, cols) > 30);
        QCOMPARE(h.ink(shot, 2, 0, cols - 8), 0);
        // The Latin paragraph stays left-aligned.
        QVERIFY(h.ink(shot, 0, 0, 3) > 10);
        QCOMPARE(h.ink(shot, 0, 20, cols), 0);
        // With bidi turned off by the host, the same rows are shown in logical order, at the left.
        h.view->settings().bidiHostPolicy = BidiHostPolicy::legacyLeftToRight;
        h.view->feed("\x1b[4H");
        QVERIFY(h.presented());
        QTest::qWait(50);
        const QImage legacy = h.window.grabWindow();
        QVERIFY(h.ink(legacy, 1, 0, 10) > 30);
        QCOMPARE(h.ink(legacy, 1, 12, cols), 0);
    }

    void theCaretIsDrawnWhereItsCellIs() {
        Harness h;
        QVERIFY(h.exposed);
        h.view->feed(kAlefBetGimel);
        QVERIFY(h.presented());
        const int cols = h.view->cols();
        // The cursor is after the third letter: logically column 3, which a right-to-left
        // paragraph shows left of the word.
        QTRY_COMPARE(h.view->caretRect().x(), (cols - 4) * h.cellWidth());
        h.view->feed("\r\nabc");
        QVERIFY(h.presented());
        QTRY_COMPARE(h.view->caretRect().x(), 3 * h.cellWidth());
    }

    void aDragSelectsInLogicalOrderAndIsHighlightedWhereTheTextIs() {
        Harness h;
        QVERIFY(h.exposed);
        h.view->feed(std::string(kAlefBetGimel) + " abc");
        QVERIFY(h.presented());
        const int cols = h.view->cols();
        // "abc" comes first from the left; the Hebrew word ends at the right edge. A drag from
        // the right edge over the three Hebrew letters selects them, first letter first.
        QTest::mousePress(&h.window, Qt::LeftButton, Qt::NoModifier, h.at(cols - 0.1, 0));
        QTest::mouseMove(&h.window, h.at(cols - 2.8, 0));
        QTest::mouseRelease(&h.window, Qt::LeftButton, Qt::NoModifier, h.at(cols - 2.8, 0));
        QVERIFY(h.view->hasSelection());
        QCOMPARE(h.view->selectedText(), QString::fromUtf8(kAlefBetGimel));
        QTRY_VERIFY(!h.view->highlightRects().empty());
        const QRectF rect = h.view->highlightRects().back().first;
        QCOMPARE(rect.x(), (cols - 3) * h.cellWidth());
        QCOMPARE(rect.width(), 3 * h.cellWidth());
        QCOMPARE(h.recorder.sent, QByteArray());
    }

    void arrowKeysSwapInRightToLeftParagraphsWhenAsked() {
        Harness h;
        QVERIFY(h.exposed);
        h.view->feed(kAlefBetGimel);
        QTest::keyClick(&h.window, Qt::Key_Left);
        QCOMPARE(h.recorder.sent, QByteArray("\x1b[D"));
        h.recorder.sent.clear();
        h.view->feed("\x1b[?1243h");
        QTest::keyClick(&h.window, Qt::Key_Left);
        QTest::keyClick(&h.window, Qt::Key_Right);
        QCOMPARE(h.recorder.sent, QByteArray("\x1b[C\x1b[D"));
        h.recorder.sent.clear();
        // In a left-to-right paragraph the arrows stay as they are.
        h.view->feed("\r\nabc");
        QTest::keyClick(&h.window, Qt::Key_Left);
        QCOMPARE(h.recorder.sent, QByteArray("\x1b[D"));
    }
};

QTEST_MAIN(TerminalViewBidiTest)
#include "TerminalViewBidiTest.moc"
