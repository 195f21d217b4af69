#pragma once
// When the view redraws: coalesced while output streams in, at once after typing, and not
// at all while the program holds synchronized output.

#include <chrono>
#include <optional>

namespace termkit {

/// Decides what a request for a redraw turns into. Output arriving in many small reads
/// asks for a redraw each time; the first request arms a short delay and the others ride
/// along, so a flood costs one frame per delay. A request within a short window after the
/// person typed goes ahead at once, so the echo of a key is on the next frame.
class DisplayPacing {
public:
    /// How long output requests gather before the redraw.
    static constexpr std::chrono::milliseconds kCoalescingDelay{4};
    /// How long after a key press a redraw goes ahead without delay.
    static constexpr std::chrono::milliseconds kInteractiveInputDisplayWindow{150};

    enum class Decision {
        drawNow,       // redraw on the next frame
        scheduleDelay, // arm the coalescing timer
        alreadyQueued, // a redraw is already on its way
        held,          // synchronized output: nothing is presented until it ends
    };

    explicit DisplayPacing(std::chrono::milliseconds coalescingDelay = kCoalescingDelay,
                           std::chrono::milliseconds interactiveWindow = kInteractiveInputDisplayWindow)
        : m_coalescingDelay(coalescingDelay), m_interactiveWindow(interactiveWindow) {}

    /// The person typed (or pasted, or clicked) at `now`.
    void noteUserInput(std::chrono::nanoseconds now) { m_lastUserInputUptime = now; }
    /// A redraw is wanted.
    Decision queuePendingDisplay(std::chrono::nanoseconds now, bool synchronizedOutputActive);
    /// The coalescing timer fired: whether to redraw now.
    bool timerFired(bool synchronizedOutputActive);
    /// The frame was drawn; the next request starts a new round.
    void displayed() { m_pending = false; }
    /// Synchronized output ended: a held redraw goes ahead.
    bool synchronizedOutputEnded();

    bool pending() const { return m_pending; }
    bool holding() const { return m_held; }
    std::chrono::milliseconds coalescingDelay() const { return m_coalescingDelay; }

private:
    std::chrono::milliseconds m_coalescingDelay;
    std::chrono::milliseconds m_interactiveWindow;
    std::optional<std::chrono::nanoseconds> m_lastUserInputUptime;
    bool m_pending = false;
    bool m_timerArmed = false;
    bool m_held = false;
};

} // namespace termkit
