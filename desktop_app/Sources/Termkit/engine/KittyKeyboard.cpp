#include "Termkit/engine/KittyKeyboard.h"

#include "Termkit/buffer/Utf8.h"

#include <algorithm>
#include <array>

namespace termkit {

namespace {

using Key = KittyFunctionalKey;
using Mods = KittyKeyboardModifiers;
using Flags = KittyKeyboardFlags;
using Type = KittyKeyboardEventType;

// Lock keys ride along in the modifier field but never make a key "modified": Caps Lock on
// must not turn every letter into an escape sequence.
constexpr uint8_t kLockBits = Mods::capsLock | Mods::numLock;
// With one of these held, a key's text is not what the person meant to type.
constexpr uint8_t kTextBlockingBits = Mods::alt | Mods::ctrl | Mods::super | Mods::hyper | Mods::meta;
// The three modifiers the legacy xterm parameter can carry.
constexpr uint8_t kLegacyBits = Mods::shift | Mods::alt | Mods::ctrl;
// terminfo names extended function keys up to kf63.
constexpr int kLastLegacyFunctionCapability = 63;
constexpr char kEsc = '\x1b';
constexpr uint32_t kFirstPrivateUseCode = 57358;

bool isBetween(Key key, Key first, Key last) {
    return key >= first && key <= last;
}

bool isModifierKey(Key key) {
    return isBetween(key, Key::leftShift, Key::isoLevel5Shift);
}

bool isEnterTabBackspace(Key key) {
    return key == Key::enter || key == Key::tab || key == Key::backspace;
}

bool isKeypadKey(Key key) {
    return isBetween(key, Key::keypad0, Key::keypadBegin);
}

// The scalars of UTF-8 text; a malformed byte stands for itself, which is all a report needs.
std::vector<char32_t> scalarsOf(const std::string& text) {
    std::vector<char32_t> out;
    for (size_t i = 0; i < text.size();) {
        const auto b = static_cast<unsigned char>(text[i]);
        const int length = b < 0x80 ? 1 : (b >> 5) == 6 ? 2 : (b >> 4) == 14 ? 3 : (b >> 3) == 30 ? 4 : 1;
        char32_t c = length == 1 ? b : b & (0x7F >> length);
        for (int k = 1; k < length && i + k < text.size(); ++k)
            c = (c << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
        out.push_back(c);
        i += length;
    }
    return out;
}

std::string csi() {
    return "\x1b[";
}

// CSI 1 ; m letter or CSI n ; m ~ with the modifier parameter `m`, or the plain form at 1.
std::string withModifierParameter(const KittyFunctionalEncoding& e, int parameter,
                                  const std::string& eventSuffix) {
    const bool plain = parameter == 1 && eventSuffix.empty();
    std::string out = csi();
    if (e.final == '~' || !plain)
        out += std::to_string(e.number);
    if (!plain)
        out += ";" + std::to_string(parameter) + eventSuffix;
    return out + e.final;
}

// --- Legacy ---------------------------------------------------------------------------------

std::optional<char> legacyControlMapping(char32_t c) {
    if (c >= 'a' && c <= 'z')
        return static_cast<char>(c - 'a' + 1);
    if (c >= 'A' && c <= 'Z')
        return static_cast<char>(c - 'A' + 1);
    switch (c) {
    case '@':
    case ' ':
        return '\0';
    case '[':
        return '\x1b';
    case '\\':
        return '\x1c';
    case ']':
        return '\x1d';
    case '^':
        return '\x1e';
    case '_':
        return '\x1f';
    default:
        return std::nullopt;
    }
}

std::optional<std::string> legacyTextKeySequence(const KittyKeyEvent& event) {
    const char32_t* scalar = event.key.scalar();
    const std::string prefix = (event.modifiers & Mods::alt) != 0 ? std::string(1, kEsc) : std::string();
    if ((event.modifiers & Mods::ctrl) != 0 && scalar != nullptr) {
        if (auto code = legacyControlMapping(*scalar))
            return prefix + std::string(1, *code);
    }
    std::string text;
    if (event.text && !event.text->empty() && !KittyKeyboardEncoder::containsControlScalars(*event.text))
        text = *event.text;
    else if (scalar != nullptr)
        appendUtf8((event.modifiers & Mods::shift) != 0 && event.shiftedKey ? *event.shiftedKey : *scalar,
                   text);
    if (text.empty())
        return std::nullopt;
    return prefix + text;
}

std::optional<std::string> legacySpecialKeySequence(Key key, uint8_t modifiers) {
    std::string body;
    switch (key) {
    case Key::enter:
        body = "\r";
        break;
    case Key::tab:
        if ((modifiers & Mods::shift) != 0)
            return csi() + "Z";
        body = "\t";
        break;
    case Key::backspace:
        // Control-Backspace sends ^H so that programs can tell it from a plain Backspace.
        body = (modifiers & Mods::ctrl) != 0 ? "\x08" : "\x7f";
        break;
    default:
        body = std::string(1, kEsc);
        break;
    }
    return (modifiers & Mods::alt) != 0 ? std::string(1, kEsc) + body : body;
}

std::optional<std::string> legacyFunctional(const KittyKeyEvent& event, Key key, bool applicationCursor);

// F13 and above as terminfo's extended function keys: F13 to F24 are Shift-F1 to Shift-F12,
// then Control, Control-Shift, Alt and Alt-Shift, twelve each, up to kf63.
std::optional<std::string> legacyFunctionCapability(int functionNumber, uint8_t modifiers) {
    static constexpr std::array<std::pair<uint8_t, int>, 6> kOffsets = {{
        {0, 0},
        {Mods::shift, 12},
        {Mods::ctrl, 24},
        {Mods::ctrl | Mods::shift, 36},
        {Mods::alt, 48},
        {Mods::alt | Mods::shift, 60},
    }};
    const uint8_t held = modifiers & kLegacyBits;
    const auto offset =
        std::find_if(kOffsets.begin(), kOffsets.end(), [&](auto& o) { return o.first == held; });
    if (offset == kOffsets.end())
        return std::nullopt;
    const int capability = functionNumber + offset->second;
    if (capability > kLastLegacyFunctionCapability)
        return std::nullopt;
    static constexpr std::array<int, 6> kGroupParameters = {1, 2, 5, 6, 3, 4};
    static constexpr std::array<Key, 12> kBase = {Key::f1, Key::f2, Key::f3, Key::f4,  Key::f5,  Key::f6,
                                                  Key::f7, Key::f8, Key::f9, Key::f10, Key::f11, Key::f12};
    const Key base = kBase[static_cast<size_t>((capability - 1) % 12)];
    const int parameter = kGroupParameters[static_cast<size_t>((capability - 1) / 12)];
    KittyKeyEvent shifted;
    shifted.key = KittyKey::functional(base);
    shifted.modifiers = static_cast<uint8_t>(parameter - 1);
    return legacyFunctional(shifted, base, false);
}

std::optional<std::string> legacyKeypadSequence(const KittyKeyEvent& event, Key key, bool applicationCursor) {
    static constexpr std::string_view kKeypadText = "0123456789./*-+\r=,";
    const auto index = static_cast<size_t>(key) - static_cast<size_t>(Key::keypad0);
    if (index < kKeypadText.size()) {
        KittyKeyEvent text = event;
        text.key = KittyKey::unicode(static_cast<unsigned char>(kKeypadText[index]));
        text.text.reset();
        return legacyTextKeySequence(text);
    }
    static constexpr std::array<Key, 10> kMain = {Key::left,   Key::right,    Key::up,   Key::down,
                                                  Key::pageUp, Key::pageDown, Key::home, Key::end,
                                                  Key::insert, Key::deleteKey};
    const size_t nav = static_cast<size_t>(key) - static_cast<size_t>(Key::keypadLeft);
    if (nav < kMain.size())
        return legacyFunctional(event, kMain[nav], applicationCursor);
    // Begin, the keypad's 5 without Num Lock.
    return withModifierParameter({1, 'E'}, 1 + (event.modifiers & kLegacyBits), "");
}

std::optional<std::string> legacyFunctional(const KittyKeyEvent& event, Key key, bool applicationCursor) {
    const int parameter = 1 + (event.modifiers & kLegacyBits);
    if (isBetween(key, Key::up, Key::home)) {
        const KittyFunctionalEncoding e = kittyFunctionalEncoding(key);
        if (parameter == 1)
            return (applicationCursor ? std::string("\x1bO") : csi()) + e.final;
        return withModifierParameter(e, parameter, "");
    }
    if (key == Key::f1 || key == Key::f2 || key == Key::f3 || key == Key::f4) {
        static constexpr std::array<char, 4> kLetters = {'P', 'Q', 'R', 'S'};
        const char letter = kLetters[key == Key::f1 ? 0 : key == Key::f2 ? 1 : key == Key::f3 ? 2 : 3];
        if (parameter == 1)
            return std::string("\x1bO") + letter;
        return csi() + "1;" + std::to_string(parameter) + letter;
    }
    if (isBetween(key, Key::insert, Key::f12))
        return withModifierParameter(kittyFunctionalEncoding(key), parameter, "");
    if (key == Key::escape || isEnterTabBackspace(key))
        return legacySpecialKeySequence(key, event.modifiers);
    if (isBetween(key, Key::f13, Key::f35))
        return legacyFunctionCapability(13 + static_cast<int>(key) - static_cast<int>(Key::f13),
                                        event.modifiers);
    if (isKeypadKey(key))
        return legacyKeypadSequence(event, key, applicationCursor);
    // Lock, media and modifier keys have no legacy bytes.
    return std::nullopt;
}

std::optional<std::string> legacy(const KittyKeyEvent& event, bool applicationCursor) {
    if (event.eventType == Type::release || event.composing)
        return std::nullopt;
    if (const Key* key = event.key.functionalKey())
        return legacyFunctional(event, *key, applicationCursor);
    if (event.key.scalar() != nullptr)
        return legacyTextKeySequence(event);
    if (event.text && !event.text->empty())
        return event.text;
    return std::nullopt;
}

// --- Enhanced -----------------------------------------------------------------------------------

std::string eventSuffix(const KittyKeyEvent& event, uint8_t flags) {
    if ((flags & Flags::reportEvents) == 0 || event.eventType == Type::press)
        return {};
    return ":" + std::to_string(static_cast<int>(event.eventType));
}

std::string encodeCsiU(uint32_t code, const KittyKeyEvent& event, uint8_t flags,
                       const std::optional<std::string>& text) {
    std::string out = csi() + std::to_string(code);
    if ((flags & Flags::reportAlternates) != 0 && (event.shiftedKey || event.baseLayoutKey)) {
        out += ":";
        if (event.shiftedKey)
            out += std::to_string(*event.shiftedKey);
        if (event.baseLayoutKey)
            out += ":" + std::to_string(*event.baseLayoutKey);
    }
    const std::string suffix = eventSuffix(event, flags);
    const bool modifierField = event.modifiers != 0 || !suffix.empty();
    if (modifierField)
        out += ";" + std::to_string(event.modifiers + 1) + suffix;
    if (text) {
        out += modifierField ? ";" : ";;";
        bool first = true;
        for (char32_t c : scalarsOf(*text)) {
            if (!first)
                out += ":";
            out += std::to_string(static_cast<uint32_t>(c));
            first = false;
        }
    }
    return out + "u";
}

std::string buildCsiWithModifier(Key key, const KittyKeyEvent& event, uint8_t flags,
                                 const std::optional<std::string>& text) {
    const KittyFunctionalEncoding e = kittyFunctionalEncoding(key);
    if (e.final == 'u')
        return encodeCsiU(e.number, event, flags, text);
    return withModifierParameter(e, event.modifiers + 1, eventSuffix(event, flags));
}

// Below report-all: legacy bytes where they are unambiguous, the CSI forms where the flags ask.
std::optional<std::string> encodeNonText(const KittyKeyEvent& event, uint8_t flags, bool applicationCursor) {
    const bool disambiguate = (flags & Flags::disambiguate) != 0;
    const bool release = event.eventType == Type::release;
    // A repeat or release can only be told apart in the CSI forms.
    const bool typed = !eventSuffix(event, flags).empty();
    const uint8_t active = event.modifiers & ~kLockBits;
    if (const Key* fk = event.key.functionalKey()) {
        const Key key = *fk;
        if (isEnterTabBackspace(key)) {
            // Unmodified, these stay legacy so that a shell stays usable after a program
            // that enabled the protocol dies without resetting it.
            if (active == 0 && !typed)
                return legacySpecialKeySequence(key, 0);
            return disambiguate || typed ? buildCsiWithModifier(key, event, flags, std::nullopt)
                                         : legacySpecialKeySequence(key, event.modifiers);
        }
        if (key == Key::escape)
            return disambiguate || typed ? buildCsiWithModifier(key, event, flags, std::nullopt)
                                         : legacySpecialKeySequence(key, event.modifiers);
        if (isKeypadKey(key)) {
            const bool textKey = event.text && !event.text->empty() &&
                                 !KittyKeyboardEncoder::containsControlScalars(*event.text);
            if (textKey && (active & kTextBlockingBits) == 0 && !typed)
                return event.text;
            return disambiguate || typed ? buildCsiWithModifier(key, event, flags, std::nullopt)
                                         : legacy(event, applicationCursor);
        }
        if (isBetween(key, Key::up, Key::f12)) {
            if (active == 0 && !typed)
                return legacyFunctional(event, key, applicationCursor);
            return buildCsiWithModifier(key, event, flags, std::nullopt);
        }
        return disambiguate || typed ? buildCsiWithModifier(key, event, flags, std::nullopt)
                                     : legacy(event, applicationCursor);
    }
    const char32_t* scalar = event.key.scalar();
    if (scalar == nullptr)
        return release ? std::nullopt : legacy(event, applicationCursor);
    if (release || (disambiguate && (active & kTextBlockingBits) != 0))
        return encodeCsiU(*scalar, event, flags, std::nullopt);
    return legacyTextKeySequence(event);
}

} // namespace

KittyFunctionalEncoding kittyFunctionalEncoding(KittyFunctionalKey key) {
    static constexpr std::array<KittyFunctionalEncoding, 9> kLetterKeys = {
        {{1, 'A'}, {1, 'B'}, {1, 'C'}, {1, 'D'}, {1, 'F'}, {1, 'H'}, {1, 'P'}, {1, 'Q'}, {1, 'S'}}};
    static constexpr std::array<uint32_t, 13> kTildeKeys = {2, 3, 5, 6, 13, 15, 17, 18, 19, 20, 21, 23, 24};
    static constexpr std::array<uint32_t, 4> kSpecialKeys = {27, 13, 9, 127};
    const auto index = static_cast<size_t>(key);
    if (index < kLetterKeys.size())
        return kLetterKeys[index];
    if (index < kLetterKeys.size() + kTildeKeys.size())
        return {kTildeKeys[index - kLetterKeys.size()], '~'};
    const size_t codeIndex = index - kLetterKeys.size() - kTildeKeys.size();
    if (codeIndex < kSpecialKeys.size())
        return {kSpecialKeys[codeIndex], 'u'};
    // Lock and system keys run from 57358 to 57363; F13 starts a second run at 57376.
    const size_t privateIndex = codeIndex - kSpecialKeys.size();
    constexpr size_t kSystemKeys = 6;
    if (privateIndex < kSystemKeys)
        return {kFirstPrivateUseCode + static_cast<uint32_t>(privateIndex), 'u'};
    constexpr uint32_t kF13Code = 57376;
    return {kF13Code + static_cast<uint32_t>(privateIndex - kSystemKeys), 'u'};
}

void KeyboardModeState::push(uint8_t newFlags) {
    if (stack.size() >= kMaxStackDepth)
        stack.erase(stack.begin());
    stack.push_back(flags);
    flags = newFlags & KittyKeyboardFlags::knownMask;
}

void KeyboardModeState::pop(int count) {
    const auto n = static_cast<size_t>(std::max(1, count));
    if (stack.size() < n) {
        reset();
        return;
    }
    flags = stack[stack.size() - n];
    stack.resize(stack.size() - n);
}

void KeyboardModeState::set(uint8_t newFlags, int mode) {
    const uint8_t masked = newFlags & KittyKeyboardFlags::knownMask;
    switch (mode) {
    case 1:
        flags = masked;
        break;
    case 2:
        flags |= masked;
        break;
    case 3:
        flags &= static_cast<uint8_t>(~masked);
        break;
    default:
        break;
    }
}

namespace KittyKeyboardEncoder {

bool containsControlScalars(const std::string& text) {
    return std::any_of(text.begin(), text.end(), [](char c) {
        const auto b = static_cast<unsigned char>(c);
        return b < 0x20 || b == 0x7F;
    });
}

std::optional<std::string> encode(const KittyKeyEvent& event, uint8_t flags, bool applicationCursor) {
    flags &= Flags::knownMask;
    if (flags == 0)
        return legacy(event, applicationCursor);
    const bool reportAll = (flags & Flags::reportAllKeys) != 0;
    const Key* fk = event.key.functionalKey();
    if (event.eventType == Type::release) {
        if ((flags & Flags::reportEvents) == 0)
            return std::nullopt;
        if (fk != nullptr && isEnterTabBackspace(*fk) && !reportAll)
            return std::nullopt;
    }
    if (event.composing && (fk == nullptr || isModifierKey(*fk)))
        return std::nullopt;
    if (fk != nullptr && isModifierKey(*fk) && !reportAll)
        return std::nullopt;
    if (!reportAll)
        return encodeNonText(event, flags, applicationCursor);

    std::optional<std::string> text;
    if ((flags & Flags::reportText) != 0 && (event.modifiers & kTextBlockingBits) == 0 &&
        event.eventType != Type::release && event.text && !event.text->empty() &&
        !containsControlScalars(*event.text))
        text = event.text;
    if (fk != nullptr)
        return buildCsiWithModifier(*fk, event, flags, text);
    if (const char32_t* scalar = event.key.scalar())
        return encodeCsiU(*scalar, event, flags, text);
    // Text with no key of its own (an input method's commit) goes as text.
    if (event.text && !event.text->empty())
        return event.text;
    return std::nullopt;
}

} // namespace KittyKeyboardEncoder

} // namespace termkit
