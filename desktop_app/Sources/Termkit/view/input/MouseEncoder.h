#pragma once
// Pointer events to the bytes of the program's chosen mouse protocol.

#include <optional>
#include <string>

#include "Termkit/view/input/InputModes.h"

namespace termkit {

enum class MouseButton : uint8_t { left, middle, right, none, wheelUp, wheelDown, wheelLeft, wheelRight };
enum class MouseAction : uint8_t { press, release, motion };

/// One pointer event over the terminal, in cells (0-based) and in pixels of the text area.
struct MouseEvent {
    MouseAction action = MouseAction::press;
    /// The button pressed or released; for motion, the button held (`none` for none).
    MouseButton button = MouseButton::left;
    KeyModifiers modifiers;
    int col = 0;
    int row = 0;
    int pixelX = 0;
    int pixelY = 0;
};

namespace MouseEncoder {

/// Button flags of xterm's protocols: 0, 1, 2 for the buttons (3 for a release in the
/// encodings that cannot say which, and for motion with no button), 64 and up for the
/// wheel, plus 4 for Shift, 8 for Alt (meta), 16 for Control and 32 for motion.
int encodeButton(MouseButton button, MouseAction action, const KeyModifiers& modifiers,
                 MouseProtocolEncoding encoding);
/// Whether a tracking mode reports this event: `x10` presses only, `vt200` presses and
/// releases (and the wheel), `buttonEventTracking` also motion with a button down,
/// `anyEvent` all motion.
bool shouldReport(MouseMode mode, MouseAction action, MouseButton button);
/// One report in an encoding; `x` and `y` are 1-based cells, the pixels 1-based too.
std::string sendEvent(MouseProtocolEncoding encoding, int buttonFlags, int x, int y, int pixelX, int pixelY,
                      bool release);
/// A coordinate of the UTF-8 encoding: the value plus 32 as a UTF-8 character.
std::string encodeMouseUtf(int value);
/// The report for an event under the present modes, or nothing when it is not reported.
std::optional<std::string> encode(const MouseEvent& event, const InputModes& modes);
/// Whether pointer events go to the program at all: it asked for them, the host allows it,
/// and the person is not holding the modifier that keeps the pointer for selection.
bool reportsMouse(const InputModes& modes, bool allowMouseReporting, const KeyModifiers& modifiers);

} // namespace MouseEncoder

} // namespace termkit
