#include "Termkit/view/input/MouseEncoder.h"

#include <algorithm>

namespace termkit::MouseEncoder {

namespace {

// The largest coordinate each single-character encoding can carry.
constexpr int kX10MaxValue = 255 - 32;
constexpr int kUtf8MaxValue = 2047 - 32;

bool isWheel(MouseButton button) {
    return button == MouseButton::wheelUp || button == MouseButton::wheelDown ||
           button == MouseButton::wheelLeft || button == MouseButton::wheelRight;
}

int buttonNumber(MouseButton button) {
    switch (button) {
    case MouseButton::left:
        return 0;
    case MouseButton::middle:
        return 1;
    case MouseButton::right:
        return 2;
    case MouseButton::none:
        return 3;
    case MouseButton::wheelUp:
        return 64;
    case MouseButton::wheelDown:
        return 65;
    case MouseButton::wheelLeft:
        return 66;
    case MouseButton::wheelRight:
        return 67;
    }
    return 3;
}

} // namespace

int encodeButton(MouseButton button, MouseAction action, const KeyModifiers& modifiers,
                 MouseProtocolEncoding encoding) {
    const bool sgr = encoding == MouseProtocolEncoding::sgr || encoding == MouseProtocolEncoding::sgrPixel;
    int flags = buttonNumber(button);
    // Only the SGR encodings can say which button went up; the others report 3.
    if (action == MouseAction::release && !sgr && !isWheel(button))
        flags = 3;
    if (action == MouseAction::motion)
        flags += 32;
    if (modifiers.shift)
        flags += 4;
    if (modifiers.alt)
        flags += 8;
    if (modifiers.control)
        flags += 16;
    return flags;
}

bool shouldReport(MouseMode mode, MouseAction action, MouseButton button) {
    switch (mode) {
    case MouseMode::off:
        return false;
    case MouseMode::x10:
        return action == MouseAction::press && !isWheel(button) && button != MouseButton::none;
    case MouseMode::vt200:
        return action != MouseAction::motion;
    case MouseMode::buttonEventTracking:
        return action != MouseAction::motion || button != MouseButton::none;
    case MouseMode::anyEvent:
        return true;
    }
    return false;
}

std::string encodeMouseUtf(int value) {
    const int v = std::clamp(value, 0, kUtf8MaxValue) + 32;
    std::string out;
    if (v < 0x80) {
        out += static_cast<char>(v);
    } else {
        out += static_cast<char>(0xC0 | (v >> 6));
        out += static_cast<char>(0x80 | (v & 0x3F));
    }
    return out;
}

std::string sendEvent(MouseProtocolEncoding encoding, int buttonFlags, int x, int y, int pixelX, int pixelY,
                      bool release) {
    switch (encoding) {
    case MouseProtocolEncoding::x10: {
        std::string out = "\x1b[M";
        out += static_cast<char>(std::clamp(buttonFlags, 0, kX10MaxValue) + 32);
        out += static_cast<char>(std::clamp(x, 1, kX10MaxValue) + 32);
        out += static_cast<char>(std::clamp(y, 1, kX10MaxValue) + 32);
        return out;
    }
    case MouseProtocolEncoding::utf8:
        return "\x1b[M" + encodeMouseUtf(buttonFlags) + encodeMouseUtf(x) + encodeMouseUtf(y);
    case MouseProtocolEncoding::sgr:
        return "\x1b[<" + std::to_string(buttonFlags) + ";" + std::to_string(x) + ";" + std::to_string(y) +
               (release ? "m" : "M");
    case MouseProtocolEncoding::urxvt:
        // rxvt-unicode offsets the button by 32 as the X10 form does, but writes decimals.
        return "\x1b[" + std::to_string(buttonFlags + 32) + ";" + std::to_string(x) + ";" +
               std::to_string(y) + "M";
    case MouseProtocolEncoding::sgrPixel:
        return "\x1b[<" + std::to_string(buttonFlags) + ";" + std::to_string(pixelX) + ";" +
               std::to_string(pixelY) + (release ? "m" : "M");
    }
    return {};
}

std::optional<std::string> encode(const MouseEvent& event, const InputModes& modes) {
    if (!shouldReport(modes.mouseMode, event.action, event.button))
        return std::nullopt;
    // X10 compatibility mode never reported modifiers.
    const KeyModifiers modifiers = modes.mouseMode == MouseMode::x10 ? KeyModifiers{} : event.modifiers;
    const int flags = encodeButton(event.button, event.action, modifiers, modes.mouseProtocol);
    return sendEvent(modes.mouseProtocol, flags, event.col + 1, event.row + 1, event.pixelX + 1,
                     event.pixelY + 1, event.action == MouseAction::release);
}

bool reportsMouse(const InputModes& modes, bool allowMouseReporting, const KeyModifiers& modifiers) {
    // Shift keeps the pointer for selecting text, as in other X terminals: Alt-drag is
    // taken by most window managers for moving windows.
    return modes.mouseMode != MouseMode::off && allowMouseReporting && !modifiers.shift;
}

} // namespace termkit::MouseEncoder
