#pragma once
// Glyphs placed in the two atlases, found again by character and style.

#include <QString>

#include <array>
#include <deque>
#include <memory>
#include <optional>
#include <unordered_map>

#include "Termkit/view/render/FontSet.h"
#include "Termkit/view/render/GlyphAtlas.h"
#include "Termkit/view/render/GlyphRasterizer.h"

namespace termkit {

/// Decorations drawn as repeating sprites, one cell wide.
enum class DecorationSprite : uint8_t { curly, dotted, dashed };

/// Finds or makes the atlas entry of a character in a style. Font glyphs and the geometric
/// ones (box drawing, blocks, powerline) share the atlases but have caches of their own;
/// both are emptied when an atlas resets, since every region they hold is then stale.
/// Lives on the thread that builds frames.
class GlyphCache {
public:
    /// The atlases start this large and grow as glyphs arrive.
    static constexpr int kInitialAtlasSize = 512;

    struct Options {
        int maxAtlasSize = GlyphAtlas::kDefaultDeviceCap;
        GlyphAtlas::TextureAllocator grayscaleDevice;
        GlyphAtlas::TextureAllocator colorDevice;
        bool customBlockGlyphs = true;
        bool antiAliasCustomBlockGlyphs = true;
        LogSink log;
    };

    GlyphCache(const FontSet& fonts, Options options);

    /// The entry for a scalar spanning `cells` cells; nullptr when it has no ink or when the
    /// atlas is frozen and full (the glyph is skipped this frame).
    const GlyphEntry* glyph(char32_t scalar, FontStyle style, int cells);
    /// The entry for a cluster of several scalars.
    const GlyphEntry* cluster(const QString& text, FontStyle style, int cells);
    /// A one-cell decoration sprite.
    const GlyphEntry* decoration(DecorationSprite sprite);

    /// A frame starts: the atlases may grow and reset again.
    void beginFrame();
    /// Freezes both atlases: the frame being built must not lose regions it already used.
    void freeze();
    /// True when an atlas reset since the last call; the caches were emptied, and every row
    /// built with older regions must be built again.
    bool takeDidReset();

    /// The limit of both atlases, from the device's largest texture (see `recommendedMaxSize`).
    void setMaxAtlasSize(int maxSize) {
        m_gray.setMaxSize(maxSize);
        m_color.setMaxSize(maxSize);
    }
    GlyphAtlas& grayscaleAtlas() { return m_gray; }
    GlyphAtlas& colorAtlas() { return m_color; }
    const FontSet& fonts() const { return m_fonts; }
    /// Entries made since the caches were last emptied.
    size_t entryCount() const { return m_entries.size(); }
    /// Glyphs refused by a frozen, full atlas so far: a row built while this moved is
    /// missing glyphs and must be built again in a later frame.
    uint64_t skippedCount() const { return m_skipped; }

private:
    const GlyphEntry* place(const GlyphBitmap& bitmap);
    const GlyphEntry* lookupOrMake(uint64_t key, const std::function<GlyphBitmap()>& draw);
    void clearCaches();
    static const GlyphEntry kBlank;

    const FontSet& m_fonts;
    GlyphRasterizer m_rasterizer;
    Options m_options;
    GlyphAtlas m_gray;
    GlyphAtlas m_color;
    // Entries in stable storage; the maps hold pointers into it (null for no ink).
    std::deque<GlyphEntry> m_entries;
    // Printable ASCII by style, the common case, without hashing.
    std::array<std::array<const GlyphEntry*, 128>, 4> m_ascii{};
    std::array<std::array<bool, 128>, 4> m_asciiKnown{};
    std::unordered_map<uint64_t, const GlyphEntry*> m_glyphCache;
    std::unordered_map<uint64_t, const GlyphEntry*> m_customGlyphCache;
    std::unordered_map<QString, const GlyphEntry*> m_clusterCache;
    bool m_didReset = false;
    uint64_t m_skipped = 0;
};

} // namespace termkit
