#include "Termkit/view/input/KeyEncoder.h"

#include "Termkit/buffer/Utf8.h"
#include "Termkit/view/input/EscapeSequences.h"

namespace termkit::KeyEncoder {

namespace es = EscapeSequences;

namespace {

std::string utf8Of(char32_t scalar) {
    std::string out;
    appendUtf8(scalar, out);
    return out;
}

bool metaHeld(const KeyPress& press, const KeyEncoderOptions& options) {
    return options.optionAsMetaKey && press.modifiers.alt;
}

// Shift, Alt or Control held: the key takes the xterm modifier parameter.
bool modified(const KeyModifiers& m) {
    return m.shift || m.alt || m.control;
}

// CSI 1 ; m final, or the plain form when no modifier is held.
std::string withModifier(std::string_view plain, char final, const KeyModifiers& m) {
    if (!modified(m))
        return std::string(plain);
    return "\x1b[1;" + std::to_string(modifierParameter(m)) + final;
}

// CSI n ~, or CSI n ; m ~ with modifiers.
std::string tilde(int number, const KeyModifiers& m) {
    std::string out = "\x1b[" + std::to_string(number);
    if (modified(m))
        out += ";" + std::to_string(modifierParameter(m));
    return out + "~";
}

std::string arrow(const KeyPress& press, const InputModes& modes, const KeyEncoderOptions& options) {
    const KeyModifiers& m = press.modifiers;
    const bool horizontal = press.key == Key::left || press.key == Key::right;
    // Alt alone on a horizontal arrow moves by word, as readline and emacs expect.
    if (horizontal && metaHeld(press, options) && !m.control && !m.shift)
        return std::string(press.key == Key::left ? es::emacsBack : es::emacsForward);
    const bool app = modes.applicationCursor;
    switch (press.key) {
    case Key::up:
        return withModifier(app ? es::moveUpApp : es::moveUpNormal, 'A', m);
    case Key::down:
        return withModifier(app ? es::moveDownApp : es::moveDownNormal, 'B', m);
    case Key::right:
        return withModifier(app ? es::moveRightApp : es::moveRightNormal, 'C', m);
    default:
        return withModifier(app ? es::moveLeftApp : es::moveLeftNormal, 'D', m);
    }
}

std::optional<std::string> functionKey(const KeyPress& press) {
    static constexpr int kTildeNumbers[12] = {0, 0, 0, 0, 15, 17, 18, 19, 20, 21, 23, 24};
    const int n = press.functionNumber;
    if (n < 1 || n > 12)
        return std::nullopt;
    if (n <= 4)
        return withModifier(es::cmdF[n - 1], static_cast<char>('P' + n - 1), press.modifiers);
    return tilde(kTildeNumbers[n - 1], press.modifiers);
}

// The application keypad's SS3 forms, for programs that told the keypad apart.
std::optional<std::string> applicationKeypad(char32_t c) {
    if (c >= '0' && c <= '9')
        return std::string("\x1bO") + static_cast<char>('p' + (c - '0'));
    switch (c) {
    case '.':
        return std::string("\x1bOn");
    case '+':
        return std::string("\x1bOk");
    case '-':
        return std::string("\x1bOm");
    case '*':
        return std::string("\x1bOj");
    case '/':
        return std::string("\x1bOo");
    case '=':
        return std::string("\x1bOX");
    default:
        return std::nullopt;
    }
}

std::optional<std::string> textKey(const KeyPress& press, const InputModes& modes,
                                   const KeyEncoderOptions& options) {
    const KeyModifiers& m = press.modifiers;
    const std::string prefix = metaHeld(press, options) ? std::string(es::cmdEsc) : std::string();
    if (m.control) {
        const char32_t c = press.baseCharacter != 0 ? press.baseCharacter
                           : press.text.size() == 1 ? static_cast<unsigned char>(press.text[0])
                                                    : 0;
        if (auto code = controlCode(c))
            return prefix + std::string(1, *code);
    }
    if (press.keypad && modes.applicationKeypad && !m.any()) {
        const char32_t c = press.baseCharacter != 0 ? press.baseCharacter
                           : press.text.size() == 1 ? static_cast<unsigned char>(press.text[0])
                                                    : 0;
        if (auto sequence = applicationKeypad(c))
            return sequence;
    }
    if (!prefix.empty()) {
        // With Alt as Meta the character is sent unshifted by Alt: the base key with Shift
        // as the input method applied it, which is the text without Alt's own layer.
        if (!press.text.empty() && static_cast<unsigned char>(press.text[0]) >= 0x20)
            return prefix + press.text;
        if (press.baseCharacter != 0)
            return prefix + utf8Of(press.baseCharacter);
    }
    if (press.text.empty())
        return std::nullopt;
    return press.text;
}

} // namespace

int modifierParameter(const KeyModifiers& modifiers) {
    return 1 + (modifiers.shift ? 1 : 0) + (modifiers.alt ? 2 : 0) + (modifiers.control ? 4 : 0);
}

std::optional<char> controlCode(char32_t c) {
    if (c >= 'a' && c <= 'z')
        return static_cast<char>(c - 'a' + 1);
    if (c >= 'A' && c <= 'Z')
        return static_cast<char>(c - 'A' + 1);
    switch (c) {
    case '@':
    case ' ':
    case '2':
        return '\0';
    case '[':
    case '3':
        return '\x1b';
    case '\\':
    case '4':
        return '\x1c';
    case ']':
    case '5':
        return '\x1d';
    case '^':
    case '~':
    case '6':
        return '\x1e';
    case '_':
    case '-':
    case '/':
    case '7':
        return '\x1f';
    case '?':
    case '8':
        return '\x7f';
    default:
        return std::nullopt;
    }
}

std::optional<std::string> encode(const KeyPress& press, const InputModes& modes,
                                  const KeyEncoderOptions& options) {
    const KeyModifiers& m = press.modifiers;
    const std::string meta = metaHeld(press, options) ? std::string(es::cmdEsc) : std::string();
    switch (press.key) {
    case Key::text:
        return textKey(press, modes, options);
    case Key::keypadEnter:
        if (modes.applicationKeypad && !m.any())
            return std::string("\x1bOM");
        return meta + std::string(es::cmdRet);
    case Key::enter:
        return meta + std::string(es::cmdRet);
    case Key::tab:
        if (m.shift)
            return std::string(es::cmdBackTab);
        return meta + std::string(es::cmdTab);
    case Key::backspace: {
        // Control swaps the two, so that both are always one chord away.
        const bool controlH = options.backspaceSendsControlH != m.control;
        return meta + std::string(controlH ? es::cmdBackspaceControlH : es::cmdDel);
    }
    case Key::escape:
        return meta + std::string(es::cmdEsc);
    case Key::deleteKey:
        return modified(m) ? tilde(3, m) : std::string(es::cmdDelKey);
    case Key::insert:
        return modified(m) ? tilde(2, m) : std::string(es::cmdInsert);
    case Key::pageUp:
        return modified(m) ? tilde(5, m) : std::string(es::cmdPageUp);
    case Key::pageDown:
        return modified(m) ? tilde(6, m) : std::string(es::cmdPageDown);
    case Key::home:
        return withModifier(modes.applicationCursor ? es::moveHomeApp : es::moveHomeNormal, 'H', m);
    case Key::end:
        return withModifier(modes.applicationCursor ? es::moveEndApp : es::moveEndNormal, 'F', m);
    case Key::up:
    case Key::down:
    case Key::left:
    case Key::right:
        return arrow(press, modes, options);
    case Key::function:
        return functionKey(press);
    case Key::other:
        return std::nullopt;
    }
    return std::nullopt;
}

} // namespace termkit::KeyEncoder
