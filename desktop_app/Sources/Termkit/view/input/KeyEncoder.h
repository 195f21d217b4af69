#pragma once
// Keys to bytes for the program in the terminal, in the legacy (xterm) encoding.

#include <optional>
#include <string>

#include "Termkit/view/input/InputModes.h"

namespace termkit {

/// A key as the view understands it, independent of the toolkit's key codes.
enum class Key : uint8_t {
    text, // a key that produced text, or a printable key under Control or Alt
    enter,
    tab,
    backspace,
    escape,
    deleteKey,
    insert,
    home,
    end,
    pageUp,
    pageDown,
    up,
    down,
    left,
    right,
    function, // F1 to F12, by `functionNumber`
    keypadEnter,
    other, // modifiers alone and keys the terminal has no bytes for
};

/// One key press.
struct KeyPress {
    Key key = Key::other;
    KeyModifiers modifiers;
    /// The text the input method produced for the press, UTF-8 (may be empty).
    std::string text;
    /// The key's character without Shift, Control or Alt applied ('a' for Control-A),
    /// 0 when the key has none. Control and Alt combinations are made from it.
    char32_t baseCharacter = 0;
    /// 1 to 12 for `Key::function`.
    int functionNumber = 0;
    /// The key is on the numeric keypad.
    bool keypad = false;
};

/// Settings of the view that change what keys send.
struct KeyEncoderOptions {
    /// Alt (Option on some keyboards) works as Meta: Alt-x sends ESC x, Alt-arrows move by word.
    bool optionAsMetaKey = true;
    /// Backspace sends ^H instead of DEL.
    bool backspaceSendsControlH = false;
};

namespace KeyEncoder {

/// The bytes for a key press, or nothing when the key sends nothing. The kitty keyboard
/// protocol (`keyboardEnhancementFlags` not 0) is not encoded here: its encoder plugs in
/// ahead of this one, and this function keeps to the legacy encoding.
std::optional<std::string> encode(const KeyPress& press, const InputModes& modes,
                                  const KeyEncoderOptions& options);

/// The C0 control code for Control with a character (Control-A is 0x01, Control-Space and
/// Control-@ are NUL, Control-? is DEL), or nothing when the character has none.
std::optional<char> controlCode(char32_t character);

/// The xterm modifier parameter: 1 plus 1 for Shift, 2 for Alt, 4 for Control.
int modifierParameter(const KeyModifiers& modifiers);

} // namespace KeyEncoder

} // namespace termkit
