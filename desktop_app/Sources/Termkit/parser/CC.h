#pragma once
// Choice of the 7-bit or 8-bit form of the C1 introducers in replies.

namespace termkit {

/// Whether replies to the child use 8-bit C1 controls (0x9B) or their 7-bit forms (ESC [).
struct CC {
    bool send8bit = false;
};

} // namespace termkit
