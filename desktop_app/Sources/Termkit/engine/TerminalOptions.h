#pragma once
// How a terminal is made.

#include <chrono>
#include <cstdint>
#include <string>

#include "Termkit/buffer/BidiPresentationState.h"
#include "Termkit/buffer/TinyAtom.h"
#include "Termkit/engine/Color.h"

namespace termkit {

/// Shape and blinking of the cursor.
enum class CursorStyle : uint8_t {
    blinkBlock,
    steadyBlock,
    blinkUnderline,
    steadyUnderline,
    blinkBar,
    steadyBar
};

/// Width of a lone regional indicator.
enum class RegionalIndicatorWidth : uint8_t { wide, narrow };

/// Options of a new terminal; `TerminalOptions{}` holds the defaults.
struct TerminalOptions {
    /// A terminal is never smaller than this.
    static constexpr int kMinimumCols = 2;
    static constexpr int kMinimumRows = 1;

    int cols = 80;
    int rows = 25;
    bool convertEol = false;
    std::string termName = "xterm-256color";
    CursorStyle cursorStyle = CursorStyle::blinkBlock;
    bool screenReaderMode = false;
    int scrollback = 500;
    int tabStopWidth = 8;
    bool enableSixelReported = true;
    long long kittyImageCacheLimitBytes = 335544320;
    Ansi256PaletteStrategy ansi256PaletteStrategy = Ansi256PaletteStrategy::base16Lab;
    RegionalIndicatorWidth regionalIndicatorWidth = RegionalIndicatorWidth::wide;
    BidiPresentationState initialBidiState{};
    int maximumBidiParagraphRows = 500;
    bool initialBidiArrowKeySwap = false;
    /// How many hyperlink payloads the terminal interns over its life.
    uint16_t payloadTableCapacity = TinyAtom::kMaxCode;

    /// The defaults.
    static TerminalOptions defaults() { return {}; }
};

} // namespace termkit
