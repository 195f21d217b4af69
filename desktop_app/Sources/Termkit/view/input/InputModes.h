#pragma once
// The terminal modes that decide how keys, the pointer and pastes are encoded.

#include <cstdint>

#include "Termkit/engine/TerminalTypes.h"

namespace termkit {

/// A copy of the modes the input encoders read, taken from the terminal when an event
/// arrives. Keeping them in one small value makes the encoders plain functions.
struct InputModes {
    bool applicationCursor = false;
    bool applicationKeypad = false;
    bool bracketedPasteMode = false;
    bool alternateScrollMode = false;
    bool alternateBufferActive = false;
    bool sendFocus = false;
    MouseMode mouseMode = MouseMode::off;
    MouseProtocolEncoding mouseProtocol = MouseProtocolEncoding::x10;
    /// Progressive keyboard enhancement flags of the kitty protocol; 0 is the legacy encoding.
    uint32_t keyboardEnhancementFlags = 0;
};

/// Modifier keys held with an event.
struct KeyModifiers {
    bool shift = false;
    bool alt = false;
    bool control = false;
    /// The logo key; never encoded, but it keeps shortcuts of the desktop out of the terminal.
    bool super = false;
    bool any() const { return shift || alt || control || super; }
};

} // namespace termkit
