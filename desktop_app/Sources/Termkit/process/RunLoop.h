#pragma once
// A serial executor for hosts without an event loop of their own: tools, benchmarks, tests.

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

#include "Termkit/process/SerialExecutor.h"

namespace termkit {

/// Posted work runs on whichever thread calls `run`, `runOne` or `runUntil`: by convention
/// one thread, which then plays the part of the host's main thread.
class RunLoop : public SerialExecutor {
public:
    using Clock = std::chrono::steady_clock;

    /// `mainQueue` says whether the running thread counts as the host's main thread.
    explicit RunLoop(bool mainQueue = true) : m_mainQueue(mainQueue) {}

    void post(std::function<void()> work) override;
    bool isMainQueue() const override { return m_mainQueue; }

    /// Runs the oldest item, waiting up to `timeout` for one; false when none came.
    bool runOne(std::chrono::milliseconds timeout = std::chrono::milliseconds{0});
    /// Runs items until `done` holds (checked before each item) or `timeout` passes; returns `done()`.
    bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);
    /// Runs items until `quit` is called.
    void run();
    /// Makes `run` return after the item in progress; may be called from any thread.
    void quit();
    /// Items posted and not yet run.
    size_t pendingCount() const;

private:
    bool m_mainQueue;
    mutable std::mutex m_lock;
    std::condition_variable m_posted;
    std::deque<std::function<void()>> m_queue;
    bool m_quit = false;
};

} // namespace termkit
