#pragma once
// Qt's key events to the view's own key presses.

#include <QKeyEvent>

#include "Termkit/view/input/KeyEncoder.h"

namespace termkit::QtKeyMapping {

/// The key press of a Qt key event: which key, the modifiers, the text the input method
/// gave, and the key's own character for Control and Alt combinations.
KeyPress fromEvent(const QKeyEvent& event);
/// The same from the event's parts, for tests.
KeyPress fromParts(int key, Qt::KeyboardModifiers modifiers, const QString& text);
/// Whether a key press belongs to the application rather than the terminal (Ctrl+` toggles
/// the drawer, Ctrl+Shift+C and V copy and paste).
bool isApplicationShortcut(int key, Qt::KeyboardModifiers modifiers);

} // namespace termkit::QtKeyMapping
