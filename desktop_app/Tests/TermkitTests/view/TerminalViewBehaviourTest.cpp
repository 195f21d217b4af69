// The view's input and display rules with a real terminal behind it, fed bytes as a program
// would write them: what keys, the pointer, the wheel and pastes send in each mode, and how
// bells, progress reports, synchronized output, blinking and scrolling show.

#include <QClipboard>
#include <QFile>
#include <QGuiApplication>
#include <QQuickWindow>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QUrl>

#include "Termkit/view/TerminalView.h"

using namespace termkit;
using namespace std::chrono_literals;

namespace {

// The delay a single click waits for a second one, short so the tests run fast.
constexpr std::chrono::milliseconds kShortCoalescingDelay{10};

class Recorder : public TerminalViewDelegate {
public:
    void send(TerminalView&, std::span<const uint8_t> data) override {
        sent.append(reinterpret_cast<const char*>(data.data()), static_cast<qsizetype>(data.size()));
    }
    void bell(TerminalView&) override { ++sounds; }
    void sizeChanged(TerminalView&, int cols, int rows) override { sizes.append({cols, rows}); }
    void requestOpenLink(TerminalView&, const std::string& link,
                         const std::map<std::string, std::string>& params) override {
        links.append({link, params});
    }
    QList<QPair<std::string, std::map<std::string, std::string>>> links;
    QByteArray sent;
    int sounds = 0;
    QList<QPair<int, int>> sizes;
};

struct Harness {
    QQuickWindow window;
    TerminalView* view = nullptr;
    Recorder recorder;

    Harness() {
        window.resize(640, 400);
        view = new TerminalView(window.contentItem());
        view->setSize(QSizeF(640, 400));
        view->setDelegate(&recorder);
        window.show();
        exposed = QTest::qWaitForWindowExposed(&window);
        view->forceActiveFocus();
    }
    bool exposed = false;
    QByteArray take() {
        const QByteArray bytes = recorder.sent;
        recorder.sent.clear();
        return bytes;
    }
    QPoint cellCentre(int col, int row) const {
        const CellMetrics& cell = view->cellMetrics();
        return QPoint(static_cast<int>((col + 0.5) * cell.width),
                      static_cast<int>((row + 0.5) * cell.height));
    }
    bool presented() {
        return QTest::qWaitFor([&] { return view->bytesPresented() == view->bytesFed(); }, 5000);
    }
};

} // namespace

class TerminalViewBehaviourTest : public QObject {
    Q_OBJECT

private slots:
    void keysFollowTheCursorKeyMode() {
        Harness h;
        QVERIFY(h.exposed);
        QTest::keyClick(&h.window, Qt::Key_Up);
        QCOMPARE(h.take(), QByteArray("\x1b[A"));
        h.view->feed("\x1b[?1h"); // the program asks for application cursor keys
        QTest::keyClick(&h.window, Qt::Key_Up);
        QTest::keyClick(&h.window, Qt::Key_Left);
        QCOMPARE(h.take(), QByteArray("\x1bOA\x1bOD"));
        QTest::keyClick(&h.window, Qt::Key_C, Qt::ControlModifier);
        QCOMPARE(h.take(), QByteArray("\x03"));
        QTest::keyClick(&h.window, Qt::Key_F, Qt::AltModifier);
        QCOMPARE(h.take(), QByteArray("\x1b"
                                      "f"));
        QTest::keyClick(&h.window, Qt::Key_Backspace);
        QCOMPARE(h.take(), QByteArray("\x7f"));
        h.view->settings().backspaceSendsControlH = true;
        QTest::keyClick(&h.window, Qt::Key_Backspace);
        QCOMPARE(h.take(), QByteArray("\x08"));
    }

    void theTerminalsOwnPointerGoesToItsExtension() {
        Harness h;
        QList<MouseEvent> pointer;
        TerminalView::Extensions extensions;
        extensions.encodeEnhancedKey = [](const KeyPress& press,
                                          const InputModes&) -> std::optional<std::string> {
            if (press.key == Key::escape)
                return std::string("\x1b[27u");
            return std::nullopt;
        };
        extensions.pointer = [&](const MouseEvent& e) {
            pointer << e;
            return true;
        };
        h.view->setExtensions(extensions);
        // No program enabled keyboard enhancements: the legacy byte, not the extension's.
        QTest::keyClick(&h.window, Qt::Key_Escape);
        QCOMPARE(h.take(), QByteArray("\x1b"));
        QTest::mouseClick(&h.window, Qt::LeftButton, Qt::NoModifier, h.cellCentre(3, 2));
        QCOMPARE(pointer.size(), 2);
        QCOMPARE(pointer.first().col, 3);
        QCOMPARE(pointer.first().row, 2);
        h.view->feed("\x1b[?1000h"); // now the program takes the pointer
        QTest::mouseClick(&h.window, Qt::LeftButton, Qt::NoModifier, h.cellCentre(3, 2));
        QCOMPARE(pointer.size(), 2);
    }

