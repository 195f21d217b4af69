#include "Termkit/engine/TerminalExtensions.h"

#include <string>

#include "Termkit/engine/Terminal.h"

namespace termkit {

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

void TerminalExtensions::finishSemanticLineAdvance(Terminal&) {}

void TerminalExtensions::reset(Terminal&, bool) {}

} // namespace termkit
