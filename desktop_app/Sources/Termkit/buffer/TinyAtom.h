#pragma once
// Small per-terminal handles for cell payloads such as hyperlinks.

#include <any>
#include <cstdint>
#include <optional>
#include <span>
#include <unordered_map>

namespace termkit {

/// A 16-bit handle into a terminal's payload table; 0 is no payload.
struct TinyAtom {
    /// The most handles a table hands out over its life.
    static constexpr uint16_t kMaxCode = 65534;

    uint16_t code = 0;

    constexpr bool operator==(const TinyAtom&) const = default;
};

/// A terminal's table from handle to value. Handles are not reference counted: the terminal
/// frees those no line uses any more. They are handed out by a counter that never goes
/// back, so a table gives at most `capacity` of them over its life; after that `lookup`
/// fails and cells go without. The capacity is a parameter so that the exhausted state can
/// be reached cheaply.
class TinyAtomTable {
public:
    explicit TinyAtomTable(uint16_t capacity = TinyAtom::kMaxCode) : m_capacity(capacity) {}

    /// A new handle for `value`, or nothing when the counter is exhausted.
    std::optional<TinyAtom> lookup(std::any value);
    /// The value behind a handle, or an empty value when there is none.
    std::any target(uint16_t code) const;
    /// Removes the given handles from the table.
    void release(std::span<const uint16_t> codes);
    /// Number of handles handed out so far.
    uint32_t issuedCount() const { return m_counter; }
    uint16_t capacity() const { return m_capacity; }

private:
    std::unordered_map<uint16_t, std::any> m_values;
    uint32_t m_counter = 0;
    uint16_t m_capacity;
};

} // namespace termkit
