#include "Termkit/view/glyphs/CustomGlyphs.h"

#include <algorithm>

#include "Termkit/view/glyphs/BlockElementMapping.h"
#include "Termkit/view/glyphs/BoxDrawingRenderer.h"
#include "Termkit/view/glyphs/PowerlineRenderer.h"

namespace termkit::CustomGlyphs {

namespace {
// Cell height per pixel of light line thickness.
constexpr int kCellHeightPerThicknessPx = 18;
} // namespace

bool handles(char32_t codePoint) {
    return BoxDrawingRenderer::handles(codePoint) || BlockElementMapping::handles(codePoint) ||
           PowerlineRenderer::handles(codePoint);
}

std::optional<GlyphBitmap> render(const CustomGlyphKey& key) {
    if (key.cellWidthPx <= 0 || key.cellHeightPx <= 0)
        return std::nullopt;
    if (BoxDrawingRenderer::handles(key.codePoint))
        return BoxDrawingRenderer::render(key);
    if (BlockElementMapping::handles(key.codePoint))
        return BlockElementMapping::render(key);
    if (PowerlineRenderer::handles(key.codePoint))
        return PowerlineRenderer::render(key);
    return std::nullopt;
}

int baseThickness(int cellHeightPx) {
    return std::max(1, (cellHeightPx + kCellHeightPerThicknessPx / 2) / kCellHeightPerThicknessPx);
}

} // namespace termkit::CustomGlyphs
