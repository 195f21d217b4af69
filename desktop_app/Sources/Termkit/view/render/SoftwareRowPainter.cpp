#include "Termkit/view/render/SoftwareRowPainter.h"

#include <algorithm>
#include <cmath>

namespace termkit {

namespace {

QRect pixelRect(float x0, float y0, float x1, float y1, const QRect& clip) {
    const QRect r(QPoint(static_cast<int>(std::floor(x0)), static_cast<int>(std::floor(y0))),
                  QPoint(static_cast<int>(std::ceil(x1)) - 1, static_cast<int>(std::ceil(y1)) - 1));
    return r.intersected(clip);
}

// Source-over of a straight colour at a coverage onto a premultiplied opaque-ish pixel.
inline uint32_t over(uint32_t dst, uint32_t argb, unsigned coverage) {
    const unsigned a = ((argb >> 24) * coverage + 127) / 255;
    if (a == 0)
        return dst;
    const unsigned inv = 255 - a;
    auto channel = [&](int shift) {
        const unsigned s = (argb >> shift) & 0xFF;
        const unsigned d = (dst >> shift) & 0xFF;
        return ((s * a + d * inv + 127) / 255) << shift;
    };
    const unsigned da = (dst >> 24) & 0xFF;
    const unsigned outA = a + (da * inv + 127) / 255;
    return (outA << 24) | channel(16) | channel(8) | channel(0);
}

} // namespace

void SoftwareRowPainter::fillRect(QImage& image, const ColorRect& rect, const QRect& clip) {
    const QRect r = pixelRect(rect.x0, rect.y0, rect.x1, rect.y1, clip);
    for (int y = r.top(); y <= r.bottom(); ++y) {
        auto* line = reinterpret_cast<uint32_t*>(image.scanLine(y));
        for (int x = r.left(); x <= r.right(); ++x)
            line[x] = (rect.argb >> 24) == 0xFF ? rect.argb : over(line[x], rect.argb, 255);
    }
}

void SoftwareRowPainter::blendGray(QImage& image, const GlyphQuad& q, const GlyphAtlas& atlas,
                                   const QRect& clip) {
    const QRect r = pixelRect(q.x0, q.y0, q.x1, q.y1, clip);
    const int ox = static_cast<int>(std::floor(q.x0));
    const int oy = static_cast<int>(std::floor(q.y0));
    const uint8_t* data = atlas.data().data();
    const int stride = atlas.size();
    for (int y = r.top(); y <= r.bottom(); ++y) {
        auto* line = reinterpret_cast<uint32_t*>(image.scanLine(y));
        const uint8_t* src = data + static_cast<size_t>(q.v0 + (y - oy)) * stride + q.u0 - ox;
        for (int x = r.left(); x <= r.right(); ++x)
            if (const unsigned c = src[x]; c != 0)
                line[x] = over(line[x], q.argb, c);
    }
}

void SoftwareRowPainter::blendColor(QImage& image, const GlyphQuad& q, const GlyphAtlas& atlas,
                                    const QRect& clip) {
    const QRect r = pixelRect(q.x0, q.y0, q.x1, q.y1, clip);
    const int ox = static_cast<int>(std::floor(q.x0));
    const int oy = static_cast<int>(std::floor(q.y0));
    const uint8_t* data = atlas.data().data();
    const int stride = atlas.size() * 4;
    const unsigned alpha = q.argb >> 24;
    for (int y = r.top(); y <= r.bottom(); ++y) {
        auto* line = reinterpret_cast<uint32_t*>(image.scanLine(y));
        const uint8_t* src = data + static_cast<size_t>(q.v0 + (y - oy)) * stride;
        for (int x = r.left(); x <= r.right(); ++x) {
            const uint8_t* p = src + static_cast<size_t>(q.u0 + (x - ox)) * 4; // B, G, R, A premultiplied
            const unsigned sa = p[3] * alpha / 255;
            if (sa == 0)
                continue;
            const unsigned inv = 255 - sa;
            const uint32_t d = line[x];
            auto ch = [&](unsigned s, int shift) {
                return ((s * alpha / 255 + (((d >> shift) & 0xFF) * inv + 127) / 255) & 0xFF) << shift;
            };
            line[x] = ((sa + (((d >> 24) & 0xFF) * inv + 127) / 255) << 24) | ch(p[2], 16) | ch(p[1], 8) |
                      ch(p[0], 0);
        }
    }
}

void SoftwareRowPainter::paintRow(const RowGeometry& row, int index, int cellHeight,
                                  uint32_t defaultBackground, GlyphCache& glyphs) {
    const QRect band = QRect(0, index * cellHeight, m_image.width(), cellHeight).intersected(m_image.rect());
    if (band.isEmpty())
        return;
    for (int y = band.top(); y <= band.bottom(); ++y)
        std::fill_n(reinterpret_cast<uint32_t*>(m_image.scanLine(y)), m_image.width(), defaultBackground);
    for (const ColorRect& r : row.backgrounds)
        fillRect(m_image, r, band);
    for (const GlyphQuad& q : row.gray)
        blendGray(m_image, q, glyphs.grayscaleAtlas(), band);
    for (const GlyphQuad& q : row.color)
        blendColor(m_image, q, glyphs.colorAtlas(), band);
    for (const ColorRect& r : row.decorations)
        fillRect(m_image, r, band);
    for (const GlyphQuad& q : row.decorationSprites)
        blendGray(m_image, q, glyphs.grayscaleAtlas(), band);
}

bool SoftwareRowPainter::paint(FrameBuilder& frames, const FrameBuilder::Result& result, GlyphCache& glyphs,
                               QSize deviceSize, int cellHeight, uint32_t defaultBackground) {
    bool all = result.allRows;
    if (m_image.size() != deviceSize) {
        m_image = QImage(deviceSize, QImage::Format_ARGB32_Premultiplied);
        all = true;
    }
    if (m_image.isNull())
        return false;
    if (all) {
        m_image.fill(defaultBackground);
        for (int r = 0; r < frames.rows(); ++r)
            paintRow(frames.row(r), r, cellHeight, defaultBackground, glyphs);
        return true;
    }
    for (int r : result.rebuiltRows)
        paintRow(frames.row(r), r, cellHeight, defaultBackground, glyphs);
    return !result.rebuiltRows.empty();
}

} // namespace termkit
