#pragma once
// What a host can read of the renderer's health, and the rules of automatic recovery.

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace termkit {

/// Why a frame could not be drawn. `activeFrame` is the ordinary case of a frame asked for
/// while the previous one is still on its way; the others mean the device gave nothing to
/// draw with.
enum class FrameRefusalReason : uint8_t {
    activeFrame,
    missingDrawable,
    missingRenderPassDescriptor,
    missingCommandBuffer,
    missingRenderEncoder,
};

/// How far the last submitted frame got.
enum class TrackedCommandBufferStatus : uint8_t {
    notEnqueued,
    enqueued,
    committed,
    scheduled,
    completed,
    error
};

/// What went wrong in a failure episode, handed to whoever replaces the renderer.
struct RendererRecoveryReport {
    /// The last refusal, or nothing when the episode is of frames that failed after submission.
    std::optional<FrameRefusalReason> reason;
    std::chrono::nanoseconds failureDuration{0};
    TrackedCommandBufferStatus commandBufferStatus = TrackedCommandBufferStatus::notEnqueued;
    std::optional<std::string> commandBufferError;
};

/// The renderer's state as a host sees it.
struct RendererStatus {
    enum class State : uint8_t {
        disabled,
        waitingForFirstFrame,
        healthy,
        recovering,
        fellBackToCoreGraphics
    };
    State state = State::disabled;
    uint64_t presentedFrameCount = 0;
    std::optional<std::chrono::nanoseconds> lastFramePresentedAt;

    /// The words a person sees for a state.
    static const char* describe(State state);
};

/// Whether a failed GPU renderer may be replaced by a new one now: not more often than
/// once per `minimumInterval`, so that a device that keeps failing ends in software drawing
/// instead of an endless round of replacements.
struct AutomaticRecoveryPolicy {
    static constexpr std::chrono::milliseconds kMinimumReplacementInterval{10000};
    std::chrono::milliseconds minimumInterval = kMinimumReplacementInterval;
    std::optional<std::chrono::nanoseconds> lastReplacementAt;

    bool allowsReplacement(std::chrono::nanoseconds now) const {
        return !lastReplacementAt || now - *lastReplacementAt >= minimumInterval;
    }
    void recordReplacement(std::chrono::nanoseconds now) { lastReplacementAt = now; }
};

/// Follows the renderer through its states: made, first frame, failure, replacement,
/// fallback. Main thread only.
class RendererHealth {
public:
    explicit RendererHealth(AutomaticRecoveryPolicy policy = {}) : m_policy(policy) {}

    const RendererStatus& status() const { return m_status; }
    const AutomaticRecoveryPolicy& policy() const { return m_policy; }

    /// A GPU renderer exists and has not shown a frame yet.
    void rendererCreated();
    /// A frame reached the screen.
    void didPresentAt(std::chrono::nanoseconds now);
    /// A failure episode asks for a new renderer. True when the policy allows one (the state
    /// is then `recovering` and the caller makes it); false when it does not, and drawing
    /// falls back to software.
    bool beginReplacementAfterFailure(std::chrono::nanoseconds now);
    /// Making a GPU renderer failed: drawing goes on in software for good.
    void fellBackToSoftware();
    /// No GPU renderer is wanted (software scene graph).
    void disable();

private:
    RendererStatus m_status;
    AutomaticRecoveryPolicy m_policy;
};

} // namespace termkit
