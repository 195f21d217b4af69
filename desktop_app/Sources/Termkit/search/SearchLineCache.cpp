#include "Termkit/search/SearchLineCache.h"

#include <algorithm>

#include "Termkit/engine/Terminal.h"

namespace termkit {

namespace {

void appendUtf16(std::pmr::u16string& out, char32_t c) {
    if (c < 0x10000) {
        out += static_cast<char16_t>(c);
    } else {
        c -= 0x10000;
        out += static_cast<char16_t>(0xD800 + (c >> 10));
        out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
    }
}

void appendUtf8AsUtf16(std::pmr::u16string& out, std::string_view utf8) {
    for (size_t i = 0; i < utf8.size();) {
        const auto b = static_cast<unsigned char>(utf8[i]);
        const size_t length = b < 0x80 ? 1 : (b >> 5) == 6 ? 2 : (b >> 4) == 14 ? 3 : 4;
        char32_t c = length == 1 ? b : b & (0x7F >> length);
        for (size_t k = 1; k < length && i + k < utf8.size(); ++k)
            c = (c << 6) | (static_cast<unsigned char>(utf8[i + k]) & 0x3F);
        appendUtf16(out, c);
        i += length;
    }
}

long long linesTop(const Buffer& buffer) {
    return buffer.invariantBase() - buffer.yBase().value;
}

} // namespace

std::pair<int, int> SearchLineEntry::cellOf(int unit) const {
    int row = 0;
    while (row + 1 < rowCount() && offsets[static_cast<size_t>(row) + 1] <= unit)
        ++row;
    if (unitColumns.empty())
        return {row, unit - offsets[static_cast<size_t>(row)]};
    const int at = std::min(unit, static_cast<int>(unitColumns.size()) - 1);
    // Past the end of the text the column is one beyond the last character's.
    return {row, unit < static_cast<int>(unitColumns.size()) ? unitColumns[static_cast<size_t>(at)]
                                                             : unitColumns[static_cast<size_t>(at)] + 1};
}

int SearchLineEntry::unitOf(int rowInLine, int col) const {
    const int begin = offsets[static_cast<size_t>(rowInLine)];
    const int end = rowInLine + 1 < rowCount() ? offsets[static_cast<size_t>(rowInLine) + 1]
                                               : static_cast<int>(lineAsString.size());
    if (unitColumns.empty())
        return std::min(begin + col, end);
    for (int u = begin; u < end; ++u) {
        if (unitColumns[static_cast<size_t>(u)] >= col)
            return u;
    }
    return end;
}

void SearchLineCache::initLinesCache() {
    const Buffer& buffer = m_terminal.buffer();
    m_linesCache.clear();
    m_linesCache.resize(static_cast<size_t>(buffer.lineCount()));
    m_baseInvariant = linesTop(buffer);
    m_buffer = &buffer;
    m_cols = m_terminal.cols();
    m_lineCount = buffer.lineCount();
}

void SearchLineCache::invalidate() {
    m_linesCache.clear();
    m_buffer = nullptr;
}

// Keeps the array in step with the buffer: another buffer, width or a shrunk scrollback
// starts afresh, lines that left the top of the ring take their slots along, and new rows
// get empty slots.
void SearchLineCache::follow() {
    const Buffer& buffer = m_terminal.buffer();
    const long long top = linesTop(buffer);
    if (m_buffer != &buffer || m_cols != m_terminal.cols() || buffer.lineCount() < m_lineCount ||
        top < m_baseInvariant) {
        initLinesCache();
        return;
    }
    if (top != m_baseInvariant) {
        const auto gone = static_cast<std::ptrdiff_t>(
            std::min<long long>(top - m_baseInvariant, static_cast<long long>(m_linesCache.size())));
        m_linesCache.erase(m_linesCache.begin(), m_linesCache.begin() + gone);
        m_baseInvariant = top;
    }
    m_lineCount = buffer.lineCount();
    if (m_linesCache.size() != static_cast<size_t>(m_lineCount))
        m_linesCache.resize(static_cast<size_t>(m_lineCount));
}

bool SearchLineCache::isCurrent(const SearchLineSlot& slot, LineIndex row) const {
    if (!slot.made)
        return false;
    const Buffer& buffer = m_terminal.buffer();
    const int rows = slot.rows;
    if (row.value + rows > buffer.lineCount())
        return false;
    if (slot.madeInScrollback && row.value + rows < buffer.yBase().value) {
        if (&buffer.line(row) != slot.line)
            return false;
        for (int k = 1; k < rows; ++k) {
            if (&buffer.line(row + k) != slot.laterRows[static_cast<size_t>(k) - 1].line)
                return false;
        }
        return true;
    }
    const BufferLine& first = buffer.line(row);
    if (&first != slot.line || first.generation() != slot.generation ||
        first.recycleGeneration() != slot.recycleGeneration)
        return false;
    for (int k = 1; k < rows; ++k) {
        const BufferLine& line = buffer.line(row + k);
        const SearchLineSlot::RowStamp& s = slot.laterRows[static_cast<size_t>(k) - 1];
        if (&line != s.line || line.generation() != s.generation ||
            line.recycleGeneration() != s.recycleGeneration || !line.isWrapped())
            return false;
    }
    // The line grew when the program wrapped into a further row.
    return row.value + rows >= buffer.lineCount() || !buffer.line(row + rows).isWrapped();
}

SearchLineSlot& SearchLineCache::stampedAsFollowed(LineIndex row) {
    SearchLineSlot& slot = m_linesCache[static_cast<size_t>(row.value)];
    if (!isCurrent(slot, row))
        stampLine(slot, row);
    return slot;
}

SearchLineEntry& SearchLineCache::text(SearchLineSlot& slot, LineIndex row) {
    if (!slot.hasText)
        translateBuffer(slot, row);
    return *slot.entry;
}

// Notes which line objects, as of which change, the logical line at `row` is made of; what
// was known of the rows before (text, matches) no longer holds.
void SearchLineCache::stampLine(SearchLineSlot& slot, LineIndex row) {
    const Buffer& buffer = m_terminal.buffer();
    slot.made = true;
    slot.hasText = false;
    slot.matchQuery = 0;
    slot.matchCount = 0;
    slot.laterRows.clear();
    const BufferLine& first = buffer.line(row);
    slot.line = &first;
    slot.generation = first.generation();
    slot.recycleGeneration = first.recycleGeneration();
    int rows = 1;
    for (LineIndex r = row + 1; r.value < buffer.lineCount(); ++r, ++rows) {
        const BufferLine& line = buffer.line(r);
        if (!line.isWrapped())
            break;
        slot.laterRows.push_back({&line, line.generation(), line.recycleGeneration()});
    }
    slot.rows = rows;
    slot.madeInScrollback = row.value + rows < buffer.yBase().value;
}

void SearchLineCache::translateBuffer(SearchLineSlot& slot, LineIndex row) {
    const Buffer& buffer = m_terminal.buffer();
    const CharacterTable& characters = m_terminal.tables().characters;
    if (!slot.entry) {
        std::pmr::polymorphic_allocator<SearchLineEntry> allocator(&m_textPool);
        slot.entry = {allocator.new_object<SearchLineEntry>(&m_textPool), {&m_textPool}};
    }
    SearchLineEntry& e = *slot.entry;
    e.lineAsString.clear();
    e.offsets.clear();
    e.unitColumns.clear();
    e.matches.clear();
    slot.hasText = true;
    ++m_translations;
    bool simple = true;
    std::string cluster;
    for (LineIndex r = row; r < row + slot.rows; ++r) {
        const BufferLine& line = buffer.line(r);
        e.offsets.push_back(static_cast<int>(e.lineAsString.size()));
        const CharData* cells = line.cells();
        if (simple) {
            // Most rows: one ASCII character (or a blank) in each column. One pass copies
            // them and finds where the text ends; cells from `cleanFrom` on were never written.
            const int scanEnd = std::min(line.cleanFrom(), line.count());
            const size_t at = e.lineAsString.size();
            e.lineAsString.resize(at + static_cast<size_t>(scanEnd));
            char16_t* out = e.lineAsString.data() + at;
            int end = 0;
            int col = 0;
            for (; col < scanEnd; ++col) {
                const CharData& c = cells[col];
                if (c.code >= 0x80 || c.width != 1)
                    break;
                out[col] = c.code == 0 ? u' ' : static_cast<char16_t>(c.code);
                if (c.code != 0)
                    end = col + 1;
            }
            if (col == scanEnd) {
                e.lineAsString.resize(at + static_cast<size_t>(end));
                continue;
            }
            e.lineAsString.resize(at);
        }
        const int length = line.getTrimmedLength();
        e.lineAsString.reserve(e.lineAsString.size() + static_cast<size_t>(length));
        for (int col = 0; col < length; ++col) {
            const CharData& cell = cells[col];
            if (cell.width == 0)
                continue; // the right half of a wide character adds nothing
            const size_t before = e.lineAsString.size();
            if (cell.code == 0) {
                e.lineAsString += u' ';
            } else if (cell.code < kCharacterTableBase) {
                appendUtf16(e.lineAsString, static_cast<char32_t>(cell.code));
            } else {
                cluster.clear();
                characters.appendCharacter(cell.code, cluster);
                appendUtf8AsUtf16(e.lineAsString, cluster);
            }
            const size_t added = e.lineAsString.size() - before;
            if (simple && (added != 1 || cell.width != 1)) {
                // The first character that is not one unit in one cell: from here on each
                // unit records its column, and the units so far get theirs.
                simple = false;
                e.unitColumns.reserve(e.lineAsString.size());
                for (size_t k = 0; k + 1 < e.offsets.size(); ++k)
                    for (int u = e.offsets[k]; u < e.offsets[k + 1]; ++u)
                        e.unitColumns.push_back(u - e.offsets[k]);
                for (size_t u = static_cast<size_t>(e.offsets.back()); u < before; ++u)
                    e.unitColumns.push_back(static_cast<int32_t>(u) - e.offsets.back());
            }
            if (!simple)
                e.unitColumns.insert(e.unitColumns.end(), added, col);
        }
    }
}

} // namespace termkit
