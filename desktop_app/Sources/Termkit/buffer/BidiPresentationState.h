#pragma once
// Per-paragraph bidi settings carried by every line; the reordering itself lives elsewhere.

#include <cstdint>

namespace termkit {

/// Whether the terminal reorders right-to-left text or the application already has.
enum class BidiSupportMode : uint8_t { implicit, explicit_ };
/// Base direction of a paragraph.
enum class BidiDirection : uint8_t { leftToRight, rightToLeft };

/// The bidi settings a line was written under.
struct BidiPresentationState {
    BidiSupportMode supportMode = BidiSupportMode::implicit;
    bool autodetectDirection = true;
    BidiDirection fallbackDirection = BidiDirection::leftToRight;
    bool boxMirroring = false;
    constexpr bool operator==(const BidiPresentationState&) const = default;
};

/// Bits naming the fields of a `BidiPresentationState` that a change touches, so that a
/// sequence setting one of them leaves the others of a paragraph as they were.
inline constexpr unsigned kBidiSupportMode = 1;
inline constexpr unsigned kBidiAutodetect = 2;
inline constexpr unsigned kBidiFallback = 4;
inline constexpr unsigned kBidiMirroring = 8;
inline constexpr unsigned kBidiAllProperties = 0xF;

/// `target` with the fields that `properties` names taken from `source`.
constexpr BidiPresentationState
mergeBidiProperties(BidiPresentationState target, const BidiPresentationState& source, unsigned properties) {
    if (properties & kBidiSupportMode)
        target.supportMode = source.supportMode;
    if (properties & kBidiAutodetect)
        target.autodetectDirection = source.autodetectDirection;
    if (properties & kBidiFallback)
        target.fallbackDirection = source.fallbackDirection;
    if (properties & kBidiMirroring)
        target.boxMirroring = source.boxMirroring;
    return target;
}

} // namespace termkit
