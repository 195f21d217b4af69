#pragma once
// Qt's key events to the kitty keyboard protocol's key events.

#include <QKeyEvent>

#include "Termkit/engine/KittyKeyboard.h"

namespace termkit::QtKittyKeyMapping {

/// What a Qt key event says, taken apart so that tests can build one.
struct KeyParts {
    int key = 0;
    Qt::KeyboardModifiers modifiers;
    QString text;
    bool autoRepeat = false;
    bool release = false;
    /// The X11 key code (evdev code + 8) on xcb, 0 when the platform gives none.
    quint32 nativeScanCode = 0;
    /// The X11 modifier state on xcb (Lock 0x2, Num Lock on Mod2 0x10), 0 when none.
    quint32 nativeModifiers = 0;
};

KeyParts partsOf(const QKeyEvent& event);

/// The protocol's event: the key (a functional key, or the layout's unshifted character),
/// Shift, Alt, Control and Super (Qt's Meta) with Caps and Num Lock from the native state,
/// press, repeat or release, the text after the input method, the shifted key, and the key
/// the same physical key has on the US layout when the layout in use differs.
KittyKeyEvent toKittyEvent(const KeyParts& parts);

/// The US-layout character of an X11 key code, 0 when the key is not a character key.
char32_t baseLayoutCharacter(quint32 nativeScanCode);

} // namespace termkit::QtKittyKeyMapping
