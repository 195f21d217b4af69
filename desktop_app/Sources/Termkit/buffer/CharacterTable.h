#pragma once
// Codes for characters that do not fit a cell's code directly.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Termkit/buffer/Utf8.h"

namespace termkit {

/// Maps grapheme clusters (as UTF-8) to cell codes and back. A single scalar below 0x10000
/// is its own code and CR LF is 10; anything else gets an index above 0x400000 on first use.
/// The tables never shrink. Clusters are kept back to back in one arena and found through
/// an open-addressing index split like a Swiss table: one control byte per slot (8 hash
/// bits, or empty) scanned sixteen at a time, and the cluster indexes beside it. A cluster
/// seen for the first time, the common case with text full of combining marks, is then
/// ruled out by reading control bytes only, which stay small enough for the CPU's cache.
class CharacterTable {
public:
    /// First code handed out for a cluster.
    static constexpr int32_t kFirstIndex = 0x400001;

    CharacterTable();

    /// The code of a cluster given as UTF-8.
    int32_t code(std::string_view cluster);
    /// The code of a single scalar; scalars beyond the basic plane go through the table.
    int32_t code(char32_t scalar) {
        if (scalar < 0x10000)
            return static_cast<int32_t>(scalar);
        return astralCode(scalar);
    }
    /// The cluster of a code as UTF-8: a space for a code that is no valid scalar or unknown.
    std::string character(int32_t code) const;
    /// Appends the cluster of a code to `out` (same rules as `character`).
    void appendCharacter(int32_t code, std::string& out) const;
    /// The stored cluster of a table code, or an empty view for other codes.
    std::string_view stored(int32_t code) const;
    /// Number of clusters stored.
    size_t size() const { return m_offsets.size() - 1; }
    /// Number of stored clusters of more than one scalar (the rest are scalars beyond the
    /// basic plane): while there are none, no cell's text holds more than one character.
    size_t multiScalarCount() const { return m_multiScalarCount; }
    /// The code the next new cluster will get.
    int32_t lastCharIndex() const { return kFirstIndex + static_cast<int32_t>(size()); }

private:
    int32_t astralCode(char32_t scalar);
    // The code of a known cluster, or -1 and the slot a new one takes.
    int32_t find(std::string_view cluster, uint32_t hash, size_t& freeSlot) const;
    int32_t store(std::string_view cluster, uint32_t hash, size_t freeSlot);
    void place(uint32_t index, uint32_t hash);
    void rehash(size_t slots);

    // indexToCharMap: cluster i is m_arena[m_offsets[i], m_offsets[i + 1]); the arena's
    // size is its capacity, the last offset how much of it is used.
    std::vector<char> m_arena;
    std::vector<uint32_t> m_offsets;
    std::vector<uint32_t> m_hashes; // each cluster's hash, so that growing never rereads the arena
    // charToIndexMap: slots in groups of 16. A control byte is kEmpty or the low 8 bits of the
    // hash (0x81 standing in for kEmpty's value); the probe starts at the group the bits above
    // them name and moves on group by group.
    static constexpr uint8_t kEmpty = 0x80;
    std::vector<uint8_t> m_control;
    std::vector<uint32_t> m_slotIndex; // the cluster index of each full slot
    // Single scalars beyond the basic plane, cached without touching the arena.
    std::vector<std::pair<char32_t, int32_t>> m_astral;
    size_t m_multiScalarCount = 0;
};

} // namespace termkit
