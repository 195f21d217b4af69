// The Qt side of the view that needs no window: key events, the frame scheduler on the
// main loop, and the caret picture.

#include <QGuiApplication>
#include <QSignalSpy>
#include <QTest>
#include <QThread>

#include <atomic>

#include "Termkit/view/qt/QtFrameScheduler.h"
#include "Termkit/view/qt/QtKeyMapping.h"
#include "Termkit/view/qt/QtKittyKeyMapping.h"
#include "Termkit/view/render/CaretPainter.h"

using namespace termkit;
using namespace std::chrono_literals;

class QtGlueTest : public QObject {
    Q_OBJECT

    static std::string encoded(int key, Qt::KeyboardModifiers mods, const QString& text,
                               InputModes modes = {}) {
        return KeyEncoder::encode(QtKeyMapping::fromParts(key, mods, text), modes, {}).value_or("<none>");
    }

private slots:
    void keyEventsBecomeTheBytesOfTheirKeys() {
        QCOMPARE(encoded(Qt::Key_A, Qt::NoModifier, "a"), std::string("a"));
        QCOMPARE(encoded(Qt::Key_A, Qt::ShiftModifier, "A"), std::string("A"));
        QCOMPARE(encoded(Qt::Key_C, Qt::ControlModifier, "\x03"), std::string("\x03"));
        QCOMPARE(encoded(Qt::Key_BracketLeft, Qt::ControlModifier, "\x1b"), std::string("\x1b"));
        QCOMPARE(encoded(Qt::Key_Space, Qt::ControlModifier, " "), std::string(1, '\0'));
        QCOMPARE(encoded(Qt::Key_B, Qt::AltModifier, "b"), std::string("\x1b"
                                                                       "b"));
        QCOMPARE(encoded(Qt::Key_Return, Qt::NoModifier, "\r"), std::string("\r"));
        QCOMPARE(encoded(Qt::Key_Backspace, Qt::NoModifier, "\x7f"), std::string("\x7f"));
        QCOMPARE(encoded(Qt::Key_Backtab, Qt::ShiftModifier, ""), std::string("\x1b[Z"));
        QCOMPARE(encoded(Qt::Key_Up, Qt::NoModifier, ""), std::string("\x1b[A"));
        InputModes app;
        app.applicationCursor = true;
        QCOMPARE(encoded(Qt::Key_Up, Qt::NoModifier, "", app), std::string("\x1bOA"));
        QCOMPARE(encoded(Qt::Key_Left, Qt::ControlModifier, ""), std::string("\x1b[1;5D"));
        QCOMPARE(encoded(Qt::Key_F5, Qt::NoModifier, ""), std::string("\x1b[15~"));
        QCOMPARE(encoded(Qt::Key_Shift, Qt::ShiftModifier, ""), std::string("<none>"));
        // Composed and CJK input arrive as text with no key of their own.
        QCOMPARE(encoded(0, Qt::NoModifier, QString::fromUtf8("\xE4\xBD\xA0")), std::string("\xE4\xBD\xA0"));
        InputModes keypad;
        keypad.applicationKeypad = true;
        QCOMPARE(encoded(Qt::Key_5, Qt::KeypadModifier, "5", keypad), std::string("\x1bOu"));
        QCOMPARE(encoded(Qt::Key_Enter, Qt::KeypadModifier, "\r", keypad), std::string("\x1bOM"));
    }

