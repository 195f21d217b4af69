#pragma once
// What a host may set on a terminal view.

#include <chrono>
#include <cstdint>
#include <optional>

#include "Termkit/bidi/BidiTypes.h"
#include "Termkit/engine/Color.h"

namespace termkit {

/// What the bell does.
enum class BellStyle : uint8_t { none, sound, visual, soundAndVisual };

/// When links under the pointer are underlined.
enum class LinkHighlightMode : uint8_t { never, always, hover, hoverWithModifier, alwaysWithModifier };

/// Which links are reported to the host on a click: the explicit ones of OSC 8, or those
/// found in the text as well.
enum class LinkReporting : uint8_t { none, explicitOnly, explicitAndImplicit };

/// Whether each row keeps its own vertex buffers between frames, or a frame gathers all rows
/// into one.
enum class BufferingMode : uint8_t { perRowPersistent, perFrameAggregated };

/// The settings of a `TerminalView`, with their defaults.
struct TerminalViewSettings {
    /// How long a single click waits for a second one before it counts as single.
    static constexpr std::chrono::milliseconds kSemanticClickCoalescingDelay{250};

    bool optionAsMetaKey = true;
    bool backspaceSendsControlH = false;
    bool allowMouseReporting = true;
    LinkReporting linkReporting = LinkReporting::explicitAndImplicit;
    LinkHighlightMode linkHighlightMode = LinkHighlightMode::hoverWithModifier;
    BellStyle bellStyle = BellStyle::visual;
    /// Bold text in one of the eight basic colours is shown in its bright variant.
    bool useBrightColors = true;
    BidiHostPolicy bidiHostPolicy = BidiHostPolicy::respectTerminal;
    /// Box drawing, block elements and powerline glyphs drawn by geometry, not the font.
    bool customBlockGlyphs = true;
    bool antiAliasCustomBlockGlyphs = true;
    /// Multiplies the lines one wheel notch scrolls.
    double scrollSensitivity = 1.0;
    /// Tells the delegate which rows changed with each update (`rangeChanged`).
    bool notifyUpdateChanges = false;
    BufferingMode bufferingMode = BufferingMode::perRowPersistent;
    std::chrono::milliseconds semanticClickCoalescingDelay = kSemanticClickCoalescingDelay;
    std::optional<Color> selectedTextBackgroundColor;
    std::optional<Color> caretColor;
    std::optional<Color> caretTextColor;
};

/// What a bell style asks for.
struct BellActions {
    bool sound = false;
    bool visual = false;
};

/// The actions of a bell in a style.
constexpr BellActions bellActions(BellStyle style) {
    return {style == BellStyle::sound || style == BellStyle::soundAndVisual,
            style == BellStyle::visual || style == BellStyle::soundAndVisual};
}

} // namespace termkit
