#pragma once
// Timers come from the host, so that the core depends on no event loop.

#include <chrono>
#include <cstdint>
#include <functional>

namespace termkit {

/// Runs an action once after a delay on the thread that feeds the terminal.
class TerminalScheduler {
public:
    using Token = uint64_t;
    virtual ~TerminalScheduler() = default;
    /// Schedules `action`; the token cancels it.
    virtual Token schedule(std::chrono::milliseconds delay, std::function<void()> action) = 0;
    /// Cancels a pending action; a token that already ran or is unknown is ignored.
    virtual void cancel(Token token) = 0;
};

} // namespace termkit
