#pragma once
// The thin progress bar a program can show with OSC 9;4.

#include <chrono>
#include <optional>

#include "Termkit/engine/TerminalTypes.h"

namespace termkit {

/// What the progress bar shows, and when it goes away by itself: a program that stops
/// reporting (crashed, or forgot) does not leave a bar on screen for ever.
class ProgressBarState {
public:
    /// How long a bar stays without a new report.
    static constexpr std::chrono::milliseconds kStaleAfter{15000};
    /// Width of the moving segment of an indeterminate bar, as a share of the view.
    static constexpr double kBarWidthRatio = 0.25;
    /// One sweep of an indeterminate bar across the view.
    static constexpr std::chrono::milliseconds kIndeterminateDuration{1500};
    /// How long a determinate bar takes to glide to a new value.
    static constexpr std::chrono::milliseconds kDeterminateDuration{200};

    explicit ProgressBarState(std::chrono::milliseconds staleAfter = kStaleAfter)
        : m_staleAfter(staleAfter) {}

    /// Takes a report at a moment; `remove` hides the bar.
    void handleProgressReport(const ProgressReport& report, std::chrono::nanoseconds now);
    /// Hides a bar whose last report is older than the stale time; true if it hid one.
    bool expire(std::chrono::nanoseconds now);
    /// When `expire` should be called next, if a bar is shown.
    std::optional<std::chrono::nanoseconds> deadline() const;

    bool visible() const { return m_state.has_value(); }
    /// The state shown (never `remove`), or nothing when hidden.
    std::optional<ProgressReport::State> state() const { return m_state; }
    /// The filled share, 0 to 1, for determinate states; nothing for `indeterminate`.
    std::optional<double> fraction() const;
    int progress() const { return m_progress; }
    double barWidthRatio() const { return kBarWidthRatio; }
    std::chrono::milliseconds indeterminateDuration() const { return kIndeterminateDuration; }
    std::chrono::milliseconds determinateDuration() const { return kDeterminateDuration; }

private:
    std::chrono::milliseconds m_staleAfter;
    std::optional<ProgressReport::State> m_state;
    int m_progress = 0;
    std::chrono::nanoseconds m_lastReportAt{0};
};

} // namespace termkit
