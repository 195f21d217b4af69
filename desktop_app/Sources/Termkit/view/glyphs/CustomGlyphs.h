#pragma once
// One entry point for every glyph the view draws by geometry instead of from the font.

#include <optional>

#include "Termkit/view/render/GlyphTypes.h"

namespace termkit::CustomGlyphs {

/// Whether a code point is drawn by geometry (box drawing, block elements, powerline).
bool handles(char32_t codePoint);
/// The glyph for a cell of the key's size, or nothing for code points drawn from the font.
std::optional<GlyphBitmap> render(const CustomGlyphKey& key);
/// The light line thickness for a cell height: thin lines stay one pixel at ordinary sizes
/// and grow with the cell.
int baseThickness(int cellHeightPx);

} // namespace termkit::CustomGlyphs
