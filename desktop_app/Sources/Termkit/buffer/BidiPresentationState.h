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

} // namespace termkit
