#include "Termkit/engine/TerminalExtensions.h"

#include <string>

#include "Termkit/engine/Terminal.h"

namespace termkit {

bool TerminalExtensions::handleKittyKeyboardProtocol(Terminal& terminal, const CsiParameters&,
                                                     std::span<const uint8_t> collect) {
    if (collect.size() != 1)
        return false;
    const uint8_t c = collect[0];
    if (c != '>' && c != '<' && c != '=' && c != '?')
        return false;
    // The sequence is the keyboard protocol's; without that extension it is dropped here so
    // that `CSI ? u` and friends never reach the restore-cursor path.
    terminal.log("Termkit: kitty keyboard protocol sequence dropped: CSI " +
                 std::string(1, static_cast<char>(c)) + " u");
    return true;
}

void TerminalExtensions::handleKittyGraphics(Terminal& terminal, std::span<const uint8_t> data) {
    terminal.log("Termkit: kitty graphics command dropped (" + std::to_string(data.size()) + " bytes)");
}

DcsHandler* TerminalExtensions::sixelDcsHandler(Terminal& terminal) {
    terminal.log("Termkit: sixel image dropped");
    return nullptr;
}

void TerminalExtensions::oscSemanticPrompt(Terminal& terminal, std::span<const uint8_t> data) {
    terminal.log("Termkit: semantic prompt dropped: " + std::string(data.begin(), data.end()));
}

void TerminalExtensions::applyCurrentBidiStateAtParagraphStart(Terminal&, unsigned) {}

void TerminalExtensions::semanticNoteAlternateScreenSwitch(Terminal&) {}

void TerminalExtensions::reset(Terminal&, bool) {}

} // namespace termkit
