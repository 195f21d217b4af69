#pragma once
// The box-drawing block, U+2500 to U+257F, drawn by geometry.

#include <optional>

#include "Termkit/view/glyphs/BoxDrawingCanvas.h"

namespace termkit {

/// Draws box-drawing characters into a cell-sized bitmap, so that lines join between cells
/// whatever the font would have done.
class BoxDrawingRenderer {
public:
    static constexpr char32_t kFirst = 0x2500;
    static constexpr char32_t kLast = 0x257F;

    static bool handles(char32_t codePoint) { return codePoint >= kFirst && codePoint <= kLast; }
    /// The arms of a character made of straight lines only; nothing for dashes, arcs and
    /// diagonals (and for code points outside the block).
    static std::optional<BoxArms> arms(char32_t codePoint);
    /// The character drawn in a cell of the key's size; nothing outside the block.
    static std::optional<GlyphBitmap> render(const CustomGlyphKey& key);
};

} // namespace termkit
