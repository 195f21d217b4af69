#pragma once
// What a row looks like once its right-to-left text is put in visual order.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Termkit/buffer/BidiPresentationState.h"

namespace termkit {

/// The six combinations of a `BidiPresentationState` that change how a row is shown.
enum class BidiPresentationMode : uint8_t {
    implicitLeftToRight,
    implicitRightToLeft,
    implicitAutoLeftToRight,
    implicitAutoRightToLeft,
    explicitLeftToRight,
    explicitRightToLeft,
};

/// The presentation mode a state stands for; the explicit mode has no autodetection, since
/// the application has already ordered its text.
constexpr BidiPresentationMode presentationModeOf(const BidiPresentationState& state) {
    const bool rtl = state.fallbackDirection == BidiDirection::rightToLeft;
    if (state.supportMode == BidiSupportMode::explicit_)
        return rtl ? BidiPresentationMode::explicitRightToLeft : BidiPresentationMode::explicitLeftToRight;
    if (state.autodetectDirection)
        return rtl ? BidiPresentationMode::implicitAutoRightToLeft
                   : BidiPresentationMode::implicitAutoLeftToRight;
    return rtl ? BidiPresentationMode::implicitRightToLeft : BidiPresentationMode::implicitLeftToRight;
}

/// A view setting: follow what the terminal says, or ignore bidi and show logical order.
enum class BidiHostPolicy : uint8_t { respectTerminal, legacyLeftToRight };

/// One unit of a row in visual order: a cell, or a wide character's two cells.
struct BidiCell {
    int logicalCol = 0;
    int width = 1;
    /// Text to show instead of the cell's own (a shaped or mirrored form); an empty string
    /// shows nothing, as for the cell a lam-alef ligature leaves behind.
    std::optional<std::string> display;
    bool operator==(const BidiCell&) const = default;
};

/// The visual order of one row. Both maps have one entry per column; a wide character's two
/// columns map to the two columns it occupies on the other side, left half first.
struct BidiRowLayout {
    std::vector<BidiCell> visualCells;
    std::vector<int> logicalToVisualCol;
    std::vector<int> visualToLogicalCol;
    BidiDirection baseDirection = BidiDirection::leftToRight;
    /// The revision of the paragraph result this row came from.
    uint64_t paragraphRevision = 0;

    /// Whether every column stays where it is and no cell shows other text.
    bool isIdentity() const;
};

} // namespace termkit
