#pragma once
// The kitty keyboard protocol: the flags a program sets, the key events a host reports,
// and the encoder that turns one into bytes under the flags.

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace termkit {

/// Progressive enhancement flags, as a program pushes them with `CSI > flags u`.
struct KittyKeyboardFlags {
    static constexpr uint8_t disambiguate = 1;
    static constexpr uint8_t reportEvents = 2;
    static constexpr uint8_t reportAlternates = 4;
    static constexpr uint8_t reportAllKeys = 8;
    static constexpr uint8_t reportText = 16;
    static constexpr uint8_t knownMask = 31;
};

/// Modifier bits; on the wire the field is these bits plus one.
struct KittyKeyboardModifiers {
    static constexpr uint8_t shift = 1;
    static constexpr uint8_t alt = 2;
    static constexpr uint8_t ctrl = 4;
    static constexpr uint8_t super = 8;
    static constexpr uint8_t hyper = 16;
    static constexpr uint8_t meta = 32;
    static constexpr uint8_t capsLock = 64;
    static constexpr uint8_t numLock = 128;
};

enum class KittyKeyboardEventType : uint8_t { press = 1, repeatPress = 2, release = 3 };

/// The keys that produce no text of their own (plus Escape, Enter, Tab and Backspace).
enum class KittyFunctionalKey : uint8_t {
    // CSI 1 ; mods letter
    up,
    down,
    right,
    left,
    end,
    home,
    f1,
    f2,
    f4,
    // CSI number ; mods ~
    insert,
    deleteKey,
    pageUp,
    pageDown,
    f3,
    f5,
    f6,
    f7,
    f8,
    f9,
    f10,
    f11,
    f12,
    // CSI code ; mods u
    escape,
    enter,
    tab,
    backspace,
    capsLock,
    scrollLock,
    numLock,
    printScreen,
    pause,
    menu,
    f13,
    f14,
    f15,
    f16,
    f17,
    f18,
    f19,
    f20,
    f21,
    f22,
    f23,
    f24,
    f25,
    f26,
    f27,
    f28,
    f29,
    f30,
    f31,
    f32,
    f33,
    f34,
    f35,
    keypad0,
    keypad1,
    keypad2,
    keypad3,
    keypad4,
    keypad5,
    keypad6,
    keypad7,
    keypad8,
    keypad9,
    keypadDecimal,
    keypadDivide,
    keypadMultiply,
    keypadSubtract,
    keypadAdd,
    keypadEnter,
    keypadEqual,
    keypadSeparator,
    keypadLeft,
    keypadRight,
    keypadUp,
    keypadDown,
    keypadPageUp,
    keypadPageDown,
    keypadHome,
    keypadEnd,
    keypadInsert,
    keypadDelete,
    keypadBegin,
    mediaPlay,
    mediaPause,
    mediaPlayPause,
    mediaReverse,
    mediaStop,
    mediaFastForward,
    mediaRewind,
    mediaTrackNext,
    mediaTrackPrevious,
    mediaRecord,
    volumeDown,
    volumeUp,
    volumeMute,
    leftShift,
    leftControl,
    leftAlt,
    leftSuper,
    leftHyper,
    leftMeta,
    rightShift,
    rightControl,
    rightAlt,
    rightSuper,
    rightHyper,
    rightMeta,
    isoLevel3Shift,
    isoLevel5Shift,
};
inline constexpr int kKittyFunctionalKeyCount = static_cast<int>(KittyFunctionalKey::isoLevel5Shift) + 1;

/// How a functional key is written: its number and the final byte of its CSI sequence
/// (`u` for code point keys, `~` for tilde keys, a letter for the cursor and F1-F4 keys).
struct KittyFunctionalEncoding {
    uint32_t number = 0;
    char final = 'u';
};
KittyFunctionalEncoding kittyFunctionalEncoding(KittyFunctionalKey key);

/// A key: a Unicode scalar (the unshifted key of the layout), a functional key, or none.
struct KittyKey {
    std::variant<std::monostate, char32_t, KittyFunctionalKey> value;
    static KittyKey unicode(char32_t scalar) { return {scalar}; }
    static KittyKey functional(KittyFunctionalKey key) { return {key}; }
    static KittyKey none() { return {}; }
    const char32_t* scalar() const { return std::get_if<char32_t>(&value); }
    const KittyFunctionalKey* functionalKey() const { return std::get_if<KittyFunctionalKey>(&value); }
};

/// One key event as the host saw it.
struct KittyKeyEvent {
    KittyKey key;
    uint8_t modifiers = 0;
    KittyKeyboardEventType eventType = KittyKeyboardEventType::press;
    /// What the key typed after the input method, UTF-8.
    std::optional<std::string> text;
    /// The key's code with Shift applied, when that differs.
    std::optional<uint32_t> shiftedKey;
    /// The key's code on the standard (PC-101 US) layout, when the layout in use differs.
    std::optional<uint32_t> baseLayoutKey;
    /// The input method is composing: the event belongs to it, not to the program.
    bool composing = false;
};

/// One buffer's flags and the stack programs push them on.
struct KeyboardModeState {
    /// More pushes than this drop the oldest entry, so a program that never pops is bounded.
    static constexpr size_t kMaxStackDepth = 16;
    uint8_t flags = 0;
    std::vector<uint8_t> stack;

    void push(uint8_t newFlags);
    void pop(int count);
    /// Mode 1 replaces, 2 adds, 3 removes; other modes change nothing.
    void set(uint8_t newFlags, int mode);
    void reset() {
        flags = 0;
        stack.clear();
    }
};

namespace KittyKeyboardEncoder {

/// The bytes a key event sends under the flags, or nothing when it sends none. With flags 0
/// the legacy (xterm) sequences are used.
std::optional<std::string> encode(const KittyKeyEvent& event, uint8_t flags, bool applicationCursor);

/// Whether the text holds a C0 control or DEL.
bool containsControlScalars(const std::string& text);

} // namespace KittyKeyboardEncoder

} // namespace termkit
