#include "Termkit/view/qt/QtKeyMapping.h"

namespace termkit::QtKeyMapping {

namespace {

Key keyOf(int key, bool keypad) {
    switch (key) {
    case Qt::Key_Return:
        return Key::enter;
    case Qt::Key_Enter:
        return keypad ? Key::keypadEnter : Key::enter;
    case Qt::Key_Tab:
    case Qt::Key_Backtab:
        return Key::tab;
    case Qt::Key_Backspace:
        return Key::backspace;
    case Qt::Key_Escape:
        return Key::escape;
    case Qt::Key_Delete:
        return Key::deleteKey;
    case Qt::Key_Insert:
        return Key::insert;
    case Qt::Key_Home:
        return Key::home;
    case Qt::Key_End:
        return Key::end;
    case Qt::Key_PageUp:
        return Key::pageUp;
    case Qt::Key_PageDown:
        return Key::pageDown;
    case Qt::Key_Up:
        return Key::up;
    case Qt::Key_Down:
        return Key::down;
    case Qt::Key_Left:
        return Key::left;
    case Qt::Key_Right:
        return Key::right;
    default:
        break;
    }
    if (key >= Qt::Key_F1 && key <= Qt::Key_F12)
        return Key::function;
    if (key == Qt::Key_Shift || key == Qt::Key_Control || key == Qt::Key_Alt || key == Qt::Key_Meta ||
        key == Qt::Key_AltGr || key == Qt::Key_CapsLock || key == Qt::Key_NumLock || key == Qt::Key_Super_L ||
        key == Qt::Key_Super_R)
        return Key::other;
    return Key::text;
}

// The key's unmodified character: Qt names letter keys by their capital.
char32_t baseCharacter(int key) {
    if (key >= Qt::Key_A && key <= Qt::Key_Z)
        return static_cast<char32_t>('a' + (key - Qt::Key_A));
    if (key >= 0x20 && key < 0x7F)
        return static_cast<char32_t>(key);
    if (key == Qt::Key_Space)
        return ' ';
    return 0;
}

} // namespace

KeyPress fromParts(int key, Qt::KeyboardModifiers modifiers, const QString& text) {
    KeyPress press;
    press.keypad = modifiers.testFlag(Qt::KeypadModifier);
    press.key = keyOf(key, press.keypad);
    press.modifiers.shift = modifiers.testFlag(Qt::ShiftModifier) || key == Qt::Key_Backtab;
    press.modifiers.control = modifiers.testFlag(Qt::ControlModifier);
    press.modifiers.alt = modifiers.testFlag(Qt::AltModifier);
    press.modifiers.super = modifiers.testFlag(Qt::MetaModifier);
    press.text = text.toStdString();
    press.baseCharacter = baseCharacter(key);
    if (press.key == Key::function)
        press.functionNumber = key - Qt::Key_F1 + 1;
    // Enter and Backspace also come with text (CR, DEL); the key decides, not the text.
    if (press.key != Key::text)
        press.text.clear();
    return press;
}

KeyPress fromEvent(const QKeyEvent& event) {
    return fromParts(event.key(), event.modifiers(), event.text());
}

bool isApplicationShortcut(int key, Qt::KeyboardModifiers modifiers) {
    const Qt::KeyboardModifiers plain = modifiers & ~Qt::KeypadModifier;
    if (key == Qt::Key_QuoteLeft && plain == Qt::ControlModifier)
        return true;
    return (key == Qt::Key_C || key == Qt::Key_V) && plain == (Qt::ControlModifier | Qt::ShiftModifier);
}

} // namespace termkit::QtKeyMapping
