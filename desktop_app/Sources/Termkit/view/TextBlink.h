#pragma once
// Blinking text: the timer runs only while it has something to blink.

#include <chrono>

namespace termkit {

/// Whether blinking cells are in their shown or hidden phase, and whether the timer that
/// flips them needs to run: only while blinking cells are on screen and the window is
/// active, so an idle terminal costs no wake-ups.
class TextBlink {
public:
    /// Half a blink period: cells are shown for this long, then hidden for as long.
    static constexpr std::chrono::milliseconds kInterval{600};

    /// Called when what is on screen or the window's activity changes; true when the timer
    /// should run. Stopping shows the cells again, so nothing stays hidden.
    bool update(bool blinkingCellsVisible, bool windowActive);
    /// A timer tick: flips the phase.
    void tick() { m_shown = !m_shown; }
    bool shown() const { return m_shown; }
    bool running() const { return m_running; }

private:
    bool m_shown = true;
    bool m_running = false;
};

/// What the caret looks like.
enum class CaretShape : unsigned char { block, underline, bar };

} // namespace termkit
