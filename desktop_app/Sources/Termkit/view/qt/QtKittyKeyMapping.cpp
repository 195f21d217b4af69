#include "Termkit/view/qt/QtKittyKeyMapping.h"

#include <array>
#include <utility>

namespace termkit::QtKittyKeyMapping {

namespace {

using K = KittyFunctionalKey;

// X11 modifier bits that Qt keeps only in the native state.
constexpr quint32 kX11LockMask = 0x2;
constexpr quint32 kX11NumLockMask = 0x10;
// X11 key codes are evdev codes plus 8; the US layout's character keys run from 10 ("1")
// to 61 ("/"), with the space bar at 65.
constexpr quint32 kFirstCharacterKeyCode = 10;
// A view of the whole literal: the gaps (keys with no character) are NULs.
constexpr char kUsCharacterKeysText[] = "1234567890-=\0\0qwertyuiop[]\0\0asdfghjkl;'`\0\\zxcvbnm,./";
constexpr std::string_view kUsCharacterKeys(kUsCharacterKeysText, sizeof(kUsCharacterKeysText) - 1);
constexpr quint32 kSpaceKeyCode = 65;

std::optional<K> functionalKey(int key, bool keypad) {
    static constexpr std::pair<int, K> kKeys[] = {
        {Qt::Key_Escape, K::escape},
        {Qt::Key_Return, K::enter},
        {Qt::Key_Tab, K::tab},
        {Qt::Key_Backtab, K::tab},
        {Qt::Key_Backspace, K::backspace},
        {Qt::Key_Insert, K::insert},
        {Qt::Key_Delete, K::deleteKey},
        {Qt::Key_Left, K::left},
        {Qt::Key_Right, K::right},
        {Qt::Key_Up, K::up},
        {Qt::Key_Down, K::down},
        {Qt::Key_PageUp, K::pageUp},
        {Qt::Key_PageDown, K::pageDown},
        {Qt::Key_Home, K::home},
        {Qt::Key_End, K::end},
        {Qt::Key_CapsLock, K::capsLock},
        {Qt::Key_ScrollLock, K::scrollLock},
        {Qt::Key_NumLock, K::numLock},
        {Qt::Key_Print, K::printScreen},
        {Qt::Key_Pause, K::pause},
        {Qt::Key_Menu, K::menu},
        {Qt::Key_MediaPlay, K::mediaPlay},
        {Qt::Key_MediaPause, K::mediaPause},
        {Qt::Key_MediaTogglePlayPause, K::mediaPlayPause},
        {Qt::Key_MediaStop, K::mediaStop},
        {Qt::Key_MediaNext, K::mediaTrackNext},
        {Qt::Key_MediaPrevious, K::mediaTrackPrevious},
        {Qt::Key_MediaRecord, K::mediaRecord},
        {Qt::Key_VolumeDown, K::volumeDown},
        {Qt::Key_VolumeUp, K::volumeUp},
        {Qt::Key_VolumeMute, K::volumeMute},
        {Qt::Key_Shift, K::leftShift},
        {Qt::Key_Control, K::leftControl},
        {Qt::Key_Alt, K::leftAlt},
        {Qt::Key_Meta, K::leftSuper},
        {Qt::Key_Super_L, K::leftSuper},
        {Qt::Key_Super_R, K::rightSuper},
        {Qt::Key_Hyper_L, K::leftHyper},
        {Qt::Key_Hyper_R, K::rightHyper},
        {Qt::Key_AltGr, K::isoLevel3Shift},
    };
    if (keypad) {
        static constexpr std::pair<int, K> kKeypad[] = {
            {Qt::Key_Enter, K::keypadEnter},
            {Qt::Key_Period, K::keypadDecimal},
            {Qt::Key_Comma, K::keypadSeparator},
            {Qt::Key_Slash, K::keypadDivide},
            {Qt::Key_Asterisk, K::keypadMultiply},
            {Qt::Key_Minus, K::keypadSubtract},
            {Qt::Key_Plus, K::keypadAdd},
            {Qt::Key_Equal, K::keypadEqual},
            {Qt::Key_Left, K::keypadLeft},
            {Qt::Key_Right, K::keypadRight},
            {Qt::Key_Up, K::keypadUp},
            {Qt::Key_Down, K::keypadDown},
            {Qt::Key_PageUp, K::keypadPageUp},
            {Qt::Key_PageDown, K::keypadPageDown},
            {Qt::Key_Home, K::keypadHome},
            {Qt::Key_End, K::keypadEnd},
            {Qt::Key_Insert, K::keypadInsert},
            {Qt::Key_Delete, K::keypadDelete},
            {Qt::Key_Clear, K::keypadBegin},
        };
        if (key >= Qt::Key_0 && key <= Qt::Key_9)
            return static_cast<K>(static_cast<int>(K::keypad0) + (key - Qt::Key_0));
        for (const auto& [qt, k] : kKeypad)
            if (qt == key)
                return k;
    }
    if (key == Qt::Key_Enter)
        return K::enter;
    if (key >= Qt::Key_F1 && key <= Qt::Key_F35) {
        static constexpr std::array<K, 12> kFirstTwelve = {K::f1, K::f2, K::f3, K::f4,  K::f5,  K::f6,
                                                           K::f7, K::f8, K::f9, K::f10, K::f11, K::f12};
        const int n = key - Qt::Key_F1;
        return n < 12 ? kFirstTwelve[static_cast<size_t>(n)]
                      : static_cast<K>(static_cast<int>(K::f13) + n - 12);
    }
    for (const auto& [qt, k] : kKeys)
        if (qt == key)
            return k;
    return std::nullopt;
}

uint8_t modifiersOf(const KeyParts& parts) {
    using M = KittyKeyboardModifiers;
    uint8_t m = 0;
    if (parts.modifiers.testFlag(Qt::ShiftModifier) || parts.key == Qt::Key_Backtab)
        m |= M::shift;
    if (parts.modifiers.testFlag(Qt::AltModifier))
        m |= M::alt;
    if (parts.modifiers.testFlag(Qt::ControlModifier))
        m |= M::ctrl;
    // Qt names the logo (Super) key Meta on Linux.
    if (parts.modifiers.testFlag(Qt::MetaModifier))
        m |= M::super;
    if ((parts.nativeModifiers & kX11LockMask) != 0)
        m |= M::capsLock;
    if ((parts.nativeModifiers & kX11NumLockMask) != 0)
        m |= M::numLock;
    return m;
}

// The character a character key types without Shift: its text, lowered, when it has one;
// else the Qt key code, which for these keys is the character (letters as capitals).
char32_t unshiftedCharacter(const KeyParts& parts) {
    // Shift+1 arrives as "!": the physical key's unshifted character comes from the layout,
    // which only the scan code tells.
    const bool letterKey = parts.key >= Qt::Key_A && parts.key <= Qt::Key_Z;
    if (parts.modifiers.testFlag(Qt::ShiftModifier) && !letterKey) {
        if (const char32_t base = baseLayoutCharacter(parts.nativeScanCode))
            return base;
    }
    const QString lower = parts.text.toLower();
    if (lower.size() >= 1 && lower.at(0).unicode() >= 0x20 && lower.at(0).unicode() != 0x7F &&
        !parts.modifiers.testFlag(Qt::ShiftModifier))
        return static_cast<char32_t>(lower.toUcs4().value(0));
    if (parts.key >= Qt::Key_A && parts.key <= Qt::Key_Z)
        return static_cast<char32_t>('a' + (parts.key - Qt::Key_A));
    if (parts.key > 0 && parts.key < 0x110000 && parts.key != Qt::Key_unknown)
        return static_cast<char32_t>(QChar::toLower(static_cast<char32_t>(parts.key)));
    return 0;
}

} // namespace

KeyParts partsOf(const QKeyEvent& event) {
    KeyParts p;
    p.key = event.key();
    p.modifiers = event.modifiers();
    p.text = event.text();
    p.autoRepeat = event.isAutoRepeat();
    p.release = event.type() == QEvent::KeyRelease;
    p.nativeScanCode = event.nativeScanCode();
    p.nativeModifiers = event.nativeModifiers();
    return p;
}

char32_t baseLayoutCharacter(quint32 code) {
    if (code == kSpaceKeyCode)
        return U' ';
    if (code < kFirstCharacterKeyCode || code - kFirstCharacterKeyCode >= kUsCharacterKeys.size())
        return 0;
    return static_cast<unsigned char>(kUsCharacterKeys[code - kFirstCharacterKeyCode]);
}

KittyKeyEvent toKittyEvent(const KeyParts& parts) {
    KittyKeyEvent e;
    e.modifiers = modifiersOf(parts);
    e.eventType = parts.release      ? KittyKeyboardEventType::release
                  : parts.autoRepeat ? KittyKeyboardEventType::repeatPress
                                     : KittyKeyboardEventType::press;
    if (!parts.text.isEmpty() && !parts.release)
        e.text = parts.text.toStdString();
    const bool keypad = parts.modifiers.testFlag(Qt::KeypadModifier);
    if (auto k = functionalKey(parts.key, keypad)) {
        e.key = KittyKey::functional(*k);
        return e;
    }
    const char32_t c = unshiftedCharacter(parts);
    if (c == 0) {
        e.key = KittyKey::none();
        return e;
    }
    e.key = KittyKey::unicode(c);
    if (e.modifiers & KittyKeyboardModifiers::shift) {
        const QString shifted = parts.text;
        if (shifted.size() >= 1 && shifted.at(0).unicode() >= 0x20 && shifted.toUcs4().value(0) != c)
            e.shiftedKey = shifted.toUcs4().value(0);
        else if (c >= 'a' && c <= 'z')
            e.shiftedKey = c - 32;
    }
    const char32_t base = baseLayoutCharacter(parts.nativeScanCode);
    if (base != 0 && base != c)
        e.baseLayoutKey = base;
    return e;
}

} // namespace termkit::QtKittyKeyMapping
