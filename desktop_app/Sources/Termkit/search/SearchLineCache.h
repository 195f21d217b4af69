#pragma once
// The text of the buffer's logical lines as search reads it, kept between searches and
// checked line by line against the buffer, so that new output costs only its own lines.

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Termkit/buffer/Indices.h"

namespace termkit {

class Buffer;
class BufferLine;
class Terminal;

/// One logical line: the rows it spans joined, each row trimmed, with what maps a position
/// in the string back to a cell.
struct SearchLineEntry {
    /// The line as UTF-16, the unit ICU's matchers work in.
    std::u16string lineAsString;
    /// Where each row's text starts in the string; one entry per row.
    std::vector<int> offsets;
    /// The column of each unit within its row, or empty when every unit is one column
    /// (the common case, which then costs nothing).
    std::vector<int32_t> unitColumns;
    /// The string case-folded, made on the first case-insensitive search.
    std::u16string folded;
    bool hasFolded = false;
    /// What the rows were when the entry was made; a row that changed since makes it stale.
    struct RowStamp {
        const BufferLine* line;
        uint64_t generation;
        uint64_t recycleGeneration;
    };
    std::vector<RowStamp> stamps;
    /// The matches of the engine's current query, as unit ranges, and which query that is.
    uint64_t matchQuery = 0;
    std::vector<std::pair<int, int>> matches;

    int rowCount() const { return static_cast<int>(offsets.size()); }
    /// The row (counted from the line's first) and column of a unit.
    std::pair<int, int> cellOf(int unit) const;
    /// The unit at or after a column of a row, counting wide cells as one character.
    int unitOf(int rowInLine, int col) const;
};

/// The logical lines of a terminal's active buffer, by row. Entries live as long as the
/// rows they were made from stay as they were; rows that leave a full ring take their
/// entries with them, so scrolling keeps the rest.
class SearchLineCache {
public:
    explicit SearchLineCache(const Terminal& terminal) : m_terminal(terminal) {}

    /// Makes the (empty) array for the buffer as it is now.
    void initLinesCache();
    /// The entry of the logical line that starts at `row`, made or remade when stale.
    SearchLineEntry& entry(LineIndex row);
    /// Drops every entry.
    void invalidate();
    /// How many entries were made since the cache was created (for tests and benchmarks).
    uint64_t translations() const { return m_translations; }

private:
    std::unique_ptr<SearchLineEntry> translateBuffer(LineIndex row);
    bool isCurrent(const SearchLineEntry& e, LineIndex row) const;
    void followBuffer();

    const Terminal& m_terminal;
    // Indexed by row + (m_baseInvariant - linesTop): rows keep their entry while the ring
    // recycles lines at its top.
    std::vector<std::unique_ptr<SearchLineEntry>> m_linesCache;
    long long m_baseInvariant = 0;
    const Buffer* m_buffer = nullptr;
    int m_cols = 0;
    uint64_t m_translations = 0;
};

} // namespace termkit
