#pragma once
// Plain-text renderings of the screen, as the dump tool and the golden tests read it.

#include <string>
#include <vector>

#include "Termkit/buffer/Indices.h"

namespace termkit {

class BufferLine;
class CharacterTable;
class Terminal;

/// One row as text: a wide character once with its right half skipped, a right half whose
/// left half was overwritten as a blank column, combining characters after their base as
/// stored, empty cells as spaces, trailing spaces trimmed.
std::string rowText(const BufferLine& line, const CharacterTable& characters);
/// Every row of the active screen.
std::vector<std::string> screenText(const Terminal& terminal);
/// The runs of non-default attributes of a screen row: "start-end sgr" items joined by " | ".
std::string attributeRuns(const Terminal& terminal, ScreenRow row);
/// The dump format: one line per row, then "cursor ROW COL"; with attributes, an "attrs"
/// section of one line per row that has styled runs.
std::string dumpScreen(const Terminal& terminal, bool withAttributes);

} // namespace termkit
