#pragma once
// The small records shared by the glyph atlas, the rasteriser and the renderer.

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace termkit {

/// How many bytes one atlas pixel takes: coverage only, or premultiplied colour.
enum class GlyphAtlasFormat : uint8_t { grayscale, bgra };
/// Which of the renderer's two atlases a glyph lives in.
enum class GlyphAtlasKind : uint8_t { grayscale, color };

/// Bytes per pixel of a format.
constexpr int bytesPerPixel(GlyphAtlasFormat format) {
    return format == GlyphAtlasFormat::grayscale ? 1 : 4;
}
/// The name an atlas of that kind goes by in log lines.
constexpr const char* atlasName(GlyphAtlasKind kind) {
    return kind == GlyphAtlasKind::grayscale ? "grayscale" : "color";
}

/// A rectangle of atlas texels.
struct AtlasRegion {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    bool operator==(const AtlasRegion&) const = default;
};

/// A font glyph as the rasteriser knows it.
struct GlyphKey {
    std::string fontName;
    double size = 0;
    uint32_t glyph = 0;
    bool operator==(const GlyphKey&) const = default;
};

/// A glyph drawn by geometry rather than taken from a font: the same code point looks
/// different in every cell size and line thickness.
struct CustomGlyphKey {
    char32_t codePoint = 0;
    int cellWidthPx = 0;
    int cellHeightPx = 0;
    int baseThicknessPx = 1;
    double scale = 1;
    bool antiAlias = true;
    bool operator==(const CustomGlyphKey&) const = default;
};

/// Pixels of one glyph before they go into an atlas. The bearing is the offset of the
/// bitmap's top-left corner from the top-left corner of its cell (x right, y down), in
/// pixels: the rasteriser knows where the baseline sits in a cell, the renderer need not.
struct GlyphBitmap {
    int width = 0;
    int height = 0;
    int bearingX = 0;
    int bearingY = 0;
    /// Row-major, `width * height` bytes of coverage, or four bytes a pixel (premultiplied
    /// B, G, R, A) when `isColor`.
    std::vector<uint8_t> pixels;
    bool isColor = false;

    bool empty() const { return width <= 0 || height <= 0; }
};

/// Where a glyph was put and how it is placed in its cell.
struct GlyphEntry {
    AtlasRegion region;
    int width = 0;
    int height = 0;
    int bearingX = 0;
    int bearingY = 0;
    bool isColor = false;
    GlyphAtlasKind atlasKind = GlyphAtlasKind::grayscale;
    /// The atlas generation the region belongs to; a reset makes it stale.
    uint64_t atlasGeneration = 0;
};

struct GlyphKeyHash {
    size_t operator()(const GlyphKey& key) const {
        return std::hash<std::string>()(key.fontName) ^ (std::hash<double>()(key.size) << 1) ^
               (std::hash<uint32_t>()(key.glyph) << 2);
    }
};

struct CustomGlyphKeyHash {
    size_t operator()(const CustomGlyphKey& key) const {
        size_t h = std::hash<char32_t>()(key.codePoint);
        h = h * 31 + static_cast<size_t>(key.cellWidthPx);
        h = h * 31 + static_cast<size_t>(key.cellHeightPx);
        h = h * 31 + static_cast<size_t>(key.baseThicknessPx);
        h = h * 31 + std::hash<double>()(key.scale);
        return h * 2 + (key.antiAlias ? 1 : 0);
    }
};

} // namespace termkit