    void keyEventsBecomeKittyKeyEvents() {
        using P = QtKittyKeyMapping::KeyParts;
        const auto kitty = [](P p) { return QtKittyKeyMapping::toKittyEvent(p); };
        constexpr quint32 kCodeOfA = 38; // X11 key code of the US "a" key
        constexpr quint32 kCodeOfOne = 10;
        KittyKeyEvent e = kitty({Qt::Key_A, Qt::ShiftModifier, "A", false, false, kCodeOfA, 0});
        QCOMPARE(*e.key.scalar(), U'a');
        QCOMPARE(e.modifiers, KittyKeyboardModifiers::shift);
        QCOMPARE(e.shiftedKey.value_or(0), uint32_t('A'));
        QVERIFY(!e.baseLayoutKey); // the same key on the US layout
        QCOMPARE(e.text.value_or(""), std::string("A"));
        // Shift+1 on a US layout types "!": the key is still "1", shifted "!".
        e = kitty({Qt::Key_Exclam, Qt::ShiftModifier, "!", false, false, kCodeOfOne, 0});
        QCOMPARE(*e.key.scalar(), U'1');
        QCOMPARE(e.shiftedKey.value_or(0), uint32_t('!'));
        // A Cyrillic layout: the key types "с" where the US layout has "c".
        constexpr quint32 kCodeOfC = 54;
        e = kitty({0x441, Qt::ControlModifier, QString::fromUtf8("\xd1\x81"), false, false, kCodeOfC, 0});
        QCOMPARE(*e.key.scalar(), char32_t(0x441));
        QCOMPARE(e.baseLayoutKey.value_or(0), uint32_t('c'));
        QCOMPARE(KittyKeyboardEncoder::encode(
                     e, KittyKeyboardFlags::disambiguate | KittyKeyboardFlags::reportAlternates, false)
                     .value_or(""),
                 std::string("\x1b[1089::99;5u"));
        // Modifiers: Super (Qt's Meta), and the locks from the X11 state.
        e = kitty({Qt::Key_B, Qt::MetaModifier | Qt::AltModifier, "b", false, false, 0, 0x2 | 0x10});
        QCOMPARE(e.modifiers, uint8_t(KittyKeyboardModifiers::super | KittyKeyboardModifiers::alt |
                                      KittyKeyboardModifiers::capsLock | KittyKeyboardModifiers::numLock));
        // Repeat and release.
        QCOMPARE(kitty({Qt::Key_X, {}, "x", true, false, 0, 0}).eventType,
                 KittyKeyboardEventType::repeatPress);
        e = kitty({Qt::Key_X, {}, "x", false, true, 0, 0});
        QCOMPARE(e.eventType, KittyKeyboardEventType::release);
        QVERIFY(!e.text);
        // Functional and keypad keys, and modifier keys themselves.
        QCOMPARE(*kitty({Qt::Key_F13, {}, "", false, false, 0, 0}).key.functionalKey(),
                 KittyFunctionalKey::f13);
        QCOMPARE(*kitty({Qt::Key_Home, Qt::KeypadModifier, "", false, false, 0, 0}).key.functionalKey(),
                 KittyFunctionalKey::keypadHome);
        QCOMPARE(*kitty({Qt::Key_7, Qt::KeypadModifier, "7", false, false, 0, 0}).key.functionalKey(),
                 KittyFunctionalKey::keypad7);
        QCOMPARE(*kitty({Qt::Key_Enter, Qt::KeypadModifier, "\r", false, false, 0, 0}).key.functionalKey(),
                 KittyFunctionalKey::keypadEnter);
        QCOMPARE(*kitty({Qt::Key_Shift, Qt::ShiftModifier, "", false, false, 0, 0}).key.functionalKey(),
                 KittyFunctionalKey::leftShift);
        QCOMPARE(*kitty({Qt::Key_Backtab, Qt::ShiftModifier, "", false, false, 0, 0}).key.functionalKey(),
                 KittyFunctionalKey::tab);
        // Text the input method composed, with no key of its own.
        e = kitty({0, {}, QString::fromUtf8("\xe4\xbd\xa0"), false, false, 0, 0});
        QVERIFY(e.key.scalar() != nullptr);
        QCOMPARE(*e.key.scalar(), char32_t(0x4F60));
        QCOMPARE(e.text.value_or(""), std::string("\xe4\xbd\xa0"));
    }

