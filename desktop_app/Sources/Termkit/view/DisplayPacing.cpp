#include "Termkit/view/DisplayPacing.h"

namespace termkit {

DisplayPacing::Decision DisplayPacing::queuePendingDisplay(std::chrono::nanoseconds now,
                                                           bool synchronizedOutputActive) {
    if (synchronizedOutputActive) {
        m_held = true;
        return Decision::held;
    }
    const bool interactive = m_lastUserInputUptime && now - *m_lastUserInputUptime <= m_interactiveWindow;
    if (interactive) {
        // Typing wins over coalescing: the echo must not wait for the timer.
        m_pending = true;
        return Decision::drawNow;
    }
    if (m_pending || m_timerArmed)
        return Decision::alreadyQueued;
    m_timerArmed = true;
    return Decision::scheduleDelay;
}

bool DisplayPacing::timerFired(bool synchronizedOutputActive) {
    m_timerArmed = false;
    if (synchronizedOutputActive) {
        m_held = true;
        return false;
    }
    m_pending = true;
    return true;
}

bool DisplayPacing::synchronizedOutputEnded() {
    if (!m_held)
        return false;
    m_held = false;
    m_pending = true;
    return true;
}

} // namespace termkit
