// The kitty keyboard protocol's commands: each buffer keeps its own flags and stack, so a
// full-screen program's settings end with the alternate screen.

#include "Termkit/engine/Terminal.h"

namespace termkit {

bool Terminal::handleKittyKeyboardProtocol(const CsiParameters& pars, std::span<const uint8_t> collect) {
    if (collect.size() != 1)
        return false;
    KeyboardModeState& state = activeKeyboardMode();
    // Parameters beyond a byte are masked to the known flags like any other.
    const auto flagsParameter = static_cast<uint8_t>(pars.at(0, 0) & KittyKeyboardFlags::knownMask);
    switch (collect[0]) {
    case '>':
        state.push(flagsParameter);
        return true;
    case '<':
        state.pop(pars.atLeast1(0));
        return true;
    case '=':
        state.set(flagsParameter, pars.at(1, 0) == 0 ? 1 : pars.at(1, 0));
        return true;
    case '?':
        sendResponse({std::string_view(csi()), std::string_view("?"),
                      std::string_view(std::to_string(state.flags)), std::string_view("u")});
        return true;
    default:
        return false;
    }
}

} // namespace termkit
