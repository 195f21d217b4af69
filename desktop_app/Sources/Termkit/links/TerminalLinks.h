#pragma once
// Links in a terminal's text: explicit ones a program wrote with OSC 8 (held in each cell's
// payload), and implicit ones recognised by a regular expression across wrapped rows.

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Termkit/buffer/Indices.h"

namespace termkit {

class Terminal;

/// Where to look: a buffer position (rows from the oldest line kept) or a cell of the
/// display (rows from its top, the view's scroll position applied).
struct LinkLookupLocation {
    enum class Kind : uint8_t { buffer, screen };
    Kind kind = Kind::buffer;
    Position position;
    static LinkLookupLocation buffer(Position p) { return {Kind::buffer, p}; }
    static LinkLookupLocation screen(Position p) { return {Kind::screen, p}; }
};

enum class LinkLookupMode : uint8_t { explicitOnly, explicitAndImplicit };

/// The columns a link covers on one row, end exclusive.
struct RowRange {
    LineIndex row;
    std::pair<int, int> range;
};

struct LinkMatch {
    /// The target: an explicit link's URI, or the text an implicit one matched.
    std::string text;
    /// Where it starts, and the columns it covers on that row.
    LineIndex row;
    std::pair<int, int> range;
    bool isExplicit = false;
    /// Every row it covers, in order.
    std::vector<RowRange> rowRanges;
    /// An explicit link's parameters (`id=...`), as the program wrote them.
    std::string params;
};

namespace TerminalLinks {

/// The link at a position: an explicit one first; with `explicitAndImplicit`, else the
/// implicit match that covers the column.
std::optional<LinkMatch> link(const Terminal& terminal, LinkLookupLocation at, LinkLookupMode mode);

/// Every link that touches the rows `first` to `last` of the buffer, in order: explicit ones,
/// then (with `explicitAndImplicit`) the implicit matches outside them over the logical lines
/// those rows belong to. For showing all links at once.
std::vector<LinkMatch> links(const Terminal& terminal, LineIndex first, LineIndex last, LinkLookupMode mode);

/// An OSC 8 body split into its parameters and URI (`params;URI`, split at the first `;`).
std::pair<std::string, std::string> parseHyperlinkPayload(const std::string& text);

/// The expression implicit links are found by.
const char* implicitLinkPattern();

} // namespace TerminalLinks

} // namespace termkit
