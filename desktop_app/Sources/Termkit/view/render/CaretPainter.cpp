#include "Termkit/view/render/CaretPainter.h"

#include <algorithm>

#include "Termkit/view/render/SoftwareRowPainter.h"

namespace termkit::CaretPainter {

QImage paint(const CaretLook& look, const RenderCell& cell, const QString& cluster, GlyphCache& glyphs) {
    const CellMetrics& m = glyphs.fonts().metrics();
    const int width = m.width * std::max(look.cells, 1);
    QImage image(width, m.height, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    const QRect all = image.rect();
    const float w = static_cast<float>(width);
    const float h = static_cast<float>(m.height);
    const float t = static_cast<float>(std::max(kBarThicknessPx, m.underlineThickness) *
                                       std::max(1, static_cast<int>(m.devicePixelRatio)));
    if (look.shape == CaretShape::bar) {
        SoftwareRowPainter::fillRect(image, {0, 0, t, h, look.caretColor}, all);
        return image;
    }
    if (look.shape == CaretShape::underline) {
        SoftwareRowPainter::fillRect(image, {0, h - t, w, h, look.caretColor}, all);
        return image;
    }
    if (!look.focused) {
        const float line = std::max(1.0f, static_cast<float>(m.devicePixelRatio));
        SoftwareRowPainter::fillRect(image, {0, 0, w, line, look.caretColor}, all);
        SoftwareRowPainter::fillRect(image, {0, h - line, w, h, look.caretColor}, all);
        SoftwareRowPainter::fillRect(image, {0, 0, line, h, look.caretColor}, all);
        SoftwareRowPainter::fillRect(image, {w - line, 0, w, h, look.caretColor}, all);
        return image;
    }
    SoftwareRowPainter::fillRect(image, {0, 0, w, h, look.caretColor}, all);
    if (cell.code == 0 || cell.code == ' ' || cell.has(RenderCell::invisible))
        return image;
    const FontStyle style = fontStyle(cell.has(RenderCell::bold), cell.has(RenderCell::italic));
    const GlyphEntry* e = cell.isCluster()
                              ? glyphs.cluster(cluster, style, look.cells)
                              : glyphs.glyph(static_cast<char32_t>(cell.code), style, look.cells);
    if (e == nullptr)
        return image;
    GlyphQuad q;
    q.x0 = static_cast<float>(e->bearingX);
    q.y0 = static_cast<float>(e->bearingY);
    q.x1 = q.x0 + static_cast<float>(e->width);
    q.y1 = q.y0 + static_cast<float>(e->height);
    q.u0 = static_cast<uint16_t>(e->region.x);
    q.v0 = static_cast<uint16_t>(e->region.y);
    q.argb = e->isColor ? 0xFFFFFFFFu : look.caretTextColor;
    if (e->isColor)
        SoftwareRowPainter::blendColor(image, q, glyphs.colorAtlas(), all);
    else
        SoftwareRowPainter::blendGray(image, q, glyphs.grayscaleAtlas(), all);
    return image;
}

} // namespace termkit::CaretPainter
