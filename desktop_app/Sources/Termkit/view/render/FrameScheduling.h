#pragma once
// Time and timers for the frame coordinator, supplied by the host so tests can fake them.

#include <chrono>
#include <cstdint>
#include <functional>

namespace termkit {

/// A monotonic clock.
class FrameClock {
public:
    virtual ~FrameClock() = default;
    virtual std::chrono::nanoseconds now() const = 0;
};

/// Runs an action once after a delay, on the host's main thread. `schedule` and `cancel`
/// may be called from any thread (frames are built on the render thread).
class FrameScheduler {
public:
    using Task = uint64_t;
    virtual ~FrameScheduler() = default;
    virtual Task schedule(std::chrono::milliseconds delay, std::function<void()> action) = 0;
    /// Cancels a task that has not run; unknown or finished tasks are ignored.
    virtual void cancel(Task task) = 0;
};

/// The steady clock of the process.
class SteadyFrameClock : public FrameClock {
public:
    std::chrono::nanoseconds now() const override {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(
            std::chrono::steady_clock::now().time_since_epoch());
    }
};

} // namespace termkit