    void kittyKeysOnceTheProgramAsksForThem() {
        Harness h;
        h.view->feed("\x1b[>1u"); // disambiguate
        QTest::keyClick(&h.window, Qt::Key_Escape);
        QCOMPARE(h.take(), QByteArray("\x1b[27u"));
        QTest::keyClick(&h.window, Qt::Key_A, Qt::ControlModifier);
        QCOMPARE(h.take(), QByteArray("\x1b[97;5u"));
        QTest::keyClick(&h.window, Qt::Key_A, Qt::NoModifier);
        QCOMPARE(h.take(), QByteArray("a"));
        // Report every key with its events: the press and the release of each.
        h.view->feed("\x1b[=11u");
        QTest::keyClick(&h.window, Qt::Key_A, Qt::NoModifier);
        QCOMPARE(h.take(), QByteArray("\x1b[97u\x1b[97;1:3u"));
        QTest::keyClick(&h.window, Qt::Key_Up, Qt::NoModifier);
        QCOMPARE(h.take(), QByteArray("\x1b[A\x1b[1;1:3A"));
        // The program pops its flags: legacy bytes again.
        h.view->feed("\x1b[<u");
        QTest::keyClick(&h.window, Qt::Key_Escape);
        QCOMPARE(h.take(), QByteArray("\x1b"));
    }

    void aDragSelectsTextAndCtrlShiftCCopiesIt() {
        Harness h;
        h.view->feed("hello world\r\nsecond line");
        QVERIFY(h.presented());
        const CellMetrics& cell = h.view->cellMetrics();
        const auto boundary = [&](int col, int row) {
            return QPoint(static_cast<int>(col * cell.width + 1),
                          static_cast<int>((row + 0.5) * cell.height));
        };
        QTest::mousePress(&h.window, Qt::LeftButton, Qt::NoModifier, boundary(0, 0));
        QTest::mouseMove(&h.window, boundary(5, 0));
        QTest::mouseRelease(&h.window, Qt::LeftButton, Qt::NoModifier, boundary(5, 0));
        QVERIFY(h.view->hasSelection());
        QCOMPARE(h.view->selectedText(), QString("hello"));
        QCOMPARE(h.take(), QByteArray()); // nothing went to the program
        QClipboard* clipboard = QGuiApplication::clipboard();
        if (clipboard->supportsSelection())
            QCOMPARE(clipboard->text(QClipboard::Selection), QString("hello"));
        clipboard->clear();
        QTest::keyClick(&h.window, Qt::Key_C, Qt::ControlModifier | Qt::ShiftModifier);
        QCOMPARE(clipboard->text(), QString("hello"));
        // The selection is drawn over the text: one rectangle, five cells wide.
        QVERIFY(QTest::qWaitFor([&] { return !h.view->highlightRects().empty(); }, 2000));
        QCOMPARE(h.view->highlightRects().size(), size_t(1));
        QCOMPARE(qRound(h.view->highlightRects()[0].first.width() * h.view->window()->devicePixelRatio()),
                 5 * cell.width);
        // A plain click ends it.
        QTest::mouseClick(&h.window, Qt::LeftButton, Qt::NoModifier, h.cellCentre(8, 1));
        QVERIFY(!h.view->hasSelection());
    }

    void doubleAndTripleClicksSelectAWordAndALine() {
        Harness h;
        h.view->feed("cat src/foo-bar_baz.txt now");
        QTest::mouseDClick(&h.window, Qt::LeftButton, Qt::NoModifier, h.cellCentre(12, 0));
        QCOMPARE(h.view->selectedText(), QString("foo-bar_baz.txt"));
        QTest::mouseClick(&h.window, Qt::LeftButton, Qt::NoModifier, h.cellCentre(12, 0));
        QCOMPARE(h.view->selectedText(), QString("cat src/foo-bar_baz.txt now"));
    }

