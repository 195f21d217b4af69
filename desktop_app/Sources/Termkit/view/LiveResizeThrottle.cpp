#include "Termkit/view/LiveResizeThrottle.h"

#include <cctype>
#include <cstdlib>
#include <string>

namespace termkit {

namespace {

bool isFalse(const char* value) {
    std::string lower;
    for (const char* p = value; *p; ++p)
        lower += static_cast<char>(std::tolower(static_cast<unsigned char>(*p)));
    return lower == "false" || lower == "0" || lower == "no" || lower == "off";
}

} // namespace

bool liveResizeThrottleEnabled(const char* value, const char* legacyValue) {
    const char* chosen = value != nullptr ? value : legacyValue;
    return chosen == nullptr || !isFalse(chosen);
}

bool liveResizeThrottleEnabled() {
    return liveResizeThrottleEnabled(std::getenv("TERMKIT_LIVE_RESIZE_THROTTLE"),
                                     std::getenv("TERMKIT_METAL_LIVE_RESIZE_THROTTLE"));
}

} // namespace termkit
