#pragma once
// What the wheel does: report to the program, send arrow keys, or scroll the view.

#include <string>

#include "Termkit/view/input/MouseEncoder.h"

namespace termkit {

/// Gathers fractional wheel movement (touchpads send many small steps) and hands out whole
/// steps, keeping the remainder and its sign.
class ScrollAccumulator {
public:
    /// Adds movement and returns the whole steps now due (positive up).
    int add(double steps);
    double pending() const { return m_pending; }
    void clear() { m_pending = 0; }

private:
    double m_pending = 0;
};

/// One turn of the wheel over the terminal.
struct WheelEvent {
    /// Notches turned, positive away from the person (scrolls up), fractions allowed.
    double notches = 0;
    KeyModifiers modifiers;
    int col = 0;
    int row = 0;
    int pixelX = 0;
    int pixelY = 0;
};

/// What came of a wheel event.
struct WheelOutcome {
    enum class Kind : uint8_t { none, report, arrowKeys, scrollView };
    Kind kind = Kind::none;
    /// Bytes for the program (reports or arrow keys).
    std::string bytes;
    /// Lines to scroll the view, positive up (towards older lines).
    int lines = 0;
};

namespace WheelScroll {

/// Lines one notch scrolls at sensitivity 1.
inline constexpr double kLinesPerNotch = 3;

/// With mouse reporting on, one wheel report per notch at the pointer's cell; in the
/// alternate screen with alternate scroll mode and no mouse mode, arrow keys (application
/// or normal form); otherwise the view scrolls by `scrollSensitivity` times three lines a notch.
WheelOutcome handle(const WheelEvent& event, const InputModes& modes, bool allowMouseReporting,
                    double scrollSensitivity, ScrollAccumulator& accumulator);

} // namespace WheelScroll

namespace PasteEncoder {

/// The bytes of a paste: line ends made carriage returns as typed Enter would send, and
/// with bracketed paste mode the whole text between the two bracket sequences, as one
/// block. An end bracket inside the text is removed, so a paste cannot end its own bracket.
std::string encode(std::string_view text, bool bracketedPasteMode);

} // namespace PasteEncoder

} // namespace termkit
