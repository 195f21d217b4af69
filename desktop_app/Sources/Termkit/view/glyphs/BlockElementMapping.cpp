#include "Termkit/view/glyphs/BlockElementMapping.h"

#include <cmath>

#include "Termkit/view/glyphs/GlyphCanvas.h"

namespace termkit {

namespace {

constexpr double kEighth = 1.0 / 8;

BlockElementRect lower(int eighths) {
    return {0, 1, 1 - eighths * kEighth, 1, BlockAlpha::full};
}
BlockElementRect left(int eighths) {
    return {0, eighths * kEighth, 0, 1, BlockAlpha::full};
}

constexpr BlockElementRect kUpperLeft{0, 0.5, 0, 0.5, BlockAlpha::full};
constexpr BlockElementRect kUpperRight{0.5, 1, 0, 0.5, BlockAlpha::full};
constexpr BlockElementRect kLowerLeft{0, 0.5, 0.5, 1, BlockAlpha::full};
constexpr BlockElementRect kLowerRight{0.5, 1, 0.5, 1, BlockAlpha::full};

} // namespace

std::vector<BlockElementRect> BlockElementMapping::rects(char32_t codePoint) {
    if (codePoint == 0x2580)
        return {{0, 1, 0, 0.5, BlockAlpha::full}};
    if (codePoint >= 0x2581 && codePoint <= 0x2588)
        return {lower(static_cast<int>(codePoint - 0x2580))};
    if (codePoint >= 0x2589 && codePoint <= 0x258F)
        return {left(static_cast<int>(0x2590 - codePoint))};
    switch (codePoint) {
    case 0x2590:
        return {{0.5, 1, 0, 1, BlockAlpha::full}};
    case 0x2591:
        return {{0, 1, 0, 1, BlockAlpha::light}};
    case 0x2592:
        return {{0, 1, 0, 1, BlockAlpha::medium}};
    case 0x2593:
        return {{0, 1, 0, 1, BlockAlpha::dark}};
    case 0x2594:
        return {{0, 1, 0, kEighth, BlockAlpha::full}};
    case 0x2595:
        return {{1 - kEighth, 1, 0, 1, BlockAlpha::full}};
    case 0x2596:
        return {kLowerLeft};
    case 0x2597:
        return {kLowerRight};
    case 0x2598:
        return {kUpperLeft};
    case 0x2599:
        return {kUpperLeft, kLowerLeft, kLowerRight};
    case 0x259A:
        return {kUpperLeft, kLowerRight};
    case 0x259B:
        return {kUpperLeft, kUpperRight, kLowerLeft};
    case 0x259C:
        return {kUpperLeft, kUpperRight, kLowerRight};
    case 0x259D:
        return {kUpperRight};
    case 0x259E:
        return {kUpperRight, kLowerLeft};
    case 0x259F:
        return {kUpperRight, kLowerLeft, kLowerRight};
    default:
        return {};
    }
}

int BlockElementMapping::edge(double fraction, int size) {
    return static_cast<int>(std::lround(fraction * size));
}

std::optional<GlyphBitmap> BlockElementMapping::render(const CustomGlyphKey& key) {
    const std::vector<BlockElementRect> parts = rects(key.codePoint);
    if (parts.empty())
        return std::nullopt;
    // Shades are partial coverage, never dithered: without anti-aliasing they would vanish
    // or fill, so they keep their coverage either way.
    GlyphCanvas canvas(key.cellWidthPx, key.cellHeightPx, true);
    for (const BlockElementRect& r : parts)
        canvas.fillRect(edge(r.x0, key.cellWidthPx), edge(r.y0, key.cellHeightPx),
                        edge(r.x1, key.cellWidthPx), edge(r.y1, key.cellHeightPx), blockAlphaValue(r.alpha));
    return canvas.toBitmap();
}

} // namespace termkit
