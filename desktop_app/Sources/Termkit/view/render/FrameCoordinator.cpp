#include "Termkit/view/render/FrameCoordinator.h"

#include <algorithm>

namespace termkit {

FrameCoordinator::FrameCoordinator(const FrameClock& clock, FrameScheduler& scheduler, Callbacks callbacks)
    : FrameCoordinator(clock, scheduler, std::move(callbacks), Timing{}) {}

FrameCoordinator::FrameCoordinator(const FrameClock& clock, FrameScheduler& scheduler, Callbacks callbacks,
                                   Timing timing)
    : m_clock(clock), m_scheduler(scheduler), m_callbacks(std::move(callbacks)), m_timing(timing) {}

FrameCoordinator::~FrameCoordinator() {
    invalidate();
}

std::variant<FrameCoordinator::Token, FrameRefusalReason> FrameCoordinator::begin() {
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_invalidated || m_activeFrame)
        return FrameRefusalReason::activeFrame;
    const Token token{m_nextToken++};
    m_activeFrame = token;
    m_activeStatus = TrackedCommandBufferStatus::notEnqueued;
    return token;
}

void FrameCoordinator::refuse(Token token, FrameRefusalReason reason) {
    // Asked before the lock: the host's answer may need locks of its own.
    const bool eligible = !m_callbacks.isRetryEligible || m_callbacks.isRetryEligible();
    Actions after;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (!isCurrentLocked(token))
            return; // a stale token: its frame was given up or the coordinator is gone
        m_activeFrame.reset();
        if (reason != FrameRefusalReason::activeFrame) {
            // Only a device that gives nothing to draw with is a failure; a frame asked for
            // while another is on its way is the ordinary back-pressure of the display.
            failLocked(reason, TrackedCommandBufferStatus::notEnqueued, std::nullopt, eligible);
        }
        if (m_callbacks.becameIdle)
            after.push_back(m_callbacks.becameIdle);
    }
    run(after);
}

void FrameCoordinator::didSubmit(Token token) {
    std::lock_guard<std::mutex> guard(m_lock);
    if (!isCurrentLocked(token))
        return;
    m_activeStatus = TrackedCommandBufferStatus::committed;
    cancelFrameWatchdogLocked();
    m_frameWatchdog =
        m_scheduler.schedule(m_timing.frameWatchdog, [this, token] { frameWatchdogFired(token); });
}

void FrameCoordinator::complete(Token token, TrackedCommandBufferStatus status,
                                std::optional<std::string> error) {
    const bool eligible = !m_callbacks.isRetryEligible || m_callbacks.isRetryEligible();
    Actions after;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (!isCurrentLocked(token))
            return;
        m_activeFrame.reset();
        cancelFrameWatchdogLocked();
        if (status == TrackedCommandBufferStatus::error) {
            failLocked(std::nullopt, status, std::move(error), eligible);
        } else {
            resetFailureEpisodeLocked();
        }
        if (m_callbacks.becameIdle)
            after.push_back(m_callbacks.becameIdle);
    }
    run(after);
}

void FrameCoordinator::invalidate() {
    std::lock_guard<std::mutex> guard(m_lock);
    m_invalidated = true;
    m_activeFrame.reset();
    cancelFrameWatchdogLocked();
    if (m_retryTask)
        m_scheduler.cancel(*m_retryTask);
    if (m_failureWatchdog)
        m_scheduler.cancel(*m_failureWatchdog);
    m_retryTask.reset();
    m_failureWatchdog.reset();
}

bool FrameCoordinator::isCurrentLocked(Token token) const {
    return !m_invalidated && m_activeFrame && *m_activeFrame == token;
}

void FrameCoordinator::failLocked(std::optional<FrameRefusalReason> reason, TrackedCommandBufferStatus status,
                                  std::optional<std::string> error, bool eligible) {
    m_lastFailureReason = reason;
    m_lastStatus = status;
    m_lastError = std::move(error);
    startFailureEpisodeLocked();
    scheduleRetryLocked(eligible);
}

