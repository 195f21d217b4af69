#pragma once
// Column widths and the joining properties of Unicode scalars, from ICU data.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace termkit {

/// Widths and joining rules of scalars. The packed table is filled from ICU one block of 256
/// scalars at a time, on first use of the block, so a process pays only for the scripts it
/// meets; blocks are shared by all terminals and published with release/acquire.
class UnicodeUtil {
public:
    /// An inclusive range of scalars.
    struct LH {
        char32_t lo;
        char32_t hi;
    };

    /// Properties packed per scalar for the print path.
    enum InfoBits : uint8_t {
        kWidthMask = 0x03, // width + 1: 0 means -1 (not printable), 1 means 0, 2 one, 3 two
        kJoins = 0x04,     // joins the cell before by itself (marks, selectors, ZWJ, skin tones)
        kRegionalIndicator = 0x08,
        kEmojiVariationBase = 0x10, // takes U+FE0E and U+FE0F
        kPrefersText = 0x20,        // an emoji whose default presentation is text
        kExtendsCluster = 0x40,     // grapheme break class Extend, ZWJ or SpacingMark: never starts a cluster
    };

    static constexpr char32_t kZeroWidthJoiner = 0x200D;
    static constexpr char32_t kTextSelector = 0xFE0E;
    static constexpr char32_t kEmojiSelector = 0xFE0F;

    /// Column width by the rules: -1 for controls, 0 for marks and formats, 2 for East Asian
    /// wide and fullwidth scalars and regional indicators, else 1. Computed from ICU.
    static int computeColumnWidth(char32_t rune);
    /// The same widths for every scalar below 0x2000, as a table.
    static const std::array<int8_t, 8192>& lowPlaneWidths();
    /// Whether `rune` lies in one of the first `max` + 1 sorted ranges of `table`.
    static bool bisearch(char32_t rune, const LH* table, int max);
    /// The East Asian wide and fullwidth ranges.
    static const std::vector<LH>& eastAsianWideRanges();
    /// An emoji that is shown as text unless U+FE0F follows.
    static bool prefersTextPresentation(char32_t rune) { return (info(rune) & kPrefersText) != 0; }
    /// The width a scalar takes when shown in its text presentation.
    static int textPresentationAdjusted(char32_t rune, int width) {
        return prefersTextPresentation(rune) ? 1 : width;
    }

    /// The packed properties of a scalar (two table reads once its block is built).
    static uint8_t info(char32_t rune) {
        if (rune > 0x10FFFF)
            return 0;
        const uint8_t* block = s_blocks[rune >> 8].load(std::memory_order_acquire);
        if (block == nullptr) [[unlikely]]
            block = buildBlock(rune >> 8);
        return block[rune & 0xFF];
    }
    /// The width of a basic-plane scalar that is printed alone: 1 or 2 for one that joins
    /// nothing, is no flag letter and is no surrogate; 0 for anything else, and for a scalar
    /// whose block is not built yet (the general path then builds it through `info`). Two
    /// bits per scalar, 16 KiB for the plane, so the text of a few scripts stays in the
    /// first-level cache and a lookup is one load. Printable ASCII is known from the start.
    static unsigned plainWidth(char32_t rune) {
        const uint8_t packed =
            std::atomic_ref<uint8_t>(s_plainWidths[(rune >> 2) & 0x3FFF]).load(std::memory_order_relaxed);
        return (packed >> ((rune & 3) * 2)) & 3;
    }
    /// Width from the packed properties.
    static int width(char32_t rune) { return (info(rune) & kWidthMask) - 1; }
    static bool isRegionalIndicator(char32_t rune) { return rune >= 0x1F1E6 && rune <= 0x1F1FF; }
    static bool isEmojiVariationBase(char32_t rune) { return (info(rune) & kEmojiVariationBase) != 0; }
    /// True when no grapheme cluster boundary falls between the scalars `before` (one
    /// cluster, at least one scalar) and `next`.
    static bool continuesCluster(const char32_t* before, int count, char32_t next);

private:
    static constexpr std::size_t kBlockCount = 0x110000 >> 8;
    static const uint8_t* buildBlock(uint32_t block);
    inline static std::array<std::atomic<const uint8_t*>, kBlockCount> s_blocks{};
    static constexpr std::array<uint8_t, 0x4000> initialPlainWidths() {
        std::array<uint8_t, 0x4000> out{};
        for (unsigned c = 0x20; c < 0x7F; ++c)
            out[c >> 2] = static_cast<uint8_t>(out[c >> 2] | 1u << ((c & 3) * 2));
        return out;
    }
    // Written only under the block builder's lock, and each block owns its bytes; read with
    // relaxed loads, since an entry carries no data beside itself.
    alignas(64) inline static std::array<uint8_t, 0x4000> s_plainWidths = initialPlainWidths();
};

} // namespace termkit
