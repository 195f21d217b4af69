#pragma once
// A row as the renderer sees it: cells with their colours already resolved.

#include <QString>

#include <cstdint>
#include <vector>

namespace termkit {

/// One cell, copied out of the terminal with everything the palette, inverse video, dim and
/// bold-as-bright decide already applied, so that building geometry needs no terminal.
struct RenderCell {
    /// Cluster codes point into the row's `clusters`.
    static constexpr uint32_t kClusterFlag = 0x80000000u;

    enum Flag : uint8_t {
        bold = 1,
        italic = 2,
        blink = 4,
        invisible = 8,
        strikethrough = 16,
        /// The cell is under a selection or a search hit (drawn by the host's colours).
        highlighted = 32,
    };

    /// A Unicode scalar (0 for an empty cell), or `kClusterFlag` with an index.
    uint32_t code = 0;
    uint32_t fg = 0xFF000000u; // 0xAARRGGBB
    uint32_t bg = 0xFFFFFFFFu;
    uint32_t underlineColor = 0xFF000000u;
    uint8_t flags = 0;
    /// `UnderlineStyle` of the buffer: 0 none, 1 single, 2 double, 3 curly, 4 dotted, 5 dashed.
    uint8_t underline = 0;
    /// 1, 2 for the left half of a wide character, 0 for its right half.
    uint8_t width = 1;

    bool has(Flag f) const { return (flags & f) != 0; }
    bool isCluster() const { return (code & kClusterFlag) != 0; }
    bool operator==(const RenderCell&) const = default;
};

/// A row copied out of the terminal.
struct RowSnapshot {
    std::vector<RenderCell> cells;
    /// Grapheme clusters of more than one scalar, referenced by the cells.
    std::vector<QString> clusters;
    /// Any cell blinks: the row is rebuilt when the blink phase flips.
    bool hasBlink = false;
};

} // namespace termkit
