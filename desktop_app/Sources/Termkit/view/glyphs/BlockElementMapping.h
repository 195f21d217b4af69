#pragma once
// The block elements, U+2580 to U+259F, as rectangles of their cell.

#include <optional>
#include <vector>

#include "Termkit/view/render/GlyphTypes.h"

namespace termkit {

/// How much of a rectangle's area is covered: solid, or one of the three shades.
enum class BlockAlpha : uint8_t { full, dark, medium, light };

/// Coverage of a shade as a fraction.
constexpr double blockAlphaValue(BlockAlpha alpha) {
    switch (alpha) {
    case BlockAlpha::full:
        return 1.0;
    case BlockAlpha::dark:
        return 0.75;
    case BlockAlpha::medium:
        return 0.5;
    case BlockAlpha::light:
        return 0.25;
    }
    return 1.0;
}

/// A rectangle as fractions of the cell: [x0, x1) x [y0, y1).
struct BlockElementRect {
    double x0 = 0;
    double x1 = 1;
    double y0 = 0;
    double y1 = 1;
    BlockAlpha alpha = BlockAlpha::full;
    bool operator==(const BlockElementRect&) const = default;
};

/// Block elements drawn as rectangles whose edges fall on whole pixels, the same pixels in
/// every cell, so that halves, eighths and quadrants tile without seams.
class BlockElementMapping {
public:
    static constexpr char32_t kFirst = 0x2580;
    static constexpr char32_t kLast = 0x259F;

    static bool handles(char32_t codePoint) { return codePoint >= kFirst && codePoint <= kLast; }
    /// The rectangles of a block element; empty outside the block.
    static std::vector<BlockElementRect> rects(char32_t codePoint);
    /// The element drawn in a cell of the key's size; nothing outside the block.
    static std::optional<GlyphBitmap> render(const CustomGlyphKey& key);
    /// The pixel edge of a fraction of a cell dimension.
    static int edge(double fraction, int size);
};

} // namespace termkit
