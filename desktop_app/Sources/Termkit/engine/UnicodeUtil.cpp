#include "Termkit/engine/UnicodeUtil.h"

#include <unicode/uchar.h>
#include <unicode/ucpmap.h>
#include <unicode/uset.h>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>

namespace termkit {

namespace {

constexpr char32_t kMaxScalar = 0x10FFFF;

bool isWideByIcu(char32_t c) {
    const int eaw = u_getIntPropertyValue(static_cast<UChar32>(c), UCHAR_EAST_ASIAN_WIDTH);
    return eaw == U_EA_WIDE || eaw == U_EA_FULLWIDTH;
}

// The width rules, given the general category and East Asian width of a scalar.
int widthByRules(char32_t c, int category, bool wide) {
    if (c == 0)
        return 0;
    if (c < 32 || (c >= 127 && c < 160))
        return -1;
    if (c < 127)
        return 1;
    switch (category) {
    case U_NON_SPACING_MARK:
    case U_COMBINING_SPACING_MARK:
    case U_ENCLOSING_MARK:
        return 0;
    case U_MODIFIER_SYMBOL:
        if (c >= 0x1F3FB && c <= 0x1F3FF)
            return 0;
        if (c == 0xFF3E || c == 0xFFE3 || c == 0xFF40)
            return 2;
        break;
    case U_LINE_SEPARATOR:
    case U_PARAGRAPH_SEPARATOR:
        return 0;
    case U_FORMAT_CHAR:
        return c == 0xAD ? 1 : 0;
    default:
        break;
    }
    if ((c >= 0x1160 && c <= 0x11FF) || (c >= 0xD7B0 && c <= 0xD7FF))
        return 0;
    if (c >= 0x1F1E6 && c <= 0x1F1FF)
        return 2;
    return wide ? 2 : 1;
}

bool joinsBySelf(char32_t c, int width, bool combiningClassNonZero) {
    if (width == 0)
        return true;
    if (c == UnicodeUtil::kZeroWidthJoiner)
        return true;
    if ((c >= 0xFE00 && c <= 0xFE0F) || (c >= 0xE0100 && c <= 0xE01EF))
        return true;
    if ((c >= 0x180B && c <= 0x180D) || c == 0x180F)
        return true;
    if (c >= 0x1F3FB && c <= 0x1F3FF)
        return true;
    return c >= 0x300 && combiningClassNonZero;
}

} // namespace

int UnicodeUtil::computeColumnWidth(char32_t rune) {
    if (rune > kMaxScalar)
        return 1;
    return widthByRules(rune, u_charType(static_cast<UChar32>(rune)), isWideByIcu(rune));
}

bool UnicodeUtil::bisearch(char32_t rune, const LH* table, int max) {
    if (max < 0 || rune < table[0].lo || rune > table[max].hi)
        return false;
    int lo = 0;
    int hi = max;
    while (hi >= lo) {
        const int mid = (lo + hi) / 2;
        if (rune > table[mid].hi) {
            lo = mid + 1;
        } else if (rune < table[mid].lo) {
            hi = mid - 1;
        } else {
            return true;
        }
    }
    return false;
}

const std::vector<UnicodeUtil::LH>& UnicodeUtil::eastAsianWideRanges() {
    static const std::vector<LH> ranges = [] {
        std::vector<LH> out;
        UErrorCode status = U_ZERO_ERROR;
        const UCPMap* map = u_getIntPropertyMap(UCHAR_EAST_ASIAN_WIDTH, &status);
        UChar32 start = 0;
        uint32_t value = 0;
        while (start <= static_cast<UChar32>(kMaxScalar)) {
            const UChar32 end = ucpmap_getRange(map, start, UCPMAP_RANGE_NORMAL, 0, nullptr, nullptr, &value);
            if (end < 0)
                break;
            if (value == U_EA_WIDE || value == U_EA_FULLWIDTH) {
                if (!out.empty() && out.back().hi + 1 == static_cast<char32_t>(start)) {
                    out.back().hi = static_cast<char32_t>(end);
                } else {
                    out.push_back({static_cast<char32_t>(start), static_cast<char32_t>(end)});
                }
            }
            start = end + 1;
        }
        return out;
    }();
    return ranges;
}

const std::array<int8_t, 8192>& UnicodeUtil::lowPlaneWidths() {
    static const std::array<int8_t, 8192> widths = [] {
        std::array<int8_t, 8192> out{};
        const auto& wide = eastAsianWideRanges();
        for (char32_t c = 0; c < 8192; ++c) {
            // Nothing below U+1100 is wide, so the range table is only consulted from there on.
            const bool isWide = c >= 0x1100 && bisearch(c, wide.data(), static_cast<int>(wide.size()) - 1);
            out[c] = static_cast<int8_t>(widthByRules(c, u_charType(static_cast<UChar32>(c)), isWide));
        }
        return out;
    }();
    return widths;
}

const uint8_t* UnicodeUtil::buildBlock(uint32_t block) {
    static std::mutex lock;
    // Identical blocks (unassigned ranges, ideographs) share one copy.
    static std::map<std::array<uint8_t, 256>, std::unique_ptr<std::array<uint8_t, 256>>> unique;
    std::lock_guard<std::mutex> guard(lock);
    if (const uint8_t* built = s_blocks[block].load(std::memory_order_acquire))
        return built;
    std::array<uint8_t, 256> info{};
    for (uint32_t k = 0; k < 256; ++k) {
        const auto c = static_cast<char32_t>(block << 8 | k);
        const auto u = static_cast<UChar32>(c);
        const int w = widthByRules(c, u_charType(u), isWideByIcu(c));
        uint8_t v = static_cast<uint8_t>(w + 1);
        if (joinsBySelf(c, w, u_getCombiningClass(u) != 0))
            v |= kJoins;
        if (isRegionalIndicator(c))
            v |= kRegionalIndicator;
        const bool emoji = u_hasBinaryProperty(u, UCHAR_EMOJI);
        // Emoji that take a presentation selector; skin tones and flag letters do not.
        if (emoji && !u_hasBinaryProperty(u, UCHAR_EMOJI_MODIFIER) && !isRegionalIndicator(c))
            v |= kEmojiVariationBase;
        if (emoji && !u_hasBinaryProperty(u, UCHAR_EMOJI_PRESENTATION))
            v |= kPrefersText;
        const int gcb = u_getIntPropertyValue(u, UCHAR_GRAPHEME_CLUSTER_BREAK);
        if (gcb == U_GCB_EXTEND || gcb == U_GCB_ZWJ || gcb == U_GCB_SPACING_MARK)
            v |= kExtendsCluster;
        info[k] = v;
        if (c < 0x10000) {
            // What the print path's word loop may write without asking more.
            const bool surrogate = c >= 0xD800 && c <= 0xDFFF;
            const unsigned plain = (v & (kJoins | kRegionalIndicator)) == 0 && w > 0 && !surrogate ? w : 0;
            std::atomic_ref<uint8_t> packed(s_plainWidths[c >> 2]);
            const unsigned shift = (c & 3) * 2;
            packed.store(static_cast<uint8_t>((packed.load(std::memory_order_relaxed) & ~(3u << shift)) |
                                              plain << shift),
                         std::memory_order_relaxed);
        }
    }
    auto& stored = unique[info];
    if (!stored)
        stored = std::make_unique<std::array<uint8_t, 256>>(info);
    s_blocks[block].store(stored->data(), std::memory_order_release);
    return stored->data();
}

namespace {

int gcb(char32_t c) {
    return u_getIntPropertyValue(static_cast<UChar32>(c), UCHAR_GRAPHEME_CLUSTER_BREAK);
}
bool extendedPictographic(char32_t c) {
    return u_hasBinaryProperty(static_cast<UChar32>(c), UCHAR_EXTENDED_PICTOGRAPHIC);
}

bool isControlLike(int g) {
    return g == U_GCB_CONTROL || g == U_GCB_CR || g == U_GCB_LF;
}

} // namespace

bool UnicodeUtil::continuesCluster(const char32_t* before, int count, char32_t next) {
    if (count <= 0)
        return false;
    const int gp = gcb(before[count - 1]);
    const int gn = gcb(next);
    if (gp == U_GCB_CR && gn == U_GCB_LF)
        return true;
    if (isControlLike(gp) || isControlLike(gn))
        return false;
    if (gp == U_GCB_L && (gn == U_GCB_L || gn == U_GCB_V || gn == U_GCB_LV || gn == U_GCB_LVT))
        return true;
    if ((gp == U_GCB_LV || gp == U_GCB_V) && (gn == U_GCB_V || gn == U_GCB_T))
        return true;
    if ((gp == U_GCB_LVT || gp == U_GCB_T) && gn == U_GCB_T)
        return true;
    if (gn == U_GCB_EXTEND || gn == U_GCB_ZWJ || gn == U_GCB_SPACING_MARK)
        return true;
    if (gp == U_GCB_PREPEND)
        return true;
    if (gp == U_GCB_ZWJ && extendedPictographic(next)) {
        // An emoji, any extenders, a joiner: the next pictograph belongs to the same cluster.
        int i = count - 2;
        while (i >= 0 && gcb(before[i]) == U_GCB_EXTEND)
            --i;
        if (i >= 0 && extendedPictographic(before[i]))
            return true;
    }
    if (gp == U_GCB_REGIONAL_INDICATOR && gn == U_GCB_REGIONAL_INDICATOR) {
        // Indicators pair up from the start of the run: join only after an odd count.
        int run = 0;
        for (int i = count - 1; i >= 0 && gcb(before[i]) == U_GCB_REGIONAL_INDICATOR; --i)
            ++run;
        return run % 2 == 1;
    }
    return false;
}

} // namespace termkit
