#include "Termkit/view/input/WheelScroll.h"

#include <cmath>

#include "Termkit/view/input/EscapeSequences.h"

namespace termkit {

int ScrollAccumulator::add(double steps) {
    // A change of direction forgets what was gathered the other way.
    if ((steps > 0 && m_pending < 0) || (steps < 0 && m_pending > 0))
        m_pending = 0;
    m_pending += steps;
    const double whole = std::trunc(m_pending);
    m_pending -= whole;
    return static_cast<int>(whole);
}

namespace WheelScroll {

WheelOutcome handle(const WheelEvent& event, const InputModes& modes, bool allowMouseReporting,
                    double scrollSensitivity, ScrollAccumulator& accumulator) {
    WheelOutcome outcome;
    if (MouseEncoder::reportsMouse(modes, allowMouseReporting, event.modifiers)) {
        const int notches = accumulator.add(event.notches);
        if (notches == 0)
            return outcome;
        MouseEvent report{MouseAction::press, notches > 0 ? MouseButton::wheelUp : MouseButton::wheelDown,
                          event.modifiers,    event.col,
                          event.row,          event.pixelX,
                          event.pixelY};
        for (int i = 0; i < std::abs(notches); ++i)
            if (auto bytes = MouseEncoder::encode(report, modes))
                outcome.bytes += *bytes;
        outcome.kind = outcome.bytes.empty() ? WheelOutcome::Kind::none : WheelOutcome::Kind::report;
        return outcome;
    }
    const int lines = accumulator.add(event.notches * kLinesPerNotch * scrollSensitivity);
    if (lines == 0)
        return outcome;
    if (modes.alternateBufferActive && modes.alternateScrollMode && modes.mouseMode == MouseMode::off) {
        // A full-screen program without mouse support still scrolls: it gets arrow keys.
        namespace es = EscapeSequences;
        const std::string_view key = lines > 0
                                         ? (modes.applicationCursor ? es::moveUpApp : es::moveUpNormal)
                                         : (modes.applicationCursor ? es::moveDownApp : es::moveDownNormal);
        for (int i = 0; i < std::abs(lines); ++i)
            outcome.bytes += key;
        outcome.kind = WheelOutcome::Kind::arrowKeys;
        return outcome;
    }
    outcome.kind = WheelOutcome::Kind::scrollView;
    outcome.lines = lines;
    return outcome;
}

} // namespace WheelScroll

namespace PasteEncoder {

std::string encode(std::string_view text, bool bracketedPasteMode) {
    std::string body;
    body.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n')
            continue; // CR LF becomes one CR
        body += text[i] == '\n' ? '\r' : text[i];
    }
    if (!bracketedPasteMode)
        return body;
    const std::string_view end = EscapeSequences::bracketedPasteEnd;
    for (size_t at = body.find(end); at != std::string::npos; at = body.find(end, at))
        body.erase(at, end.size());
    return std::string(EscapeSequences::bracketedPasteStart) + body + std::string(end);
}

} // namespace PasteEncoder

} // namespace termkit
