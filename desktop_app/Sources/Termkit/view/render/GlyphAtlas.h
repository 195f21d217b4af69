#pragma once
// One texture of glyphs, packed in shelves, with a CPU copy of its pixels.

#include <algorithm>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

#include "Termkit/buffer/Log.h"
#include "Termkit/view/render/GlyphTypes.h"

namespace termkit {

/// A shelf packer over a square texture that grows by doubling up to `maxSize`, and when
/// even that is full starts again empty. The pixels are kept on the CPU (`data`), which is
/// what a grow copies from and what the renderer uploads whenever `revision` has moved.
///
/// Regions stay valid across growth, because vertices carry texel coordinates and the
/// shader divides by the atlas size; a reset invalidates every region (`generation` moves).
/// While `frozen` (the frame being built has already placed glyphs that a reset would pull
/// the ground from under) a full atlas refuses instead of resetting.
class GlyphAtlas {
public:
    /// No atlas is smaller, whatever it is asked to start at or limited to.
    static constexpr int kMinimumSize = 256;
    /// The limit on a device that reports no texture limit of its own.
    static constexpr int kDefaultDeviceCap = 8192;
    /// The largest atlas made, whatever the device allows.
    static constexpr int kLargestDeviceCap = 16384;
    /// Empty texels kept between neighbouring glyphs, so that filtering never bleeds.
    static constexpr int kPadding = 1;

    /// Asked for room for a texture of `size` by `size` pixels before a grow; false means the
    /// device could not make it. Empty: always succeeds (software drawing).
    using TextureAllocator = std::function<bool(int size)>;

    GlyphAtlas(GlyphAtlasKind kind, int size, int maxSize, TextureAllocator device = {}, LogSink log = {});

    /// The limit for a device: `TERMKIT_ATLAS_MAX` (a decimal integer with an optional sign,
    /// raised to at least `kMinimumSize`) capped by the device's largest texture (at most
    /// `kLargestDeviceCap`, `kDefaultDeviceCap` when unknown). `environmentValue` null means
    /// the variable is not set.
    static int recommendedMaxSize(std::optional<int> deviceMaxTextureSize, const char* environmentValue);
    /// The same, reading `TERMKIT_ATLAS_MAX` from the environment.
    static int recommendedMaxSize(std::optional<int> deviceMaxTextureSize);

    /// Places a rectangle on the current shelf or a new one below it; nothing when the
    /// texture has no room left at its present size. Nothing is changed on failure.
    std::optional<AtlasRegion> reserve(int width, int height);
    /// A region for a glyph: reserved, or after growing, or after a reset; nothing when the
    /// atlas is frozen and full (the glyph is skipped this frame) or the glyph is too large.
    std::optional<AtlasRegion> ensureRegion(int width, int height);
    /// Copies a bitmap into a region (its format must be the atlas's).
    void write(const AtlasRegion& region, const GlyphBitmap& bitmap);
    /// Doubles towards `newSize`, copying the pixels; false if the device refused.
    bool grow(int newSize);
    /// Empties the atlas and its pixels; every region handed out so far is invalid.
    void reset();

    /// A new limit, once the device is known; never below the present size, so that no
    /// region already handed out leaves the texture.
    void setMaxSize(int maxSize) { m_maxSize = std::max({maxSize, m_size, kMinimumSize}); }

    /// A new frame starts: nothing is frozen and no reset has happened in it yet.
    void beginFrame();
    void freeze() { m_frozen = true; }
    /// True once after a reset: the renderer must drop everything that holds regions.
    bool takeDidReset();

    GlyphAtlasKind kind() const { return m_kind; }
    GlyphAtlasFormat format() const { return m_format; }
    int bytesPerPixel() const { return m_bytesPerPixel; }
    int maxSize() const { return m_maxSize; }
    int size() const { return m_size; }
    const std::vector<uint8_t>& data() const { return m_data; }
    int nextX() const { return m_nextX; }
    int nextY() const { return m_nextY; }
    int rowHeight() const { return m_rowHeight; }
    bool didReset() const { return m_didReset; }
    bool frozen() const { return m_frozen; }
    /// Moves on every change of the pixels or the size: the texture needs an upload.
    uint64_t revision() const { return m_revision; }
    /// Moves on every reset: regions of an older generation are stale.
    uint64_t generation() const { return m_generation; }

private:
    void log(std::string_view line) const;

    GlyphAtlasKind m_kind;
    TextureAllocator m_device;
    GlyphAtlasFormat m_format;
    int m_bytesPerPixel;
    int m_maxSize;
    int m_size;
    std::vector<uint8_t> m_data;
    int m_nextX = 0;
    int m_nextY = 0;
    int m_rowHeight = 0;
    bool m_didReset = false;
    bool m_frozen = false;
    bool m_loggedFrozenMiss = false;
    bool m_loggedResetOverflow = false;
    uint64_t m_revision = 0;
    uint64_t m_generation = 0;
    LogSink m_log;
};

} // namespace termkit
