#pragma once
// Small process-wide handles for cell payloads such as hyperlinks.

#include <any>
#include <cstdint>
#include <optional>
#include <span>

namespace termkit {

/// A 16-bit handle into one process-wide table from handle to value; 0 is no payload.
/// Handles are not reference counted: each terminal frees those it made once no line uses
/// them. Handles are handed out by a counter that never goes back, so a process has at most
/// 65534 of them over its life; after that `lookup` fails and cells go without.
struct TinyAtom {
    /// The highest handle ever handed out.
    static constexpr uint16_t kMaxCode = 65534;

    uint16_t code = 0;

    /// A new handle for `value`, or nothing when the counter is exhausted.
    static std::optional<TinyAtom> lookup(std::any value);
    /// The value behind a handle, or an empty value when there is none.
    static std::any target(uint16_t code);
    /// Removes the given handles from the table.
    static void release(std::span<const uint16_t> codes);
    /// Number of handles handed out so far in this process.
    static uint32_t issuedCount();

    constexpr bool operator==(const TinyAtom&) const = default;
};

} // namespace termkit
