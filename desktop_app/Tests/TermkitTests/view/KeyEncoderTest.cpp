// Keys to bytes in the legacy encoding, from a small struct of modes.

#include <gtest/gtest.h>

#include "Termkit/view/input/EscapeSequences.h"
#include "Termkit/view/input/KeyEncoder.h"

namespace termkit {
namespace {

namespace es = EscapeSequences;

KeyPress key(Key k, KeyModifiers m = {}) {
    KeyPress p;
    p.key = k;
    p.modifiers = m;
    return p;
}

KeyPress text(std::string t, char32_t base, KeyModifiers m = {}) {
    KeyPress p;
    p.key = Key::text;
    p.text = std::move(t);
    p.baseCharacter = base;
    p.modifiers = m;
    return p;
}

std::string encode(const KeyPress& p, InputModes modes = {}, KeyEncoderOptions options = {}) {
    return KeyEncoder::encode(p, modes, options).value_or("<none>");
}

TEST(EscapeSequencesTest, TableBytes) {
    EXPECT_EQ(es::cmdNewLine, "\n");
    EXPECT_EQ(es::cmdRet, "\r");
    EXPECT_EQ(es::cmdEsc, "\x1b");
    EXPECT_EQ(es::cmdDel, "\x7f");
    EXPECT_EQ(es::cmdDelKey, "\x1b[3~");
    EXPECT_EQ(es::moveUpApp, "\x1bOA");
    EXPECT_EQ(es::moveRightApp, "\x1bOC");
    EXPECT_EQ(es::moveLeftNormal, "\x1b[D");
    EXPECT_EQ(es::moveHomeApp, "\x1bOH");
    EXPECT_EQ(es::moveEndNormal, "\x1b[F");
    EXPECT_EQ(es::cmdBackTab, "\x1b[Z");
    EXPECT_EQ(es::cmdPageDown, "\x1b[6~");
    EXPECT_EQ(es::cmdInsert, "\x1b[2~");
    EXPECT_EQ(es::emacsBack, "\x1b"
                             "b");
    EXPECT_EQ(es::controlRight, "\x1b[1;5C");
    EXPECT_EQ(es::bracketedPasteStart, "\x1b[200~");
    EXPECT_EQ(es::bracketedPasteEnd, "\x1b[201~");
    EXPECT_EQ(es::cmdF[0], "\x1bOP");
    EXPECT_EQ(es::cmdF[11], "\x1b[24~");
}

TEST(KeyEncoderTest, CursorKeysFollowApplicationCursorMode) {
    InputModes normal;
    InputModes app;
    app.applicationCursor = true;
    EXPECT_EQ(encode(key(Key::up), normal), "\x1b[A");
    EXPECT_EQ(encode(key(Key::down), normal), "\x1b[B");
    EXPECT_EQ(encode(key(Key::right), normal), "\x1b[C");
    EXPECT_EQ(encode(key(Key::left), normal), "\x1b[D");
    EXPECT_EQ(encode(key(Key::up), app), "\x1bOA");
    EXPECT_EQ(encode(key(Key::left), app), "\x1bOD");
    EXPECT_EQ(encode(key(Key::home), normal), "\x1b[H");
    EXPECT_EQ(encode(key(Key::home), app), "\x1bOH");
    EXPECT_EQ(encode(key(Key::end), app), "\x1bOF");
}

TEST(KeyEncoderTest, ModifiedCursorKeysCarryTheXtermParameter) {
    EXPECT_EQ(encode(key(Key::left, {.control = true})), std::string(es::controlLeft));
    EXPECT_EQ(encode(key(Key::right, {.control = true})), std::string(es::controlRight));
    EXPECT_EQ(encode(key(Key::up, {.shift = true})), "\x1b[1;2A");
    // Modifiers use the CSI form even in application cursor mode.
    InputModes app;
    app.applicationCursor = true;
    EXPECT_EQ(encode(key(Key::down, {.shift = true, .control = true}), app), "\x1b[1;6B");
}

TEST(KeyEncoderTest, AltAsMetaMovesByWordAndPrefixesEscape) {
    EXPECT_EQ(encode(key(Key::left, {.alt = true})), std::string(es::emacsBack));
    EXPECT_EQ(encode(key(Key::right, {.alt = true})), std::string(es::emacsForward));
    EXPECT_EQ(encode(text("x", 'x', {.alt = true})), "\x1bx");
    EXPECT_EQ(encode(text("X", 'x', {.shift = true, .alt = true})), "\x1bX");
    EXPECT_EQ(encode(key(Key::backspace, {.alt = true})), "\x1b\x7f");
    // Without the setting, Alt is an ordinary modifier of the text the input method gave.
    KeyEncoderOptions plain;
    plain.optionAsMetaKey = false;
    EXPECT_EQ(encode(text("\xC3\xA5", 'a', {.alt = true}), {}, plain), "\xC3\xA5");
    EXPECT_EQ(encode(key(Key::left, {.alt = true}), {}, plain), "\x1b[1;3D");
}

TEST(KeyEncoderTest, BackspaceSendsDeleteOrControlH) {
    EXPECT_EQ(encode(key(Key::backspace)), "\x7f");
    KeyEncoderOptions controlH;
    controlH.backspaceSendsControlH = true;
    EXPECT_EQ(encode(key(Key::backspace), {}, controlH), "\x08");
    // Control reaches the other one in both settings.
    EXPECT_EQ(encode(key(Key::backspace, {.control = true})), "\x08");
    EXPECT_EQ(encode(key(Key::backspace, {.control = true}), {}, controlH), "\x7f");
}

TEST(KeyEncoderTest, ControlMapsCharactersToC0) {
    EXPECT_EQ(encode(text("\x01", 'a', {.control = true})), "\x01");
    EXPECT_EQ(encode(text("", 'c', {.control = true})), "\x03");
    EXPECT_EQ(encode(text("", 'Z', {.control = true})), "\x1a");
    EXPECT_EQ(encode(text("", '[', {.control = true})), "\x1b");
    EXPECT_EQ(encode(text("", ' ', {.control = true})), std::string(1, '\0'));
    EXPECT_EQ(encode(text("", '@', {.control = true})), std::string(1, '\0'));
    EXPECT_EQ(encode(text("", '\\', {.control = true})), "\x1c");
    EXPECT_EQ(encode(text("", ']', {.control = true})), "\x1d");
    EXPECT_EQ(encode(text("", '/', {.control = true})), "\x1f");
    EXPECT_EQ(encode(text("", '?', {.control = true})), "\x7f");
    EXPECT_EQ(encode(text("", '2', {.control = true})), std::string(1, '\0'));
    EXPECT_EQ(encode(text("", '8', {.control = true})), "\x7f");
    // Control and Alt together: ESC and the control code.
    EXPECT_EQ(encode(text("", 'x', {.alt = true, .control = true})), "\x1b\x18");
    // A character without a control code goes as its text.
    EXPECT_EQ(encode(text("\xC3\xA9", U'\u00E9', {.control = true})), "\xC3\xA9");
}

TEST(KeyEncoderTest, EditingAndFunctionKeys) {
    EXPECT_EQ(encode(key(Key::enter)), "\r");
    EXPECT_EQ(encode(key(Key::tab)), "\t");
    EXPECT_EQ(encode(key(Key::tab, {.shift = true})), "\x1b[Z");
    EXPECT_EQ(encode(key(Key::escape)), "\x1b");
    EXPECT_EQ(encode(key(Key::deleteKey)), "\x1b[3~");
    EXPECT_EQ(encode(key(Key::deleteKey, {.control = true})), "\x1b[3;5~");
    EXPECT_EQ(encode(key(Key::insert)), "\x1b[2~");
    EXPECT_EQ(encode(key(Key::pageUp)), "\x1b[5~");
    EXPECT_EQ(encode(key(Key::pageDown, {.shift = true})), "\x1b[6;2~");
    KeyPress f = key(Key::function);
    f.functionNumber = 1;
    EXPECT_EQ(encode(f), "\x1bOP");
    f.functionNumber = 5;
    EXPECT_EQ(encode(f), "\x1b[15~");
    f.functionNumber = 11;
    EXPECT_EQ(encode(f), "\x1b[23~");
    f.functionNumber = 2;
    f.modifiers.shift = true;
    EXPECT_EQ(encode(f), "\x1b[1;2Q");
    f.functionNumber = 13;
    EXPECT_EQ(encode(f), "<none>");
    EXPECT_EQ(encode(key(Key::other)), "<none>");
}

TEST(KeyEncoderTest, TextAndComposedInputGoAsTyped) {
    EXPECT_EQ(encode(text("a", 'a')), "a");
    EXPECT_EQ(encode(text("\xE4\xBD\xA0\xE5\xA5\xBD", 0)), "\xE4\xBD\xA0\xE5\xA5\xBD");
    EXPECT_EQ(encode(text("", 0)), "<none>");
}

TEST(KeyEncoderTest, ApplicationKeypad) {
    InputModes app;
    app.applicationKeypad = true;
    KeyPress five = text("5", '5');
    five.keypad = true;
    EXPECT_EQ(encode(five), "5");
    EXPECT_EQ(encode(five, app), "\x1bOu");
    KeyPress enter = key(Key::keypadEnter);
    enter.keypad = true;
    EXPECT_EQ(encode(enter), "\r");
    EXPECT_EQ(encode(enter, app), "\x1bOM");
}

TEST(KeyEncoderTest, ModifierParameter) {
    EXPECT_EQ(KeyEncoder::modifierParameter({}), 1);
    EXPECT_EQ(KeyEncoder::modifierParameter({.shift = true}), 2);
    EXPECT_EQ(KeyEncoder::modifierParameter({.alt = true}), 3);
    EXPECT_EQ(KeyEncoder::modifierParameter({.control = true}), 5);
    EXPECT_EQ(KeyEncoder::modifierParameter({.shift = true, .alt = true, .control = true}), 8);
}

} // namespace
} // namespace termkit
