#pragma once
// The places where protocol extensions plug into the core.

#include <cstdint>
#include <span>

#include "Termkit/buffer/BidiPresentationState.h"

namespace termkit {

class DcsHandler;
class Terminal;

/// Sequences that belong to protocol extensions (kitty graphics, sixel,
/// semantic prompts, bidi presentation) reach the core's dispatch and are handed here.
/// The defaults log what they drop; an extension overrides the methods it implements.
class TerminalExtensions {
public:
    virtual ~TerminalExtensions() = default;
    /// The data of an APC `G` string.
    virtual void handleKittyGraphics(Terminal& terminal, std::span<const uint8_t> data);
    /// A handler for a sixel DCS string, or none.
    virtual DcsHandler* sixelDcsHandler(Terminal& terminal);
    /// The body of OSC 133.
    virtual void oscSemanticPrompt(Terminal& terminal, std::span<const uint8_t> data);
    /// The bidi state changed; `properties` names which fields (bit 0 support mode,
    /// 1 autodetect, 2 fallback direction, 3 box mirroring) should reach the paragraph.
    virtual void applyCurrentBidiStateAtParagraphStart(Terminal& terminal, unsigned properties);
    /// The active buffer changed.
    virtual void semanticNoteAlternateScreenSwitch(Terminal& terminal);
    /// A line feed moved the cursor to its next row; called only while the terminal's
    /// `semanticLineAdvanceWanted` is set.
    virtual void finishSemanticLineAdvance(Terminal& terminal);
    /// Soft or hard reset: drop any extension state.
    virtual void reset(Terminal& terminal, bool hard);
};

} // namespace termkit