    void theApplicationKeepsItsShortcuts() {
        QVERIFY(QtKeyMapping::isApplicationShortcut(Qt::Key_QuoteLeft, Qt::ControlModifier));
        QVERIFY(QtKeyMapping::isApplicationShortcut(Qt::Key_V, Qt::ControlModifier | Qt::ShiftModifier));
        QVERIFY(!QtKeyMapping::isApplicationShortcut(Qt::Key_V, Qt::ControlModifier));
        QVERIFY(!QtKeyMapping::isApplicationShortcut(Qt::Key_QuoteLeft, Qt::NoModifier));
    }

    void scheduledActionsRunOnTheMainThreadWhoeverScheduledThem() {
        QtFrameScheduler scheduler;
        std::atomic<int> ran{0};
        QThread* mainThread = QThread::currentThread();
        std::atomic<bool> onMain{false};
        QThread* worker = QThread::create([&] {
            scheduler.schedule(5ms, [&] {
                onMain = QThread::currentThread() == mainThread;
                ++ran;
            });
        });
        worker->start();
        worker->wait();
        delete worker;
        QTRY_COMPARE(ran.load(), 1);
        QVERIFY(onMain.load());
        QCOMPARE(scheduler.pending(), size_t(0));
    }

    void aCancelledActionNeverRuns() {
        QtFrameScheduler scheduler;
        int ran = 0;
        const auto task = scheduler.schedule(5ms, [&] { ++ran; });
        const auto other = scheduler.schedule(10ms, [&] { ran += 10; });
        scheduler.cancel(task);
        QTest::qWait(50);
        QCOMPARE(ran, 10);
        // Cancelling from another thread, before the timer started, works as well.
        const auto late = scheduler.schedule(5ms, [&] { ran += 100; });
        QThread* worker = QThread::create([&] { scheduler.cancel(late); });
        worker->start();
        worker->wait();
        delete worker;
        QTest::qWait(50);
        QCOMPARE(ran, 10);
        Q_UNUSED(other);
    }

    void theCaretInItsShapes() {
        FontSet fonts;
        GlyphCache glyphs(fonts, {});
        const CellMetrics& m = fonts.metrics();
        RenderCell a;
        a.code = 'A';
        CaretLook look;
        look.caretColor = 0xFF000000u;
        look.caretTextColor = 0xFFFFFFFFu;
        const QImage block = CaretPainter::paint(look, a, {}, glyphs);
        QCOMPARE(block.size(), QSize(m.width, m.height));
        QCOMPARE(block.pixel(0, 0), 0xFF000000u);
        int white = 0;
        for (int y = 0; y < block.height(); ++y)
            for (int x = 0; x < block.width(); ++x)
                white += qRed(block.pixel(x, y)) > 200 ? 1 : 0;
        QVERIFY(white > 5); // the A inside, in the caret's text colour
        look.focused = false;
        const QImage hollow = CaretPainter::paint(look, a, {}, glyphs);
        QCOMPARE(hollow.pixel(0, 0), 0xFF000000u);
        QCOMPARE(qAlpha(hollow.pixel(m.width / 2, m.height / 2)), 0);
        look.shape = CaretShape::bar;
        const QImage bar = CaretPainter::paint(look, a, {}, glyphs);
        QCOMPARE(bar.pixel(0, m.height / 2), 0xFF000000u);
        QCOMPARE(qAlpha(bar.pixel(m.width - 1, m.height / 2)), 0);
        look.shape = CaretShape::underline;
        const QImage underline = CaretPainter::paint(look, a, {}, glyphs);
        QCOMPARE(underline.pixel(m.width / 2, m.height - 1), 0xFF000000u);
        QCOMPARE(qAlpha(underline.pixel(m.width / 2, 0)), 0);
    }
};

QTEST_MAIN(QtGlueTest)
#include "QtGlueTest.moc"
