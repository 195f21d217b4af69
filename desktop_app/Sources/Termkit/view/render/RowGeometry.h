#pragma once
// What one built row draws, in device pixels of the whole view.

#include <cstdint>
#include <vector>

namespace termkit {

/// A filled rectangle: a background run, an underline, a strike-through, the caret.
struct ColorRect {
    float x0 = 0;
    float y0 = 0;
    float x1 = 0;
    float y1 = 0;
    uint32_t argb = 0;
};

/// A glyph's rectangle on screen and in its atlas (texels). Grayscale glyphs are tinted with
/// `argb`; colour glyphs use only its alpha.
struct GlyphQuad {
    float x0 = 0;
    float y0 = 0;
    float x1 = 0;
    float y1 = 0;
    uint16_t u0 = 0;
    uint16_t v0 = 0;
    uint16_t u1 = 0;
    uint16_t v1 = 0;
    uint32_t argb = 0;
};

/// Everything one row draws, in the order it is drawn: backgrounds, glyphs (grayscale then
/// colour), then decorations over the glyphs.
struct RowGeometry {
    std::vector<ColorRect> backgrounds;
    std::vector<GlyphQuad> gray;
    std::vector<GlyphQuad> color;
    std::vector<ColorRect> decorations;
    /// Wavy, dotted and dashed underlines: sprites of the grayscale atlas drawn last.
    std::vector<GlyphQuad> decorationSprites;
    /// The row has blinking cells, built in this phase of the blink.
    bool hasBlink = false;
    bool blinkShown = true;
    /// A full atlas refused some of its glyphs: built again in the next frame.
    bool incomplete = false;

    void clear() {
        backgrounds.clear();
        gray.clear();
        color.clear();
        decorations.clear();
        decorationSprites.clear();
        hasBlink = false;
        blinkShown = true;
        incomplete = false;
    }
};

} // namespace termkit
