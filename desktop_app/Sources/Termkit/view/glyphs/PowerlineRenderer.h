#pragma once
// The powerline separators of the private use area, drawn as filled shapes of the cell.

#include <optional>

#include "Termkit/view/render/GlyphTypes.h"

namespace termkit {

/// Draws the separators U+E0B0 to U+E0BF (triangles, half circles, and their outlines)
/// scaled to the cell, so that a separator meets the coloured cells on both sides exactly.
class PowerlineRenderer {
public:
    static constexpr char32_t kFirst = 0xE0B0;
    static constexpr char32_t kLast = 0xE0BF;
    /// How far a filled shape reaches past the cell edge it stands on, in pixels: the
    /// edge pixels are then fully covered and no seam of background shows between the
    /// separator and the run of cells it continues.
    static constexpr double powerlineJoinCells = 0.5;

    static bool handles(char32_t codePoint) { return codePoint >= kFirst && codePoint <= kLast; }
    static std::optional<GlyphBitmap> render(const CustomGlyphKey& key);
};

} // namespace termkit
