#pragma once
// The text of the buffer's logical lines as search reads it, kept between searches and
// checked line by line against the buffer, so that new output costs only its own lines.

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <memory_resource>
#include <string>
#include <utility>
#include <vector>

#include "Termkit/buffer/Indices.h"

namespace termkit {

class Buffer;
class BufferLine;
class Terminal;

/// Where each row of a logical line starts in its string. Nearly every line has one or two
/// rows, kept inline so that making an entry allocates no array for them.
class RowOffsets {
public:
    void clear() {
        m_count = 0;
        m_more.clear();
    }
    void push_back(int offset) {
        if (m_count < kInline)
            m_inline[m_count] = offset;
        else
            m_more.push_back(offset);
        ++m_count;
    }
    size_t size() const { return m_count; }
    int operator[](size_t i) const { return i < kInline ? m_inline[i] : m_more[i - kInline]; }
    int back() const { return (*this)[m_count - 1]; }

private:
    static constexpr size_t kInline = 2;
    std::array<int, kInline> m_inline{};
    size_t m_count = 0;
    std::vector<int> m_more;
};

/// One logical line's text: the rows it spans joined, each row trimmed, with what maps a
/// position in the string back to a cell.
struct SearchLineEntry {
    explicit SearchLineEntry(std::pmr::memory_resource* pool) : lineAsString(pool) {}

    /// The line as UTF-16, the unit ICU's matchers work in; its memory comes from the
    /// cache's pool.
    std::pmr::u16string lineAsString;
    /// Where each row's text starts in the string; one entry per row.
    RowOffsets offsets;
    /// The column of each unit within its row, or empty when every unit is one column
    /// (the common case, which then costs nothing).
    std::vector<int32_t> unitColumns;
    /// The matches of the engine's current query, as unit ranges.
    std::vector<std::pair<int, int>> matches;

    int rowCount() const { return static_cast<int>(offsets.size()); }
    /// Whether each unit is one character one column wide.
    bool simple() const { return unitColumns.empty(); }
    /// The row (counted from the line's first) and column of a unit.
    std::pair<int, int> cellOf(int unit) const;
    /// The unit at or after a column of a row, counting wide cells as one character.
    int unitOf(int rowInLine, int col) const;
};

/// Gives an entry back to the pool it came from.
struct SearchLineEntryDeleter {
    std::pmr::memory_resource* pool = nullptr;
    void operator()(SearchLineEntry* entry) const {
        std::pmr::polymorphic_allocator<SearchLineEntry>(pool).delete_object(entry);
    }
};

/// A row's place in the cache, kept in one flat array: what a repeated search needs to
/// know about a line (is it as it was, has it any match) without reading the line itself.
/// The text is made only when a search needs it: a cold search looks at most lines' cells
/// once, finds nothing there, and keeps only that.
struct SearchLineSlot {
    const BufferLine* line = nullptr;
    uint64_t generation = 0;
    uint64_t recycleGeneration = 0;
    int32_t rows = 0;
    /// The rows and the row after them were all scrollback when the slot was stamped. Lines
    /// in the scrollback never change in place, so while they stay there it is enough that
    /// the same line objects are at the same rows.
    bool madeInScrollback = false;
    /// Whether the slot describes its rows (stamped); the text may still be unmade.
    bool made = false;
    /// Whether `entry` holds the text of the rows as stamped.
    bool hasText = false;
    /// Which query `matchCount` (and the entry's matches) belong to; 0 for none.
    uint64_t matchQuery = 0;
    uint32_t matchCount = 0;
    /// What the rows after the first were when the slot was stamped (the first row's stamp
    /// is above).
    struct RowStamp {
        const BufferLine* line;
        uint64_t generation;
        uint64_t recycleGeneration;
    };
    std::vector<RowStamp> laterRows;
    std::unique_ptr<SearchLineEntry, SearchLineEntryDeleter> entry;
};

/// The logical lines of a terminal's active buffer, by row. Entries live as long as the
/// rows they were made from stay as they were; rows that leave a full ring take their
/// entries with them, so scrolling keeps the rest.
class SearchLineCache {
public:
    explicit SearchLineCache(const Terminal& terminal) : m_terminal(terminal) {}

    /// Makes the (empty) array for the buffer as it is now.
    void initLinesCache();
    /// The slot of the logical line that starts at `row`, restamped when stale, its text
    /// not necessarily made.
    SearchLineSlot& stamped(LineIndex row) {
        follow();
        return stampedAsFollowed(row);
    }
    /// Brings the array in step with the buffer; until the buffer changes, `stampedAsFollowed`
    /// may then stand for `stamped` (a pass over every line follows once).
    void follow();
    SearchLineSlot& stampedAsFollowed(LineIndex row);
    /// The text of a stamped slot, made when it is not yet.
    SearchLineEntry& text(SearchLineSlot& slot, LineIndex row);
    /// The slot of the logical line that starts at `row` with its text made.
    SearchLineSlot& slot(LineIndex row) {
        SearchLineSlot& s = stamped(row);
        text(s, row);
        return s;
    }
    /// The entry of the logical line that starts at `row`.
    SearchLineEntry& entry(LineIndex row) { return *slot(row).entry; }
    /// Drops every entry.
    void invalidate();
    /// How many lines' texts were made since the cache was created (for tests and benchmarks).
    uint64_t translations() const { return m_translations; }

private:
    void stampLine(SearchLineSlot& slot, LineIndex row);
    void translateBuffer(SearchLineSlot& slot, LineIndex row);
    bool isCurrent(const SearchLineSlot& slot, LineIndex row) const;

    const Terminal& m_terminal;
    // Where the lines' text lives: a search over the whole scrollback makes one string per
    // line, and the general heap's work for them (and for freeing them all with the cache)
    // was a sixth of a cold search's profile. Declared before the slots, so it outlives
    // their strings.
    std::pmr::unsynchronized_pool_resource m_textPool;
    // Indexed by row; a deque, so that lines leaving the top of the ring cost no move of the
    // rest. Rows keep their entry while the ring
    // recycles lines at its top.
    std::deque<SearchLineSlot> m_linesCache;
    long long m_baseInvariant = 0;
    const Buffer* m_buffer = nullptr;
    int m_cols = 0;
    int m_lineCount = 0;
    uint64_t m_translations = 0;
};

} // namespace termkit