    void theMiddleButtonPastesThePrimarySelection() {
        Harness h;
        QClipboard* clipboard = QGuiApplication::clipboard();
        if (!clipboard->supportsSelection())
            QSKIP("this platform has no primary selection");
        clipboard->setText("from elsewhere", QClipboard::Selection);
        QTest::mouseClick(&h.window, Qt::MiddleButton, Qt::NoModifier, h.cellCentre(1, 1));
        QCOMPARE(h.take(), QByteArray("from elsewhere"));
    }

    void findHighlightsEveryMatchAndRevealsTheNextOne() {
        Harness h;
        QSignalSpy asked(h.view, &TerminalView::findRequested);
        QTest::keyClick(&h.window, Qt::Key_F, Qt::ControlModifier | Qt::ShiftModifier);
        QCOMPARE(asked.size(), 1);
        QCOMPARE(h.take(), QByteArray());
        h.view->feed("the needle is here\r\n");
        for (int i = 0; i < 200; ++i)
            h.view->feed("filler line " + std::to_string(i) + "\r\n");
        h.view->feed("a second needle\r\n");
        QVERIFY(h.presented());
        QCOMPARE(h.view->highlightAll("needle", false, false, false), 2);
        // The first match is in the scrollback: finding it scrolls the view back to it.
        QVERIFY(h.view->findNext("needle", false, false, false));
        QVERIFY(h.view->userScrolling());
        QCOMPARE(h.view->selectedText(), QString("needle"));
        QVERIFY(QTest::qWaitFor([&] { return !h.view->highlightRects().empty(); }, 2000));
        // Then the second, on the program's screen; past it, back to the first.
        QVERIFY(h.view->findNext("needle", false, false, false));
        QCOMPARE(h.view->selection().start().row, h.view->terminal().buffer().yBase() + h.view->rows() - 2);
        QVERIFY(!h.view->userScrolling());
        QVERIFY(h.view->findNext("needle", false, false, false));
        QCOMPARE(h.view->selection().start().row, LineIndex(0));
        // Case is ignored unless asked for.
        QCOMPARE(h.view->highlightAll("NEEDLE", false, false, false), 2);
        QVERIFY(!h.view->findNext("NEEDLE", true, false, false));
        h.view->clearSearch();
        QCOMPARE(h.view->searchMatchCount(), 0);
    }

    void controlClickOpensTheLinkUnderThePointer() {
        Harness h;
        h.view->feed("open \x1b]8;id=r1:x=2;https://explicit.example/r\x1b\\report\x1b]8;;\x1b\\ or "
                     "https://implicit.example/p.\r\n");
        QVERIFY(h.presented());
        // Without Control a click selects as usual and opens nothing.
        QTest::mouseClick(&h.window, Qt::LeftButton, Qt::NoModifier, h.cellCentre(7, 0));
        QVERIFY(h.recorder.links.isEmpty());
        QTest::mouseClick(&h.window, Qt::LeftButton, Qt::ControlModifier, h.cellCentre(7, 0));
        QCOMPARE(h.recorder.links.size(), 1);
        QCOMPARE(h.recorder.links[0].first, std::string("https://explicit.example/r"));
        QCOMPARE(h.recorder.links[0].second.at("id"), std::string("r1"));
        QCOMPARE(h.recorder.links[0].second.at("x"), std::string("2"));
        QTest::mouseClick(&h.window, Qt::LeftButton, Qt::ControlModifier, h.cellCentre(20, 0));
        QCOMPARE(h.recorder.links.size(), 2);
        QCOMPARE(h.recorder.links[1].first, std::string("https://implicit.example/p"));
        QVERIFY(!h.view->hasSelection());
        // Hovering with Control underlines the link.
        QHoverEvent hover(QEvent::HoverMove, h.cellCentre(8, 0), h.cellCentre(8, 0), h.cellCentre(7, 0),
                          Qt::ControlModifier);
        QCoreApplication::sendEvent(h.view, &hover);
        QVERIFY(h.view->hoveredLink());
        QCOMPARE(h.view->hoveredLink()->range, std::pair(5, 11));
        QHoverEvent away(QEvent::HoverMove, h.cellCentre(8, 0), h.cellCentre(8, 0), h.cellCentre(8, 0),
                         Qt::NoModifier);
        QCoreApplication::sendEvent(h.view, &away);
        QVERIFY(!h.view->hoveredLink());
    }

