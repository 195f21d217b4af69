#pragma once
// The screen as the view shows it: each row in visual order.

#include <string>
#include <vector>

namespace termkit {

class Terminal;
class TerminalBidi;

/// The rows of the active screen in visual order, trailing spaces trimmed (a right-aligned
/// row keeps its leading ones).
std::vector<std::string> visualScreenText(const Terminal& terminal, TerminalBidi& bidi);
/// `visualScreenText` one row a line, then "cursor ROW COL" with the cursor's visual column.
std::string dumpVisualScreen(const Terminal& terminal);

} // namespace termkit
