#include "Termkit/search/SearchLineCache.h"

#include <algorithm>

#include "Termkit/engine/Terminal.h"

namespace termkit {

namespace {

void appendUtf16(std::u16string& out, char32_t c) {
    if (c < 0x10000) {
        out += static_cast<char16_t>(c);
    } else {
        c -= 0x10000;
        out += static_cast<char16_t>(0xD800 + (c >> 10));
        out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
    }
}

void appendUtf8AsUtf16(std::u16string& out, std::string_view utf8) {
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
    const auto next = std::upper_bound(offsets.begin(), offsets.end(), unit);
    const int row = static_cast<int>(next - offsets.begin()) - 1;
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
}

void SearchLineCache::invalidate() {
    m_linesCache.clear();
    m_buffer = nullptr;
}

// Keeps the array in step with the buffer: another buffer or width starts afresh, lines
// that left the top of the ring take their entries along, and new rows get empty slots.
void SearchLineCache::followBuffer() {
    const Buffer& buffer = m_terminal.buffer();
    if (m_buffer != &buffer || m_cols != m_terminal.cols()) {
        initLinesCache();
        return;
    }
    const long long top = linesTop(buffer);
    if (top != m_baseInvariant) {
        const auto gone =
            static_cast<size_t>(std::min<long long>(top - m_baseInvariant, (long long)m_linesCache.size()));
        if (top < m_baseInvariant) {
            initLinesCache();
            return;
        }
        m_linesCache.erase(m_linesCache.begin(), m_linesCache.begin() + static_cast<std::ptrdiff_t>(gone));
        m_baseInvariant = top;
    }
    m_linesCache.resize(static_cast<size_t>(buffer.lineCount()));
}

bool SearchLineCache::isCurrent(const SearchLineEntry& e, LineIndex row) const {
    const Buffer& buffer = m_terminal.buffer();
    const int rows = e.rowCount();
    if (row.value + rows > buffer.lineCount())
        return false;
    for (int k = 0; k < rows; ++k) {
        const BufferLine& line = buffer.line(row + k);
        const SearchLineEntry::RowStamp& s = e.stamps[static_cast<size_t>(k)];
        if (&line != s.line || line.generation() != s.generation ||
            line.recycleGeneration() != s.recycleGeneration)
            return false;
        if (k > 0 && !line.isWrapped())
            return false;
    }
    // The line grew when the program wrapped into a further row.
    return row.value + rows >= buffer.lineCount() || !buffer.line(row + rows).isWrapped();
}

SearchLineEntry& SearchLineCache::entry(LineIndex row) {
    followBuffer();
    auto& slot = m_linesCache[static_cast<size_t>(row.value)];
    if (!slot || !isCurrent(*slot, row))
        slot = translateBuffer(row);
    return *slot;
}

std::unique_ptr<SearchLineEntry> SearchLineCache::translateBuffer(LineIndex row) {
    const Buffer& buffer = m_terminal.buffer();
    const CharacterTable& characters = m_terminal.tables().characters;
    auto e = std::make_unique<SearchLineEntry>();
    ++m_translations;
    bool simple = true;
    std::string cluster;
    for (LineIndex r = row; r.value < buffer.lineCount(); ++r) {
        const BufferLine& line = buffer.line(r);
        if (r != row && !line.isWrapped())
            break;
        e->stamps.push_back({&line, line.generation(), line.recycleGeneration()});
        e->offsets.push_back(static_cast<int>(e->lineAsString.size()));
        const int length = line.getTrimmedLength();
        const CharData* cells = line.cells();
        for (int col = 0; col < length; ++col) {
            const CharData& cell = cells[col];
            if (cell.width == 0)
                continue; // the right half of a wide character adds nothing
            const size_t before = e->lineAsString.size();
            if (cell.code == 0) {
                e->lineAsString += u' ';
            } else if (cell.code < kCharacterTableBase) {
                appendUtf16(e->lineAsString, static_cast<char32_t>(cell.code));
            } else {
                cluster.clear();
                characters.appendCharacter(cell.code, cluster);
                appendUtf8AsUtf16(e->lineAsString, cluster);
            }
            const size_t added = e->lineAsString.size() - before;
            if (simple && (added != 1 || cell.width != 1)) {
                // The first character that is not one unit in one cell: from here on each
                // unit records its column, and the units so far get theirs.
                simple = false;
                e->unitColumns.reserve(e->lineAsString.size());
                for (size_t k = 0; k + 1 < e->offsets.size(); ++k)
                    for (int u = e->offsets[k]; u < e->offsets[k + 1]; ++u)
                        e->unitColumns.push_back(u - e->offsets[k]);
                for (size_t u = static_cast<size_t>(e->offsets.back()); u < before; ++u)
                    e->unitColumns.push_back(static_cast<int32_t>(u) - e->offsets.back());
            }
            if (!simple)
                e->unitColumns.insert(e->unitColumns.end(), added, col);
        }
    }
    return e;
}

} // namespace termkit
