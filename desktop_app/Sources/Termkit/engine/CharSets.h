#pragma once
// The 7-bit character sets a program can designate: DEC special graphics and the national
// replacement sets.

#include <array>
#include <cstdint>
#include <optional>

namespace termkit {

/// Replacement characters for ASCII bytes; 0 leaves a byte as it is.
struct CharSet {
    std::array<char32_t, 128> map{};
    /// The replacement for a byte below 127, or 0.
    char32_t lookup(uint8_t byte) const { return byte < 127 ? map[byte] : 0; }
};

/// The known sets by designating final byte.
struct CharSets {
    /// Whether `final` names a set; `set` is then that set, nullptr meaning US-ASCII.
    static bool find(uint8_t final, const CharSet*& set);
    /// DEC special graphics (line drawing), final `0`.
    static const CharSet& decSpecialGraphics();
};

} // namespace termkit
