#include "Termkit/view/render/GlyphCache.h"

#include <cmath>

#include "Termkit/view/glyphs/CustomGlyphs.h"
#include "Termkit/view/glyphs/GlyphCanvas.h"

namespace termkit {

const GlyphEntry GlyphCache::kBlank{};

namespace {

uint64_t scalarKey(char32_t scalar, FontStyle style, int cells) {
    return static_cast<uint64_t>(scalar) | (static_cast<uint64_t>(style) << 32) |
           (static_cast<uint64_t>(cells) << 40);
}

// Keys of the decoration sprites, out of the range of any scalar.
uint64_t decorationKey(DecorationSprite sprite) {
    return 0x100000000ull + static_cast<uint64_t>(sprite);
}

GlyphBitmap drawDecoration(DecorationSprite sprite, const CellMetrics& cell) {
    const int t = cell.underlineThickness;
    // Tall enough for a wave of three thicknesses, with a pixel of room for its ink.
    const int height = 3 * t + 2;
    GlyphCanvas canvas(cell.width, height, true);
    switch (sprite) {
    case DecorationSprite::curly: {
        // One full period per cell, so the wave runs on unbroken from cell to cell.
        constexpr double twoPi = 6.283185307179586;
        const double amplitude = 1.5 * t * 0.5 + 0.5;
        const double mid = height / 2.0;
        const int steps = cell.width * 4;
        for (int i = 0; i < steps; ++i) {
            const double x0 = static_cast<double>(i) * cell.width / steps;
            const double x1 = static_cast<double>(i + 1) * cell.width / steps;
            canvas.strokeSegment({x0, mid - amplitude * std::sin(twoPi * x0 / cell.width)},
                                 {x1, mid - amplitude * std::sin(twoPi * x1 / cell.width)}, t);
        }
        break;
    }
    case DecorationSprite::dotted:
        for (int x = 0; x < cell.width; x += 2 * t)
            canvas.fillRect(x, (height - t) / 2, x + t, (height - t) / 2 + t);
        break;
    case DecorationSprite::dashed:
        canvas.fillRect(0, (height - t) / 2, (cell.width * 2 + 2) / 3, (height - t) / 2 + t);
        break;
    }
    GlyphBitmap bitmap = canvas.toBitmap();
    // Centred on the underline's own row.
    bitmap.bearingY = cell.underlinePosition + t / 2 - height / 2;
    return bitmap;
}

} // namespace

GlyphCache::GlyphCache(const FontSet& fonts, Options options)
    : m_fonts(fonts), m_rasterizer(fonts), m_options(std::move(options)),
      m_gray(GlyphAtlasKind::grayscale, kInitialAtlasSize, m_options.maxAtlasSize, m_options.grayscaleDevice,
             m_options.log),
      m_color(GlyphAtlasKind::color, kInitialAtlasSize, m_options.maxAtlasSize, m_options.colorDevice,
              m_options.log) {}

const GlyphEntry* GlyphCache::place(const GlyphBitmap& bitmap) {
    if (bitmap.empty())
        return &kBlank;
    GlyphAtlas& atlas = bitmap.isColor ? m_color : m_gray;
    const std::optional<AtlasRegion> region = atlas.ensureRegion(bitmap.width, bitmap.height);
    if (m_gray.didReset() || m_color.didReset()) {
        // Everything placed before is stale; what was just placed belongs to the new atlas.
        clearCaches();
        m_didReset = true;
        m_gray.takeDidReset();
        m_color.takeDidReset();
    }
    if (!region) {
        ++m_skipped;
        return nullptr;
    }
    atlas.write(*region, bitmap);
    GlyphEntry entry;
    entry.region = *region;
    entry.width = bitmap.width;
    entry.height = bitmap.height;
    entry.bearingX = bitmap.bearingX;
    entry.bearingY = bitmap.bearingY;
    entry.isColor = bitmap.isColor;
    entry.atlasKind = bitmap.isColor ? GlyphAtlasKind::color : GlyphAtlasKind::grayscale;
    entry.atlasGeneration = atlas.generation();
    m_entries.push_back(entry);
    return &m_entries.back();
}

const GlyphEntry* GlyphCache::glyph(char32_t scalar, FontStyle style, int cells) {
    const size_t s = static_cast<size_t>(style);
    const bool ascii = scalar < 128 && cells == 1;
    if (ascii && m_asciiKnown[s][scalar])
        return m_ascii[s][scalar] == &kBlank ? nullptr : m_ascii[s][scalar];
    const bool custom = m_options.customBlockGlyphs && CustomGlyphs::handles(scalar);
    auto& map = custom ? m_customGlyphCache : m_glyphCache;
    const uint64_t key = custom ? static_cast<uint64_t>(scalar) : scalarKey(scalar, style, cells);
    if (!ascii) {
        if (auto it = map.find(key); it != map.end())
            return it->second == &kBlank ? nullptr : it->second;
    }
    GlyphBitmap bitmap;
    if (custom) {
        const CellMetrics& cell = m_fonts.metrics();
        const CustomGlyphKey customKey{scalar,
                                       cell.width,
                                       cell.height,
                                       CustomGlyphs::baseThickness(cell.height),
                                       cell.devicePixelRatio,
                                       m_options.antiAliasCustomBlockGlyphs};
        bitmap = CustomGlyphs::render(customKey).value_or(GlyphBitmap{});
    } else {
        const char32_t text[] = {scalar};
        bitmap = m_rasterizer.rasterize(QString::fromUcs4(text, 1), style, cells);
    }
    const GlyphEntry* entry = place(bitmap);
    if (entry == nullptr)
        return nullptr; // skipped this frame; asked again next frame
    if (ascii) {
        m_ascii[s][scalar] = entry;
        m_asciiKnown[s][scalar] = true;
    } else {
        (custom ? m_customGlyphCache : m_glyphCache)[key] = entry;
    }
    return entry == &kBlank ? nullptr : entry;
}

const GlyphEntry* GlyphCache::cluster(const QString& text, FontStyle style, int cells) {
    QString key = text;
    key.prepend(QChar(u'0' + static_cast<char16_t>(static_cast<int>(style) * 4 + cells)));
    if (auto it = m_clusterCache.find(key); it != m_clusterCache.end())
        return it->second == &kBlank ? nullptr : it->second;
    const GlyphEntry* entry = place(m_rasterizer.rasterize(text, style, cells));
    if (entry == nullptr)
        return nullptr;
    m_clusterCache[key] = entry;
    return entry == &kBlank ? nullptr : entry;
}

const GlyphEntry* GlyphCache::decoration(DecorationSprite sprite) {
    const uint64_t key = decorationKey(sprite);
    if (auto it = m_customGlyphCache.find(key); it != m_customGlyphCache.end())
        return it->second == &kBlank ? nullptr : it->second;
    const GlyphEntry* entry = place(drawDecoration(sprite, m_fonts.metrics()));
    if (entry == nullptr)
        return nullptr;
    m_customGlyphCache[key] = entry;
    return entry == &kBlank ? nullptr : entry;
}

void GlyphCache::beginFrame() {
    m_gray.beginFrame();
    m_color.beginFrame();
}

void GlyphCache::freeze() {
    m_gray.freeze();
    m_color.freeze();
}

bool GlyphCache::takeDidReset() {
    const bool was = m_didReset;
    m_didReset = false;
    return was;
}

void GlyphCache::clearCaches() {
    for (auto& perStyle : m_asciiKnown)
        perStyle.fill(false);
    m_glyphCache.clear();
    m_customGlyphCache.clear();
    m_clusterCache.clear();
    m_entries.clear();
}

} // namespace termkit
