#include "Termkit/buffer/CharacterTable.h"

#include <algorithm>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "Termkit/buffer/CharData.h"

namespace termkit {

namespace {

constexpr size_t kGroupSize = 16;
constexpr size_t kInitialSlots = 1024;

// Copies `from` (between one and two words long) to `to` as its first and its last word,
// which overlap when it is shorter than two words.
template <class Word> void copyAsTwoWords(std::string_view from, char* to) {
    Word head;
    Word tail;
    std::memcpy(&head, from.data(), sizeof(Word));
    std::memcpy(&tail, from.data() + from.size() - sizeof(Word), sizeof(Word));
    std::memcpy(to, &head, sizeof(Word));
    std::memcpy(to + from.size() - sizeof(Word), &tail, sizeof(Word));
}
constexpr size_t kAstralCacheSize = 512;

// Decodes a string that holds exactly one scalar; returns -1 otherwise.
int32_t singleScalar(std::string_view s) {
    if (s.empty())
        return -1;
    const auto b0 = static_cast<uint8_t>(s[0]);
    const size_t n = b0 < 0x80 ? 1 : b0 < 0xE0 ? 2 : b0 < 0xF0 ? 3 : 4;
    if (s.size() != n)
        return -1;
    if (n == 1)
        return b0;
    int32_t c = b0 & (0x7F >> n);
    for (size_t i = 1; i < n; ++i)
        c = c << 6 | (static_cast<uint8_t>(s[i]) & 0x3F);
    return c;
}

// Up to eight bytes of `s` from `at` as a word, read without a call: clusters are short.
inline uint64_t loadPartial(const char* s, size_t length) {
    uint64_t v = 0;
    if (length >= 4) {
        uint32_t lo;
        uint32_t hi;
        std::memcpy(&lo, s, 4);
        std::memcpy(&hi, s + length - 4, 4);
        // The two halves overlap for fewer than eight bytes; the length is hashed as well.
        v = lo | static_cast<uint64_t>(hi) << 32;
    } else if (length > 0) {
        v = static_cast<uint8_t>(s[0]) | static_cast<uint64_t>(static_cast<uint8_t>(s[length / 2])) << 8 |
            static_cast<uint64_t>(static_cast<uint8_t>(s[length - 1])) << 16;
    }
    return v;
}

// A quick 64-bit hash for short byte strings.
uint64_t hashBytes(std::string_view s) {
    uint64_t h = 0x9E3779B97F4A7C15ull ^ s.size();
    size_t i = 0;
    for (; i + 8 <= s.size(); i += 8) {
        uint64_t v;
        std::memcpy(&v, s.data() + i, 8);
        h = (h ^ v) * 0xFF51AFD7ED558CCDull;
        h ^= h >> 32;
    }
    uint64_t tail = 0;
    std::memcpy(&tail, s.data() + i, s.size() - i);
    h = (h ^ tail) * 0xC4CEB9FE1A85EC53ull;
    return h ^ (h >> 29);
}

// Whether two strings of the same length are equal; short ones without a library call.
inline bool sameBytes(const char* a, const char* b, size_t length) {
    if (length <= 8)
        return loadPartial(a, length) == loadPartial(b, length);
    if (length <= 16) {
        uint64_t a0, a1, b0, b1;
        std::memcpy(&a0, a, 8);
        std::memcpy(&b0, b, 8);
        std::memcpy(&a1, a + length - 8, 8);
        std::memcpy(&b1, b + length - 8, 8);
        return ((a0 ^ b0) | (a1 ^ b1)) == 0;
    }
    return std::memcmp(a, b, length) == 0;
}

// The control byte of a full slot: the low eight bits of the hash, any value but the empty
// marker. Eight bits rather than seven halve the clusters compared in vain, each of them
// reads from memory the probe has not touched yet.
inline uint8_t tagOf(uint32_t hash) {
    const auto tag = static_cast<uint8_t>(hash);
    return tag == 0x80 ? 0x81 : tag;
}

// Bit i set where byte i of a group of 16 control bytes equals `value`.
uint32_t matchByte(const uint8_t* group, uint8_t value) {
#if defined(__SSE2__)
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(group));
    return static_cast<uint32_t>(
        _mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_set1_epi8(static_cast<char>(value)))));
#else
    uint32_t bits = 0;
    for (int i = 0; i < 16; ++i)
        bits |= uint32_t(group[i] == value) << i;
    return bits;
#endif
}

} // namespace

CharacterTable::CharacterTable()
    : m_offsets{0}, m_control(kInitialSlots, kEmpty), m_slotIndex(kInitialSlots),
      m_astral(kAstralCacheSize, {0, 0}) {
    static_assert(kEmpty == 0x80, "tagOf keeps full slots off the empty marker");
}

std::string_view CharacterTable::stored(int32_t code) const {
    const int64_t index = static_cast<int64_t>(code) - kFirstIndex;
    if (index < 0 || index >= static_cast<int64_t>(size()))
        return {};
    const auto i = static_cast<size_t>(index);
    return std::string_view(m_arena.data() + m_offsets[i], m_offsets[i + 1] - m_offsets[i]);
}

