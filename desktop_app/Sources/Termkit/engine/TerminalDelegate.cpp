#include "Termkit/engine/TerminalDelegate.h"

#include "Termkit/engine/Terminal.h"

namespace termkit {

void TerminalDelegate::setForegroundColor(Terminal& source, Color color) {
    source.storeForegroundColor(color);
}

void TerminalDelegate::setBackgroundColor(Terminal& source, Color color) {
    source.storeBackgroundColor(color);
}

void TerminalDelegate::setCursorColor(Terminal& source, std::optional<Color> color) {
    source.storeCursorColor(color);
}

std::pair<Color, Color> TerminalDelegate::getColors(Terminal& source) {
    return {source.foregroundColor(), source.backgroundColor()};
}

} // namespace termkit
