#pragma once
// Who may draw a frame now, and what happens when frames cannot be drawn.

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "Termkit/view/render/FrameScheduling.h"
#include "Termkit/view/render/RendererStatus.h"

namespace termkit {

/// Hands out one frame at a time. A frame `begin`s with a token; the renderer either
/// `refuse`s it (the device gave it nothing to draw with) or `didSubmit`s it and later
/// `complete`s it when the frame was shown. Refusals other than `activeFrame` start a
/// failure episode: the draw is retried after each delay of a fixed, growing list, and an
/// episode that lasts past `failureRecoveryAfter` asks the host once for a new renderer.
/// A submitted frame that never completes is given up after `frameWatchdog`.
///
/// Thread-safe: frames are built on the render thread while the host lives on the main
/// thread. Callbacks run without the lock held.
class FrameCoordinator {
public:
    /// Delays between retries of a refused frame; the last repeats.
    static constexpr std::array<std::chrono::milliseconds, 6> kRetryDelays{
        std::chrono::milliseconds(16),  std::chrono::milliseconds(33),  std::chrono::milliseconds(66),
        std::chrono::milliseconds(133), std::chrono::milliseconds(250), std::chrono::milliseconds(500)};
    /// How long a submitted frame may take before it counts as lost.
    static constexpr std::chrono::milliseconds kFrameWatchdog{2000};
    /// How long frames may keep failing before the renderer is replaced.
    static constexpr std::chrono::milliseconds kFailureRecoveryAfter{3000};

    struct Token {
        uint64_t value = 0;
        bool operator==(const Token&) const = default;
    };

    struct Timing {
        std::array<std::chrono::milliseconds, 6> retryDelays = kRetryDelays;
        std::chrono::milliseconds frameWatchdog = kFrameWatchdog;
        std::chrono::milliseconds failureRecoveryAfter = kFailureRecoveryAfter;
    };

    struct Callbacks {
        /// Whether the view can still draw (it has a window and is shown); no retry otherwise.
        std::function<bool()> isRetryEligible;
        /// Asks the view for a new frame (main thread).
        std::function<void()> requestDraw;
        /// Asks the host for a new renderer, once per failure episode (main thread).
        std::function<void(const RendererRecoveryReport&)> requestRecovery;
        /// The coordinator has no frame on its way any more.
        std::function<void()> becameIdle;
    };

    FrameCoordinator(const FrameClock& clock, FrameScheduler& scheduler, Callbacks callbacks);
    FrameCoordinator(const FrameClock& clock, FrameScheduler& scheduler, Callbacks callbacks, Timing timing);
    ~FrameCoordinator();
    FrameCoordinator(const FrameCoordinator&) = delete;
    FrameCoordinator& operator=(const FrameCoordinator&) = delete;

    /// A token for a new frame, or the refusal `activeFrame` while one is on its way or after
    /// `invalidate`.
    std::variant<Token, FrameRefusalReason> begin();
    /// The renderer could not draw the frame of this token.
    void refuse(Token token, FrameRefusalReason reason);
    /// The frame of this token went to the device.
    void didSubmit(Token token);
    /// The frame of this token finished: shown, or failed with an error.
    void complete(Token token, TrackedCommandBufferStatus status, std::optional<std::string> error = {});
    /// Ends the coordinator's life: every timer is cancelled and every token goes stale.
    void invalidate();

    // Observation, for the host's status and for tests.
    bool hasActiveFrame() const;
    bool inFailureEpisode() const;
    bool failureRecoveryRequested() const;
    size_t retryIndex() const;
    bool retryPending() const;
    std::optional<FrameRefusalReason> lastFailureReason() const;
    bool invalidated() const;

private:
    using Actions = std::vector<std::function<void()>>;
    bool isCurrentLocked(Token token) const;
    // A frame failed: the failure is noted, an episode starts if none runs, a retry is planned.
    void failLocked(std::optional<FrameRefusalReason> reason, TrackedCommandBufferStatus status,
                    std::optional<std::string> error, bool eligible);
    void scheduleRetryLocked(bool eligible);
    void startFailureEpisodeLocked();
    void resetFailureEpisodeLocked();
    void cancelFrameWatchdogLocked();
    void frameWatchdogFired(Token token);
    void failureWatchdogFired(uint64_t episode);
    void retryFired(FrameScheduler::Task task);
    static void run(const Actions& actions);

    mutable std::mutex m_lock;
    const FrameClock& m_clock;
    FrameScheduler& m_scheduler;
    Callbacks m_callbacks;
    Timing m_timing;
    uint64_t m_nextToken = 1;
    std::optional<Token> m_activeFrame;
    TrackedCommandBufferStatus m_activeStatus = TrackedCommandBufferStatus::notEnqueued;
    size_t m_retryIndex = 0;
    std::optional<FrameScheduler::Task> m_retryTask;
    std::optional<std::chrono::nanoseconds> m_failureStartedAt;
    std::optional<FrameRefusalReason> m_lastFailureReason;
    TrackedCommandBufferStatus m_lastStatus = TrackedCommandBufferStatus::notEnqueued;
    std::optional<std::string> m_lastError;
    std::optional<FrameScheduler::Task> m_failureWatchdog;
    std::optional<FrameScheduler::Task> m_frameWatchdog;
    // Counts episodes, so that a watchdog of an episode that ended does nothing.
    uint64_t m_episode = 0;
    bool m_failureRecoveryRequested = false;
    bool m_invalidated = false;
};

} // namespace termkit
