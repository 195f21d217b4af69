#include "Termkit/view/ProgressBarState.h"

#include <algorithm>

namespace termkit {

void ProgressBarState::handleProgressReport(const ProgressReport& report, std::chrono::nanoseconds now) {
    if (report.state == ProgressReport::State::remove) {
        m_state.reset();
        m_progress = 0;
        return;
    }
    m_state = report.state;
    // Error and pause keep the last value when they bring none of their own.
    if (report.progress)
        m_progress = std::clamp(*report.progress, 0, 100);
    else if (report.state == ProgressReport::State::set)
        m_progress = 0;
    m_lastReportAt = now;
}

bool ProgressBarState::expire(std::chrono::nanoseconds now) {
    if (!m_state || now - m_lastReportAt < m_staleAfter)
        return false;
    m_state.reset();
    m_progress = 0;
    return true;
}

std::optional<std::chrono::nanoseconds> ProgressBarState::deadline() const {
    if (!m_state)
        return std::nullopt;
    return m_lastReportAt + m_staleAfter;
}

std::optional<double> ProgressBarState::fraction() const {
    if (!m_state || *m_state == ProgressReport::State::indeterminate)
        return std::nullopt;
    return m_progress / 100.0;
}

} // namespace termkit