// Inlined into its callers: most clusters looked up are new, and the probe that rules one
// out is short enough for a call's spills to be a good part of it.
__attribute__((always_inline)) inline int32_t CharacterTable::find(std::string_view cluster, uint32_t hash,
                                                                   size_t& freeSlot) const {
    const size_t groupMask = m_control.size() / kGroupSize - 1;
    const uint8_t tag = tagOf(hash);
    const uint8_t* controls = m_control.data();
    const uint32_t* slotIndex = m_slotIndex.data();
    const uint32_t* offsets = m_offsets.data();
    for (size_t group = (hash >> 8) & groupMask;; group = (group + 1) & groupMask) {
        const uint8_t* control = controls + group * kGroupSize;
        for (uint32_t bits = matchByte(control, tag); bits != 0; bits &= bits - 1) {
            const uint32_t index = slotIndex[group * kGroupSize + static_cast<size_t>(__builtin_ctz(bits))];
            const uint32_t begin = offsets[index];
            if (offsets[index + 1] - begin == cluster.size() &&
                sameBytes(m_arena.data() + begin, cluster.data(), cluster.size()))
                return kFirstIndex + static_cast<int32_t>(index);
        }
        // A group with a free slot ends every probe that passed through it, and is where
        // the cluster goes when it is new.
        if (const uint32_t free = matchByte(control, kEmpty); free != 0) {
            freeSlot = group * kGroupSize + static_cast<size_t>(__builtin_ctz(free));
            return -1;
        }
    }
}

void CharacterTable::rehash(size_t slots) {
    m_control.assign(slots, kEmpty);
    m_slotIndex.assign(slots, 0);
    // Byte stores may alias anything, so the tables are held in locals for the loop: through
    // the members every control byte written would make the compiler reload them.
    uint8_t* controls = m_control.data();
    uint32_t* slotIndex = m_slotIndex.data();
    const uint32_t* hashes = m_hashes.data();
    const size_t groupMask = slots / kGroupSize - 1;
    const auto count = static_cast<uint32_t>(m_hashes.size());
    for (uint32_t index = 0; index < count; ++index) {
        const uint32_t hash = hashes[index];
        for (size_t group = (hash >> 8) & groupMask;; group = (group + 1) & groupMask) {
            const uint32_t free = matchByte(controls + group * kGroupSize, kEmpty);
            if (free == 0)
                continue;
            const size_t slot = group * kGroupSize + static_cast<size_t>(__builtin_ctz(free));
            controls[slot] = tagOf(hash);
            slotIndex[slot] = index;
            break;
        }
    }
}

int32_t CharacterTable::store(std::string_view cluster, uint32_t hash, size_t freeSlot) {
    const auto index = static_cast<uint32_t>(size());
    // The arena grows by doubling and is written with a plain copy.
    // Short clusters, nearly all of them, are copied as two overlapping words.
    const size_t used = m_offsets.back();
    if (used + cluster.size() > m_arena.size()) {
        m_arena.resize(std::max<size_t>(m_arena.size() * 2, used + cluster.size() + 4096));
    }
    char* to = m_arena.data() + used;
    if (cluster.size() >= 8 && cluster.size() <= 16) {
        copyAsTwoWords<uint64_t>(cluster, to);
    } else if (cluster.size() >= 4 && cluster.size() < 8) {
        copyAsTwoWords<uint32_t>(cluster, to);
    } else if (!cluster.empty() && cluster.size() < 4) {
        to[0] = cluster[0];
        to[cluster.size() / 2] = cluster[cluster.size() / 2];
        to[cluster.size() - 1] = cluster[cluster.size() - 1];
    } else {
        std::memcpy(to, cluster.data(), cluster.size());
    }
    m_offsets.push_back(static_cast<uint32_t>(used + cluster.size()));
    m_hashes.push_back(hash);
    // Full groups make probes long; past seven eighths the index doubles.
    if ((size() + 1) * 8 > m_control.size() * 7) {
        rehash(m_control.size() * 2);
    } else {
        // The probe that missed the cluster already found its slot.
        m_control[freeSlot] = tagOf(hash);
        m_slotIndex[freeSlot] = index;
    }
    return kFirstIndex + static_cast<int32_t>(index);
}

int32_t CharacterTable::astralCode(char32_t scalar) {
    auto& cached = m_astral[scalar % kAstralCacheSize];
    if (cached.first == scalar)
        return cached.second;
    std::string s;
    appendUtf8(scalar, s);
    const int32_t c = code(std::string_view(s));
    cached = {scalar, c};
    return c;
}

int32_t CharacterTable::code(std::string_view cluster) {
    if (cluster == "\r\n")
        return 10;
    const int32_t scalar = singleScalar(cluster);
    if (scalar >= 0 && scalar < 0x10000)
        return scalar;
    const auto hash = static_cast<uint32_t>(hashBytes(cluster) >> 32);
    size_t freeSlot = 0;
    const int32_t known = find(cluster, hash, freeSlot);
    if (known >= 0)
        return known;
    if (scalar < 0)
        ++m_multiScalarCount;
    return store(cluster, hash, freeSlot);
}

int32_t CharacterTable::clusterCode(std::string_view cluster) {
    const auto hash = static_cast<uint32_t>(hashBytes(cluster) >> 32);
    size_t freeSlot = 0;
    const int32_t known = find(cluster, hash, freeSlot);
    if (known >= 0)
        return known;
    ++m_multiScalarCount;
    return store(cluster, hash, freeSlot);
}

void CharacterTable::appendCharacter(int32_t code, std::string& out) const {
    if (code <= kCharacterTableBase) {
        const bool valid = code >= 0 && code <= 0x10FFFF && !(code >= 0xD800 && code <= 0xDFFF);
        appendUtf8(valid ? static_cast<char32_t>(code) : U' ', out);
        return;
    }
    const std::string_view s = stored(code);
    if (s.empty()) {
        out += ' ';
        return;
    }
    out += s;
}

std::string CharacterTable::character(int32_t code) const {
    std::string out;
    appendCharacter(code, out);
    return out;
}

} // namespace termkit
