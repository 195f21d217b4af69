#pragma once
// Whether redraws during a live resize are throttled.

namespace termkit {

/// True unless `TERMKIT_LIVE_RESIZE_THROTTLE` (or the older `TERMKIT_METAL_LIVE_RESIZE_THROTTLE`)
/// is set to a false value: "false", "0", "no" or "off" in any case. The newer name wins
/// when both are set.
bool liveResizeThrottleEnabled();
/// The same rule applied to given values (null means unset).
bool liveResizeThrottleEnabled(const char* value, const char* legacyValue);

} // namespace termkit
