#include "Termkit/view/glyphs/PowerlineRenderer.h"

#include <algorithm>

#include "Termkit/view/glyphs/GlyphCanvas.h"

namespace termkit {

namespace {

using Point = GlyphCanvas::Point;

void drawShape(GlyphCanvas& canvas, char32_t codePoint, double thickness) {
    const double w = canvas.width();
    const double h = canvas.height();
    const double j = PowerlineRenderer::powerlineJoinCells;
    constexpr double pi = 3.141592653589793;
    switch (codePoint) {
    case 0xE0B0: // solid triangle pointing right
        canvas.fillPolygon({{-j, -j}, {w, h / 2}, {-j, h + j}});
        break;
    case 0xE0B1: // chevron pointing right
        canvas.strokeSegment({0, 0}, {w - thickness / 2, h / 2}, thickness);
        canvas.strokeSegment({w - thickness / 2, h / 2}, {0, h}, thickness);
        break;
    case 0xE0B2: // solid triangle pointing left
        canvas.fillPolygon({{w + j, -j}, {0, h / 2}, {w + j, h + j}});
        break;
    case 0xE0B3: // chevron pointing left
        canvas.strokeSegment({w, 0}, {thickness / 2, h / 2}, thickness);
        canvas.strokeSegment({thickness / 2, h / 2}, {w, h}, thickness);
        break;
    case 0xE0B4: // solid half circle bulging right
        canvas.fillHalfDisc({-j, h / 2}, std::min(h / 2 + j, w + j), -j, true);
        canvas.fillRect(0, 0, 1, canvas.height());
        break;
    case 0xE0B5: // half circle outline bulging right
        canvas.strokeArc({0, h / 2}, std::min(h / 2, w) - thickness / 2, 1.5 * pi, 2.5 * pi, thickness);
        break;
    case 0xE0B6: // solid half circle bulging left
        canvas.fillHalfDisc({w + j, h / 2}, std::min(h / 2 + j, w + j), w + j, false);
        canvas.fillRect(canvas.width() - 1, 0, canvas.width(), canvas.height());
        break;
    case 0xE0B7: // half circle outline bulging left
        canvas.strokeArc({w, h / 2}, std::min(h / 2, w) - thickness / 2, 0.5 * pi, 1.5 * pi, thickness);
        break;
    case 0xE0B8: // lower left triangle
        canvas.fillPolygon({{-j, -j}, {w + j, h + j}, {-j, h + j}});
        break;
    case 0xE0B9: // diagonal from upper left to lower right
    case 0xE0BF:
        canvas.strokeSegment({0, 0}, {w, h}, thickness);
        break;
    case 0xE0BA: // lower right triangle
        canvas.fillPolygon({{w + j, -j}, {w + j, h + j}, {-j, h + j}});
        break;
    case 0xE0BB: // diagonal from lower left to upper right
    case 0xE0BD:
        canvas.strokeSegment({0, h}, {w, 0}, thickness);
        break;
    case 0xE0BC: // upper left triangle
        canvas.fillPolygon({{-j, -j}, {w + j, -j}, {-j, h + j}});
        break;
    case 0xE0BE: // upper right triangle
        canvas.fillPolygon({{-j, -j}, {w + j, -j}, {w + j, h + j}});
        break;
    default:
        break;
    }
}

} // namespace

std::optional<GlyphBitmap> PowerlineRenderer::render(const CustomGlyphKey& key) {
    if (!handles(key.codePoint))
        return std::nullopt;
    GlyphCanvas canvas(key.cellWidthPx, key.cellHeightPx, key.antiAlias);
    drawShape(canvas, key.codePoint, key.baseThicknessPx);
    return canvas.toBitmap();
}

} // namespace termkit