    void aClickInAMarkedCommandLineMovesTheCursorThere() {
        Harness h;
        h.view->settings().semanticClickCoalescingDelay = kShortCoalescingDelay;
        h.view->feed("\x1b]133;A\x07$ \x1b]133;B\x07"
                     "echo abcdef");
        QVERIFY(h.presented());
        QTest::mouseClick(&h.window, Qt::LeftButton, Qt::NoModifier, h.cellCentre(9, 0));
        // The keys wait out the coalescing delay.
        QCOMPARE(h.take(), QByteArray());
        QTRY_COMPARE(h.recorder.sent, QByteArray("\x1b[D\x1b[D\x1b[D\x1b[D"));
        h.take();
        // Once the command was sent, clicks are the selection's again.
        QTest::keyClick(&h.window, Qt::Key_Return);
        h.take();
        QTest::mouseClick(&h.window, Qt::LeftButton, Qt::NoModifier, h.cellCentre(4, 0));
        QCOMPARE(h.take(), QByteArray());
    }

    void aDoubleClickWithinTheCoalescingDelaySelectsAWordAndMovesNothing() {
        Harness h;
        // Longer than a double click takes, so the second press comes in time.
        h.view->settings().semanticClickCoalescingDelay = 2s;
        h.view->feed("\x1b]133;A\x07$ \x1b]133;B\x07"
                     "echo abcdef");
        QVERIFY(h.presented());
        // The first release of a double click starts the wait; the second press ends it.
        QTest::mouseDClick(&h.window, Qt::LeftButton, Qt::NoModifier, h.cellCentre(9, 0));
        QVERIFY(h.view->hasSelection());
        QCOMPARE(h.view->selectedText(), QStringLiteral("abcdef"));
        QTest::qWait(50);
        QCOMPARE(h.take(), QByteArray());
    }

    void aClickThatWantsAModifierMovesTheCursorOnlyWithIt() {
        Harness h;
        h.view->settings().semanticClickCoalescingDelay = kShortCoalescingDelay;
        h.view->semanticPrompts().setSemanticPromptClickBehavior(SemanticPromptClickBehavior::requireModifier(
            SemanticPromptClickModifiers{SemanticPromptClickModifiers::alt}));
        h.view->feed("\x1b]133;A\x07$ \x1b]133;B\x07"
                     "echo abcdef");
        QVERIFY(h.presented());
        QTest::mouseClick(&h.window, Qt::LeftButton, Qt::NoModifier, h.cellCentre(9, 0));
        QTest::qWait(50);
        QCOMPARE(h.take(), QByteArray());
        // Another cell, so that this is not the second click of a double click.
        QTest::mouseClick(&h.window, Qt::LeftButton, Qt::AltModifier, h.cellCentre(10, 0));
        QTRY_COMPARE(h.recorder.sent, QByteArray("\x1b[D\x1b[D\x1b[D"));
    }

    void everyLinkIsUnderlinedWhileControlIsHeldInModeAlwaysWithModifier() {
        Harness h;
        h.view->settings().linkHighlightMode = LinkHighlightMode::alwaysWithModifier;
        h.view->feed(
            "\x1b]8;;https://explicit.example/\x1b\\docs\x1b]8;;\x1b\\ and https://implicit.example/p\r\n"
            "see ./notes.md");
        QVERIFY(h.presented());
        QVERIFY(h.view->underlinedLinks().empty());
        QTest::keyPress(&h.window, Qt::Key_Control, Qt::ControlModifier);
        std::vector<LinkMatch> links = h.view->underlinedLinks();
        QCOMPARE(links.size(), size_t(3));
        QCOMPARE(links[0].text, std::string("https://explicit.example/"));
        QVERIFY(links[0].isExplicit);
        QCOMPARE(links[0].range, std::pair(0, 4));
        QCOMPARE(links[1].text, std::string("https://implicit.example/p"));
        QCOMPARE(links[2].text, std::string("./notes.md"));
        QCOMPARE(links[2].row, LineIndex(1));
        QTest::keyRelease(&h.window, Qt::Key_Control, Qt::NoModifier);
        QVERIFY(h.view->underlinedLinks().empty());
        // Mode "always" shows them without the key; "hover" only the one under the pointer.
        h.view->settings().linkHighlightMode = LinkHighlightMode::always;
        QCOMPARE(h.view->underlinedLinks().size(), size_t(3));
        h.view->settings().linkHighlightMode = LinkHighlightMode::hover;
        QVERIFY(h.view->underlinedLinks().empty());
        QHoverEvent hover(QEvent::HoverMove, h.cellCentre(2, 1), h.cellCentre(2, 1), h.cellCentre(1, 1),
                          Qt::NoModifier);
        QCoreApplication::sendEvent(h.view, &hover);
        links = h.view->underlinedLinks();
        QCOMPARE(links.size(), size_t(0));
        QHoverEvent onPath(QEvent::HoverMove, h.cellCentre(6, 1), h.cellCentre(6, 1), h.cellCentre(2, 1),
                           Qt::NoModifier);
        QCoreApplication::sendEvent(h.view, &onPath);
        links = h.view->underlinedLinks();
        QCOMPARE(links.size(), size_t(1));
        QCOMPARE(links[0].text, std::string("./notes.md"));
    }