void FrameCoordinator::scheduleRetryLocked(bool eligible) {
    if (m_retryTask || !eligible || m_invalidated)
        return;
    const size_t index = std::min(m_retryIndex, m_timing.retryDelays.size() - 1);
    ++m_retryIndex;
    // The task runs after the lock is let go; it finds its own id through the generation.
    m_retryTask = m_scheduler.schedule(m_timing.retryDelays[index], [this, generation = m_episode] {
        std::function<void()> draw;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            if (m_invalidated || generation != m_episode || !m_retryTask)
                return;
            m_retryTask.reset();
            draw = m_callbacks.requestDraw;
        }
        if (draw)
            draw();
    });
}

void FrameCoordinator::startFailureEpisodeLocked() {
    if (m_failureStartedAt)
        return;
    m_failureStartedAt = m_clock.now();
    m_failureWatchdog = m_scheduler.schedule(m_timing.failureRecoveryAfter,
                                             [this, episode = m_episode] { failureWatchdogFired(episode); });
}

void FrameCoordinator::resetFailureEpisodeLocked() {
    if (m_retryTask)
        m_scheduler.cancel(*m_retryTask);
    if (m_failureWatchdog)
        m_scheduler.cancel(*m_failureWatchdog);
    m_retryTask.reset();
    m_failureWatchdog.reset();
    m_retryIndex = 0;
    m_failureStartedAt.reset();
    m_lastFailureReason.reset();
    m_lastError.reset();
    m_failureRecoveryRequested = false;
    ++m_episode;
}

void FrameCoordinator::cancelFrameWatchdogLocked() {
    if (m_frameWatchdog)
        m_scheduler.cancel(*m_frameWatchdog);
    m_frameWatchdog.reset();
}

void FrameCoordinator::frameWatchdogFired(Token token) {
    const bool eligible = !m_callbacks.isRetryEligible || m_callbacks.isRetryEligible();
    Actions after;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_frameWatchdog.reset();
        if (!isCurrentLocked(token))
            return;
        // The frame was submitted and never came back: give it up, so that the next one may
        // begin, and count it as a failure of the device.
        m_activeFrame.reset();
        failLocked(std::nullopt, m_activeStatus, std::string("frame did not complete"), eligible);
        if (m_callbacks.becameIdle)
            after.push_back(m_callbacks.becameIdle);
    }
    run(after);
}

void FrameCoordinator::failureWatchdogFired(uint64_t episode) {
    std::function<void(const RendererRecoveryReport&)> recover;
    RendererRecoveryReport report;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_invalidated || episode != m_episode || !m_failureStartedAt)
            return;
        m_failureWatchdog.reset();
        if (m_failureRecoveryRequested)
            return;
        m_failureRecoveryRequested = true;
        report.reason = m_lastFailureReason;
        report.failureDuration = m_clock.now() - *m_failureStartedAt;
        report.commandBufferStatus = m_lastStatus;
        report.commandBufferError = m_lastError;
        recover = m_callbacks.requestRecovery;
    }
    if (recover)
        recover(report);
}

void FrameCoordinator::run(const Actions& actions) {
    for (const auto& action : actions)
        action();
}

bool FrameCoordinator::hasActiveFrame() const {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_activeFrame.has_value();
}

bool FrameCoordinator::inFailureEpisode() const {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_failureStartedAt.has_value();
}

bool FrameCoordinator::failureRecoveryRequested() const {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_failureRecoveryRequested;
}

size_t FrameCoordinator::retryIndex() const {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_retryIndex;
}

bool FrameCoordinator::retryPending() const {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_retryTask.has_value();
}

std::optional<FrameRefusalReason> FrameCoordinator::lastFailureReason() const {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_lastFailureReason;
}

bool FrameCoordinator::invalidated() const {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_invalidated;
}

} // namespace termkit
