#include "Termkit/view/render/RowBuilder.h"

namespace termkit::RowBuilder {

namespace {

// Underline shapes as the buffer stores them.
constexpr uint8_t kUnderlineSingle = 1;
constexpr uint8_t kUnderlineDouble = 2;
constexpr uint8_t kUnderlineCurly = 3;
constexpr uint8_t kUnderlineDotted = 4;
constexpr uint8_t kUnderlineDashed = 5;

GlyphQuad quad(const GlyphEntry& e, float x, float y, uint32_t argb) {
    GlyphQuad q;
    q.x0 = x + static_cast<float>(e.bearingX);
    q.y0 = y + static_cast<float>(e.bearingY);
    q.x1 = q.x0 + static_cast<float>(e.width);
    q.y1 = q.y0 + static_cast<float>(e.height);
    q.u0 = static_cast<uint16_t>(e.region.x);
    q.v0 = static_cast<uint16_t>(e.region.y);
    q.u1 = static_cast<uint16_t>(e.region.x + e.width);
    q.v1 = static_cast<uint16_t>(e.region.y + e.height);
    q.argb = argb;
    return q;
}

void addBackground(RowGeometry& out, float x0, float x1, float y0, float y1, uint32_t argb) {
    if (!out.backgrounds.empty()) {
        ColorRect& last = out.backgrounds.back();
        if (last.argb == argb && last.x1 == x0) {
            last.x1 = x1;
            return;
        }
    }
    out.backgrounds.push_back({x0, y0, x1, y1, argb});
}

void addUnderline(const RenderCell& cell, float x, float y, float width, const RowBuildContext& context,
                  GlyphCache& glyphs, RowGeometry& out) {
    const CellMetrics& m = context.cell;
    const float top = y + static_cast<float>(m.underlinePosition);
    const float t = static_cast<float>(m.underlineThickness);
    switch (cell.underline) {
    case kUnderlineSingle:
        out.decorations.push_back({x, top, x + width, top + t, cell.underlineColor});
        return;
    case kUnderlineDouble: {
        // The second line goes below when there is room, above otherwise.
        const float second = top + 2 * t + t <= y + static_cast<float>(m.height) ? top + 2 * t : top - 2 * t;
        out.decorations.push_back({x, top, x + width, top + t, cell.underlineColor});
        out.decorations.push_back({x, second, x + width, second + t, cell.underlineColor});
        return;
    }
    case kUnderlineCurly:
    case kUnderlineDotted:
    case kUnderlineDashed: {
        const DecorationSprite sprite = cell.underline == kUnderlineCurly    ? DecorationSprite::curly
                                        : cell.underline == kUnderlineDotted ? DecorationSprite::dotted
                                                                             : DecorationSprite::dashed;
        if (const GlyphEntry* e = glyphs.decoration(sprite))
            for (float cx = x; cx < x + width; cx += static_cast<float>(m.width))
                out.decorationSprites.push_back(quad(*e, cx, y, cell.underlineColor));
        return;
    }
    default:
        return;
    }
}

} // namespace

void build(const RowSnapshot& snapshot, int row, const RowBuildContext& context, GlyphCache& glyphs,
           RowGeometry& out) {
    out.clear();
    out.hasBlink = snapshot.hasBlink;
    out.blinkShown = context.blinkShown;
    const CellMetrics& m = context.cell;
    const float cw = static_cast<float>(m.width);
    const float y = static_cast<float>(row * m.height);
    const float bottom = y + static_cast<float>(m.height);
    const size_t count = snapshot.cells.size();
    out.gray.reserve(count);
    const uint64_t skippedBefore = glyphs.skippedCount();
    for (size_t col = 0; col < count; ++col) {
        const RenderCell& cell = snapshot.cells[col];
        if (cell.width == 0)
            continue; // the right half of a wide character, drawn with its left half
        const float x = static_cast<float>(col) * cw;
        const float width = cw * static_cast<float>(cell.width);
        if (cell.bg != context.defaultBackground)
            addBackground(out, x, x + width, y, bottom, cell.bg);
        const bool hidden =
            cell.has(RenderCell::invisible) || (cell.has(RenderCell::blink) && !context.blinkShown);
        if (hidden)
            continue;
        if (cell.code != 0 && cell.code != ' ') {
            const FontStyle style = fontStyle(cell.has(RenderCell::bold), cell.has(RenderCell::italic));
            const GlyphEntry* e =
                cell.isCluster() ? glyphs.cluster(snapshot.clusters.at(cell.code & ~RenderCell::kClusterFlag),
                                                  style, cell.width)
                                 : glyphs.glyph(static_cast<char32_t>(cell.code), style, cell.width);
            if (e != nullptr) {
                if (e->isColor)
                    out.color.push_back(quad(*e, x, y, (cell.fg & 0xFF000000u) | 0x00FFFFFFu));
                else
                    out.gray.push_back(quad(*e, x, y, cell.fg));
            }
        }
        if (cell.underline != 0)
            addUnderline(cell, x, y, width, context, glyphs, out);
        if (cell.has(RenderCell::strikethrough)) {
            const float top = y + static_cast<float>(m.strikeoutPosition);
            out.decorations.push_back(
                {x, top, x + width, top + static_cast<float>(m.underlineThickness), cell.fg});
        }
    }
    out.incomplete = glyphs.skippedCount() != skippedBefore;
}

} // namespace termkit::RowBuilder
