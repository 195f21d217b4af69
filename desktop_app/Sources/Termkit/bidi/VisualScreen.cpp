#include "Termkit/bidi/VisualScreen.h"

#include <algorithm>

#include "Termkit/bidi/TerminalBidi.h"
#include "Termkit/engine/Terminal.h"

namespace termkit {

std::vector<std::string> visualScreenText(const Terminal& terminal, TerminalBidi& bidi) {
    const Buffer& buffer = terminal.buffer();
    std::vector<std::string> rows;
    rows.reserve(static_cast<size_t>(terminal.rows()));
    for (ScreenRow row(0); row.value < terminal.rows(); ++row) {
        const LineIndex index = buffer.lineIndex(row);
        rows.push_back(TerminalBidi::visualText(bidi.layout(index, buffer), buffer.line(index),
                                                terminal.tables().characters));
    }
    return rows;
}

std::string dumpVisualScreen(const Terminal& terminal) {
    TerminalBidi bidi;
    std::string out;
    for (const std::string& row : visualScreenText(terminal, bidi))
        out += row + "\n";
    const auto [col, row] = terminal.getCursorLocation();
    const BidiRowLayout layout = bidi.layout(terminal.buffer().lineIndex(row), terminal.buffer());
    const int last = static_cast<int>(layout.logicalToVisualCol.size()) - 1;
    const int visualCol =
        last < 0 ? col.value : layout.logicalToVisualCol[static_cast<size_t>(std::min(col.value, last))];
    out += "cursor " + std::to_string(row.value) + " " + std::to_string(visualCol) + "\n";
    return out;
}

} // namespace termkit