    void aPathLinkOpensOnlyAnExistingFile() {
        QTemporaryDir dir;
        QFile file(dir.filePath("notes.md"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.close();
        const std::string folder = dir.path().toStdString();
        QCOMPARE(TerminalView::defaultLinkURL("./notes.md", folder).value_or(""),
                 QUrl::fromLocalFile(dir.filePath("notes.md")).toString().toStdString());
        QVERIFY(!TerminalView::defaultLinkURL("./missing.md", folder));
        QCOMPARE(TerminalView::defaultLinkURL("https://a.example/x", folder).value_or(""),
                 std::string("https://a.example/x"));
    }

    void composedTextArrivesThroughTheInputMethod() {
        Harness h;
        QInputMethodEvent event;
        event.setCommitString(QString::fromUtf8("\xE4\xBD\xA0\xE5\xA5\xBD"));
        QCoreApplication::sendEvent(h.view, &event);
        QCOMPARE(h.take(), QByteArray("\xE4\xBD\xA0\xE5\xA5\xBD"));
        QVERIFY(static_cast<QQuickItem*>(h.view)->inputMethodQuery(Qt::ImEnabled).toBool());
    }

    void thePointerIsReportedInTheProgramsEncoding() {
        Harness h;
        QTest::mouseClick(&h.window, Qt::LeftButton, Qt::NoModifier, h.cellCentre(2, 1));
        QCOMPARE(h.take(), QByteArray()); // no mouse mode: nothing goes to the program
        h.view->feed("\x1b[?1000h\x1b[?1006h");
        QTest::mouseClick(&h.window, Qt::LeftButton, Qt::NoModifier, h.cellCentre(2, 1));
        QCOMPARE(h.take(), QByteArray("\x1b[<0;3;2M\x1b[<0;3;2m"));
        // Shift keeps the pointer for selecting, over a program that reports.
        QTest::mouseClick(&h.window, Qt::LeftButton, Qt::ShiftModifier, h.cellCentre(2, 1));
        QCOMPARE(h.take(), QByteArray());
        h.view->feed("\x1b[?1006l"); // back to the X10 encoding
        QTest::mouseClick(&h.window, Qt::RightButton, Qt::NoModifier, h.cellCentre(0, 0));
        QCOMPARE(h.take(), QByteArray("\x1b[M\x22\x21\x21\x1b[M\x23\x21\x21"));
        h.view->settings().allowMouseReporting = false;
        QTest::mouseClick(&h.window, Qt::LeftButton, Qt::NoModifier, h.cellCentre(2, 1));
        QCOMPARE(h.take(), QByteArray());
    }

    void theWheelSendsArrowsInAFullScreenProgramWithAlternateScroll() {
        Harness h;
        h.view->feed("\x1b[?1049h\x1b[?1007h");
        QWheelEvent wheel(QPointF(h.cellCentre(1, 1)), h.window.mapToGlobal(QPointF(h.cellCentre(1, 1))),
                          QPoint(), QPoint(0, 120), Qt::NoButton, Qt::NoModifier, Qt::NoScrollPhase, false);
        QCoreApplication::sendEvent(&h.window, &wheel);
        QCOMPARE(h.take(), QByteArray("\x1b[A\x1b[A\x1b[A"));
        h.view->feed("\x1b[?1007l");
        QCoreApplication::sendEvent(&h.window, &wheel);
        QCOMPARE(h.take(), QByteArray());
    }

    void theWheelScrollsBackAndTypingReturnsToTheBottom() {
        Harness h;
        for (int i = 0; i < 100; ++i)
            h.view->feed(QString("line %1\r\n").arg(i).toStdString());
        QVERIFY(!h.view->userScrolling());
        QWheelEvent wheel(QPointF(h.cellCentre(1, 1)), h.window.mapToGlobal(QPointF(h.cellCentre(1, 1))),
                          QPoint(), QPoint(0, 120), Qt::NoButton, Qt::NoModifier, Qt::NoScrollPhase, false);
        QCoreApplication::sendEvent(&h.window, &wheel);
        QVERIFY(h.view->userScrolling());
        QVERIFY(h.take().isEmpty());
        QVERIFY(!h.view->screenText().contains("line 99"));
        QTest::keyClick(&h.window, Qt::Key_A);
        QCOMPARE(h.take(), QByteArray("a"));
        QVERIFY(!h.view->userScrolling());
        QVERIFY(h.view->screenText().contains("line 99"));
        h.view->pageUp();
        QVERIFY(h.view->userScrolling());
        h.view->scrollToBottom();
        QVERIFY(!h.view->userScrolling());
    }

    void aPasteIsOneBlockInsideTheBrackets() {
        Harness h;
        h.view->paste("echo one\necho two\n");
        QCOMPARE(h.take(), QByteArray("echo one\recho two\r"));
        h.view->feed("\x1b[?2004h");
        h.view->paste("echo one\necho two\n");
        QCOMPARE(h.take(), QByteArray("\x1b[200~echo one\recho two\r\x1b[201~"));
    }

    void focusIsReportedWhenTheProgramAsks() {
        Harness h;
        h.window.requestActivate();
        QVERIFY(QTest::qWaitForWindowActive(&h.window));
        h.view->forceActiveFocus();
        QTRY_VERIFY(h.view->hasActiveFocus());
        h.view->feed("\x1b[?1004h");
        h.take();
        auto* elsewhere = new QQuickItem(h.window.contentItem());
        elsewhere->forceActiveFocus();
        QTRY_COMPARE(h.recorder.sent, QByteArray("\x1b[O"));
        h.take();
        h.view->forceActiveFocus();
        QTRY_COMPARE(h.recorder.sent, QByteArray("\x1b[I"));
    }

    void theBellFlashesOrSoundsByItsStyle() {
        Harness h;
        QSignalSpy rang(h.view, &TerminalView::bellRang);
        h.view->settings().bellStyle = BellStyle::visual;
        h.view->feed("\a");
        QCOMPARE(rang.count(), 1);
        QCOMPARE(h.recorder.sounds, 0);
        h.view->settings().bellStyle = BellStyle::sound;
        h.view->feed("\a");
        QCOMPARE(h.recorder.sounds, 1);
        h.view->settings().bellStyle = BellStyle::soundAndVisual;
        h.view->feed("\a");
        QCOMPARE(h.recorder.sounds, 2);
        h.view->settings().bellStyle = BellStyle::none;
        h.view->feed("\a");
        QCOMPARE(h.recorder.sounds, 2);
        QCOMPARE(rang.count(), 4);
    }

    void progressReportsShowTheBar() {
        Harness h;
        h.view->feed("\x1b]9;4;1;40\x1b\\");
        QVERIFY(h.view->progressBar().visible());
        QCOMPARE(h.view->progressBar().progress(), 40);
        h.view->feed("\x1b]9;4;3\x1b\\");
        QCOMPARE(h.view->progressBar().state(), ProgressReport::State::indeterminate);
        h.view->feed("\x1b]9;4;0\x1b\\");
        QVERIFY(!h.view->progressBar().visible());
    }

    void synchronizedOutputHoldsTheScreenUntilItEnds() {
        Harness h;
        h.view->feed("before\r\n");
        QVERIFY(h.presented());
        const uint64_t frames = h.view->presentedFrames();
        const uint64_t shown = h.view->bytesPresented();
        h.view->feed("\x1b[?2026h");
        h.view->feed("during the update\r\n");
        QTest::qWait(200);
        // Nothing of it reaches the screen. A frame may still go out meanwhile (a layer of the
        // earlier screen settling), but none shows a byte fed after the update began.
        QCOMPARE(h.view->bytesPresented(), shown);
        QVERIFY(h.view->bytesPresented() < h.view->bytesFed());
        h.view->feed("\x1b[?2026l");
        QVERIFY(h.presented());
        QVERIFY(h.view->presentedFrames() > frames);
        QCOMPARE(h.view->bytesPresented(), h.view->bytesFed());
    }

    void textBlinksOnlyWhileBlinkingCellsAreShownInAnActiveWindow() {
        Harness h;
        h.window.requestActivate();
        QVERIFY(QTest::qWaitForWindowActive(&h.window));
        h.view->feed("plain text\r\n");
        QVERIFY(h.presented());
        QVERIFY(!h.view->textBlinkRunning());
        h.view->feed("\x1b[5mblinking\x1b[0m\r\n");
        QVERIFY(h.presented());
        QTRY_VERIFY(h.view->textBlinkRunning());
        // Another window takes the focus: the timer stops.
        QQuickWindow other;
        other.resize(100, 100);
        other.show();
        other.requestActivate();
        QVERIFY(QTest::qWaitForWindowActive(&other));
        QTRY_VERIFY(!h.view->textBlinkRunning());
        h.window.requestActivate();
        QVERIFY(QTest::qWaitForWindowActive(&h.window));
        QTRY_VERIFY(h.view->textBlinkRunning());
        // The blinking line scrolls out of sight: the timer stops.
        h.view->feed("\x1b[2J\x1b[H");
        QVERIFY(h.presented());
        QTRY_VERIFY(!h.view->textBlinkRunning());
    }

    void aSizeInCellsFollowsTheItem() {
        Harness h;
        const CellMetrics& cell = h.view->cellMetrics();
        QCOMPARE(h.view->cols(), 640 / cell.width);
        QCOMPARE(h.view->rows(), 400 / cell.height);
        QCOMPARE(h.view->terminal().cols(), h.view->cols());
        QTRY_VERIFY(h.view->presentedFrames() > 0);
        const uint64_t before = h.view->rowCacheDrops();
        h.view->setSize(QSizeF(320, 200));
        QTRY_COMPARE(h.view->cols(), 320 / cell.width);
        QVERIFY(!h.recorder.sizes.isEmpty());
        QCOMPARE(h.recorder.sizes.last(), qMakePair(320 / cell.width, 200 / cell.height));
        // A new size drops the row cache whole; a change of one row does not.
        QTRY_VERIFY(h.view->rowCacheDrops() > before);
        h.view->feed("y");
        QVERIFY(h.presented());
        const uint64_t drops = h.view->rowCacheDrops();
        h.view->feed("x");
        QVERIFY(h.presented());
        QCOMPARE(h.view->rowCacheDrops(), drops);
    }

    void aLiveResizeReachesTheTerminalFirstLastAndAtMostOncePerInterval() {
        Harness h;
        h.view->setLiveResizeThrottle(true);
        QTest::qWait(100); // past any throttle of the first layout
        h.recorder.sizes.clear();
        const CellMetrics& cell = h.view->cellMetrics();
        for (int i = 1; i <= 20; ++i)
            h.view->setSize(QSizeF(640 - i * cell.width, 400));
        // The first change went through at once; the rest wait for the interval.
        QCOMPARE(h.recorder.sizes.size(), 1);
        QCOMPARE(h.recorder.sizes.first().first, (640 - cell.width) / cell.width);
        QTRY_COMPARE(h.view->cols(), (640 - 20 * cell.width) / cell.width);
        QCOMPARE(h.recorder.sizes.size(), 2);
        h.view->setLiveResizeThrottle(false);
        h.view->setSize(QSizeF(300, 400));
        QCOMPARE(h.view->cols(), 300 / cell.width);
    }

    void aViewMadeWithNoSizeKeepsItsTerminalUntilItHasOne() {
        QQuickWindow window;
        window.resize(200, 200);
        auto* view = new TerminalView(window.contentItem());
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QCOMPARE(view->terminal().cols(), TerminalOptions{}.cols);
        QCOMPARE(view->terminal().rows(), TerminalOptions{}.rows);
        view->setSize(QSizeF(200, 200));
        QCOMPARE(view->terminal().cols(), 200 / view->cellMetrics().width);
    }
};

QTEST_MAIN(TerminalViewBehaviourTest)
#include "TerminalViewBehaviourTest.moc"
