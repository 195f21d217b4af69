#include "Termkit/search/SearchEngine.h"

#include <unicode/regex.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cctype>
#include <cstddef>
#include <cstring>
#include <string_view>

#include "Termkit/engine/Terminal.h"

namespace termkit {

namespace {

// How far ahead of the line being read a pass over the lines asks for memory, in lines,
// and how much of a line's cells (in bytes) it asks for.
constexpr int kLinesAhead = 8;
constexpr int kCellBytesAhead = 512;
// Room for the matches a repeated `findAll` finds on the screen and in new lines, beside
// those it keeps from the scrollback.
constexpr size_t kReservedForNewMatches = 256;

// Characters a whole word may touch on either side.
constexpr std::u16string_view kNonWordCharacters = u" ~!@#$%^&*()+`-=[]{}|\\;:\"',./<>?";

std::u16string utf16(const std::string& utf8) {
    std::u16string out;
    const icu::UnicodeString s = icu::UnicodeString::fromUTF8(utf8);
    out.assign(reinterpret_cast<const char16_t*>(s.getBuffer()), static_cast<size_t>(s.length()));
    return out;
}

// Simple case folding maps each code point to one, so a match in folded units is a match
// at the same offsets in the original. ASCII, nearly all of a terminal's text, is folded here.
char16_t folded(char16_t unit) {
    if (unit < 0x80)
        return unit >= u'A' && unit <= u'Z' ? static_cast<char16_t>(unit + 32) : unit;
    if (unit >= 0xD800 && unit <= 0xDFFF)
        return unit;
    return static_cast<char16_t>(u_foldCase(unit, U_FOLD_CASE_DEFAULT));
}

void foldInPlace(std::u16string& text) {
    for (char16_t& unit : text)
        unit = folded(unit);
}

// Horspool's skip table over the low byte of folded units: each bucket keeps the smallest
// shift of the needle's units in it, so no shift can pass over a match.
std::array<int, 256> skipTable(const std::u16string& needle) {
    std::array<int, 256> skip;
    const int m = static_cast<int>(needle.size());
    skip.fill(m);
    for (int i = 0; i + 1 < m; ++i)
        skip[needle[static_cast<size_t>(i)] & 0xFF] = m - 1 - i;
    return skip;
}

} // namespace

SearchSelection selectionOf(const SearchResult& result, int cols) {
    const long long endLinear =
        static_cast<long long>(result.row.value) * cols + result.col.value + result.size;
    long long endRow = endLinear / cols;
    long long endCol = endLinear % cols;
    if (endCol == 0 && result.size > 0) {
        // Ending at the right edge: the end is past the last column of the row, not the
        // start of the next one.
        endRow -= 1;
        endCol = cols;
    }
    return {{result.col, result.row}, {Col(static_cast<int>(endCol)), LineIndex(static_cast<int>(endRow))}};
}

SearchEngine::SearchEngine(const Terminal& terminal, SearchLineCache& lineCache)
    : m_terminal(terminal), m_lineCache(lineCache),
      m_nonWordCharacters(kNonWordCharacters.begin(), kNonWordCharacters.end()) {}

SearchEngine::~SearchEngine() = default;

bool SearchEngine::prepare(const std::string& term, const SearchOptions& options) {
    if (term.empty())
        return false;
    if (m_queryId != 0 && term == m_term && options == m_options)
        return m_validQuery;
    m_term = term;
    m_options = options;
    ++m_queryId;
    m_matcher.reset();
    m_pattern.reset();
    m_needle = utf16(term);
    m_validQuery = true;
    if (options.regex) {
        UErrorCode status = U_ZERO_ERROR;
        UParseError parseError;
        const uint32_t flags = options.caseSensitive ? 0 : UREGEX_CASE_INSENSITIVE;
        m_pattern.reset(
            icu::RegexPattern::compile(icu::UnicodeString::fromUTF8(term), flags, parseError, status));
        // A pattern that does not compile finds nothing, as a person typing one expects
        // while it is half written.
        if (U_FAILURE(status))
            m_pattern.reset();
        if (m_pattern)
            m_matcher.reset(m_pattern->matcher(status));
        if (U_FAILURE(status))
            m_matcher.reset();
        m_validQuery = m_matcher != nullptr;
    } else if (!options.caseSensitive) {
        foldInPlace(m_needle);
        m_skip = skipTable(m_needle);
    }
    prepareCellFilter(term, options);
    return m_validQuery;
}

void SearchEngine::prepareCellFilter(const std::string& term, const SearchOptions& options) {
    m_cellLiteral.clear();
    if (!options.regex) {
        if (std::all_of(term.begin(), term.end(),
                        [](char c) { return static_cast<unsigned char>(c) < 0x80; }))
            m_cellLiteral = term;
    } else if (term.find('|') == std::string::npos) {
        // Every match of a pattern with no alternative begins with the letters and digits
        // it starts with, less the last when a quantifier lets that one be left out.
        size_t n = 0;
        while (n < term.size() && std::isalnum(static_cast<unsigned char>(term[n])) != 0)
            ++n;
        if (n < term.size() && (term[n] == '?' || term[n] == '*' || term[n] == '{'))
            n = n == 0 ? 0 : n - 1;
        m_cellLiteral = term.substr(0, n);
    }
    for (size_t c = 0; c < m_cellKey.size(); ++c) {
        const auto unit = static_cast<char16_t>(c == 0 ? u' ' : c);
        m_cellKey[c] = static_cast<uint8_t>(options.caseSensitive ? unit : folded(unit));
    }
    for (char& c : m_cellLiteral)
        c = static_cast<char>(m_cellKey[static_cast<unsigned char>(c)]);
    m_cellLiteralNeedsAscii = options.regex && !options.caseSensitive;
    const int m = static_cast<int>(m_cellLiteral.size());
    m_cellSkip.fill(m);
    for (int i = 0; i + 1 < m; ++i)
        m_cellSkip[static_cast<unsigned char>(m_cellLiteral[static_cast<size_t>(i)])] = m - 1 - i;
}

namespace {

// Whether every cell of [0, n) holds an ASCII character (or nothing) one column wide. Four
// cells are three 16-byte words; the masks pick each cell's code bits from 0x80 up and its
// width byte (made 0 when it is 1), so that one or over the whole row says it.
bool allAsciiOneColumn(const CharData* cells, int n) {
    static_assert(sizeof(CharData) == 12 && offsetof(CharData, code) == 0 && offsetof(CharData, width) == 10);
    uint32_t seen = 0;
    int col = 0;
    if constexpr (std::endian::native == std::endian::little) {
        using Words = uint32_t __attribute__((vector_size(16)));
        constexpr uint32_t kCode = 0xFFFFFF80u;
        constexpr uint32_t kWidth = 0x00FF0000u;
        constexpr uint32_t kOne = 0x00010000u;
        // Words of four cells: code0 attr0 pw0 code1 | attr1 pw1 code2 attr2 | pw2 code3 attr3 pw3,
        // where pw is the payload with the width and class bytes above it.
        constexpr Words mask0 = {kCode, 0, kWidth, kCode}, flip0 = {0, 0, kOne, 0};
        constexpr Words mask1 = {0, kWidth, kCode, 0}, flip1 = {0, kOne, 0, 0};
        constexpr Words mask2 = {kWidth, kCode, 0, kWidth}, flip2 = {kOne, 0, 0, kOne};
        Words any = {0, 0, 0, 0};
        const auto* bytes = reinterpret_cast<const unsigned char*>(cells);
        for (; col + 4 <= n; col += 4) {
            Words w0;
            Words w1;
            Words w2;
            std::memcpy(&w0, bytes + col * 12, 16);
            std::memcpy(&w1, bytes + col * 12 + 16, 16);
            std::memcpy(&w2, bytes + col * 12 + 32, 16);
            any |= ((w0 ^ flip0) & mask0) | ((w1 ^ flip1) & mask1) | ((w2 ^ flip2) & mask2);
        }
        seen = any[0] | any[1] | any[2] | any[3];
    }
    for (; col < n; ++col)
        seen |= static_cast<uint32_t>(cells[col].code) | (static_cast<uint32_t>(cells[col].width ^ 1) << 7);
    return seen < 0x80;
}

// Horspool's search for a literal over cells read one key each, keys at most 0xFF.
template <typename KeyOf>
bool holdsLiteral(const CharData* cells, int n, std::string_view literal, const std::array<int, 256>& skip,
                  KeyOf keyOf) {
    const int m = static_cast<int>(literal.size());
    const auto last = static_cast<uint8_t>(literal.back());
    for (int at = m - 1; at < n;) {
        const uint8_t key = keyOf(cells[at]);
        if (key == last) {
            int j = m - 2;
            while (j >= 0 &&
                   keyOf(cells[at - (m - 1) + j]) == static_cast<uint8_t>(literal[static_cast<size_t>(j)]))
                --j;
            if (j < 0)
                return true;
        }
        at += skip[key];
    }
    return false;
}

} // namespace

// Whether the query may match in a line, read from its cells without making its text. In a
// line of one row, a cell's text is one unit, and ASCII folds only to ASCII and from two
// letters (KELVIN SIGN, LONG S), as long as no cell holds a cluster of several characters
// (one of those could hold ASCII letters) and each wide character is one unit beside a right
// half: then a match of an ASCII literal in the text is the same match in the cells read
// one key each (other characters read as a key no literal holds). If the cells do not hold
// the literal, no match can start in the line. Any other line is left to its text.
bool SearchEngine::mayMatch(const SearchLineSlot& slot, LineIndex row) const {
    if (m_cellLiteral.empty() || slot.rows != 1)
        return true;
    const BufferLine& line = m_terminal.buffer().line(row);
    const CharData* cells = line.cells();
    const int n = std::min(line.cleanFrom(), line.count());
    const std::string_view literal = m_cellLiteral;
    if (m_cellLiteralNeedsAscii || m_terminal.tables().characters.multiScalarCount() != 0) {
        if (!allAsciiOneColumn(cells, n))
            return true;
        return holdsLiteral(cells, n, literal, m_cellSkip,
                            [&](const CharData& c) { return m_cellKey[static_cast<size_t>(c.code)]; });
    }
    constexpr uint8_t kNoLiteral = 0xFF;
    const bool fold = !m_options.caseSensitive;
    return holdsLiteral(cells, n, literal, m_cellSkip, [&](const CharData& c) -> uint8_t {
        if (static_cast<uint32_t>(c.code) < 0x80 && c.width == 1) [[likely]]
            return m_cellKey[static_cast<size_t>(c.code)];
        if (fold && c.width == 1 && (c.code == 0x212A || c.code == 0x17F))
            return c.code == 0x212A ? 'k' : 's';
        return kNoLiteral;
    });
}

bool SearchEngine::isWholeWord(std::u16string_view text, int begin, int end) const {
    const bool before = begin == 0 || m_nonWordCharacters.contains(text[static_cast<size_t>(begin) - 1]);
    const bool after =
        end >= static_cast<int>(text.size()) || m_nonWordCharacters.contains(text[static_cast<size_t>(end)]);
    return before && after;
}

void SearchEngine::findPlain(std::u16string_view text, std::vector<std::pair<int, int>>& out) const {
    const auto record = [&](size_t at) {
        const auto begin = static_cast<int>(at);
        const int end = begin + static_cast<int>(m_needle.size());
        if (m_options.wholeWord && !isWholeWord(text, begin, end))
            return at + 1; // a part of a longer word: look on from the next character
        out.emplace_back(begin, end);
        return static_cast<size_t>(end);
    };
    if (m_options.caseSensitive) {
        for (size_t at = text.find(m_needle); at != std::u16string_view::npos; at = text.find(m_needle, at))
            at = record(at);
        return;
    }
    // Case-insensitive without a folded copy of every line: a skipping search that compares
    // folded units against the folded needle.
    const std::array<int, 256>& skip = m_skip;
    const int m = static_cast<int>(m_needle.size());
    const int n = static_cast<int>(text.size());
    for (int at = 0; at + m <= n;) {
        int j = m - 1;
        while (j >= 0 && folded(text[static_cast<size_t>(at + j)]) == m_needle[static_cast<size_t>(j)])
            --j;
        if (j < 0)
            at = static_cast<int>(record(static_cast<size_t>(at)));
        else
            at += skip[folded(text[static_cast<size_t>(at + m - 1)]) & 0xFF];
    }
}

void SearchEngine::findInLine(SearchLineEntry& entry) {
    entry.matches.clear();
    const std::u16string_view text = entry.lineAsString;
    if (!m_options.regex) {
        findPlain(text, entry.matches);
        return;
    }
    const icu::UnicodeString input(false, text.data(), static_cast<int32_t>(text.size()));
    UErrorCode status = U_ZERO_ERROR;
    m_matcher->reset(input);
    int64_t from = 0;
    const auto length = static_cast<int64_t>(text.size());
    while (from <= length && m_matcher->find(from, status) && U_SUCCESS(status)) {
        const int begin = m_matcher->start(status);
        const int end = m_matcher->end(status);
        if (end == begin) {
            from = begin + 1; // an empty match selects nothing; look further on
            continue;
        }
        if (!m_options.wholeWord || isWholeWord(text, begin, end))
            entry.matches.emplace_back(begin, end);
        from = end;
    }
}

const std::vector<std::pair<int, int>>& SearchEngine::matchesIn(SearchLineSlot& slot, LineIndex row) {
    static const std::vector<std::pair<int, int>> kNone;
    if (slot.matchQuery != m_queryId) {
        slot.matchQuery = m_queryId;
        slot.matchCount = 0;
        if (slot.entry)
            slot.entry->matches.clear();
        if (!mayMatch(slot, row))
            return kNone;
        SearchLineEntry& entry = m_lineCache.text(slot, row);
        findInLine(entry);
        slot.matchCount = static_cast<uint32_t>(entry.matches.size());
    }
    return slot.matchCount != 0 ? slot.entry->matches : kNone;
}

SearchResult SearchEngine::resultOf(const SearchLineEntry& entry, LineIndex row,
                                    std::pair<int, int> match) const {
    const auto [firstRow, firstCol] = entry.cellOf(match.first);
    const auto [lastRow, lastCol] = entry.cellOf(match.second - 1);
    int lastWidth = 1;
    if (!entry.simple()) {
        const BufferLine& line = m_terminal.buffer().line(row + lastRow);
        lastWidth = lastCol < line.count() && line[lastCol].width == 2 ? 2 : 1;
    }
    SearchResult r;
    r.term = m_term;
    r.col = Col(firstCol);
    r.row = row + firstRow;
    r.size = (lastRow - firstRow) * m_terminal.cols() + lastCol + lastWidth - firstCol;
    return r;
}

LineIndex SearchEngine::logicalLineStart(LineIndex row) const {
    const Buffer& buffer = m_terminal.buffer();
    row = LineIndex(std::clamp(row.value, 0, std::max(0, buffer.lineCount() - 1)));
    while (row.value > 0 && buffer.line(row).isWrapped())
        --row;
    return row;
}

std::optional<SearchResult> SearchEngine::find(const std::string& term, LineIndex startRow, Col startCol,
                                               const SearchOptions& options) {
    if (!prepare(term, options))
        return std::nullopt;
    const int lineCount = m_terminal.buffer().lineCount();
    if (startRow.value >= lineCount)
        return std::nullopt;
    const LineIndex first = logicalLineStart(startRow);
    for (LineIndex row = first; row.value < lineCount;) {
        SearchLineSlot& slot = m_lineCache.slot(row);
        const SearchLineEntry& entry = *slot.entry;
        const int minUnit =
            row == first ? entry.unitOf(std::min(startRow - first, entry.rowCount() - 1), startCol.value) : 0;
        for (const auto& match : matchesIn(slot, row)) {
            if (match.first >= minUnit)
                return resultOf(entry, row, match);
        }
        row += slot.rows;
    }
    return std::nullopt;
}

std::optional<SearchResult> SearchEngine::findBackward(const std::string& term, LineIndex startRow,
                                                       Col startCol, const SearchOptions& options) {
    if (!prepare(term, options) || m_terminal.buffer().lineCount() == 0)
        return std::nullopt;
    const LineIndex first = logicalLineStart(startRow);
    for (LineIndex row = first;;) {
        SearchLineSlot& slot = m_lineCache.slot(row);
        const SearchLineEntry& entry = *slot.entry;
        const int maxUnit =
            row == first ? entry.unitOf(std::min(startRow - first, entry.rowCount() - 1), startCol.value)
                         : static_cast<int>(entry.lineAsString.size()) + 1;
        const auto& matches = matchesIn(slot, row);
        for (auto it = matches.rbegin(); it != matches.rend(); ++it) {
            if (it->first < maxUnit)
                return resultOf(entry, row, *it);
        }
        if (row.value == 0)
            return std::nullopt;
        row = logicalLineStart(row - 1);
    }
}

void SearchEngine::findAllFrom(LineIndex from, size_t limit, std::vector<SearchResult>& results) {
    const CircularBufferLineList& lines = m_terminal.buffer().lines();
    const int lineCount = m_terminal.buffer().lineCount();
    m_lineCache.follow();
    for (LineIndex row = from; row.value < lineCount && results.size() < limit;) {
        // Each line's cells are a block of their own, so a pass over the scrollback waits on
        // memory at every line: ask for lines ahead (their objects, then their first cells)
        // while this one is read.
        if (row.value + 2 * kLinesAhead < lineCount) {
            if (const BufferLine* ahead = lines.peek(row.value + 2 * kLinesAhead))
                __builtin_prefetch(ahead);
        }
        if (row.value + kLinesAhead < lineCount) {
            if (const BufferLine* ahead = lines.peek(row.value + kLinesAhead)) {
                const auto* cells = reinterpret_cast<const char*>(ahead->cells());
                for (int at = 0; at < kCellBytesAhead; at += 64)
                    __builtin_prefetch(cells + at);
            }
        }
        // The text is made only for lines whose cells may hold a match; a line already
        // searched for this query with no match is passed over without reading it.
        SearchLineSlot& slot = m_lineCache.stampedAsFollowed(row);
        if (slot.matchQuery != m_queryId || slot.matchCount != 0) {
            for (const auto& match : matchesIn(slot, row)) {
                if (results.size() >= limit)
                    break;
                results.push_back(resultOf(*slot.entry, row, match));
            }
        }
        row += slot.rows;
    }
}

std::vector<SearchResult> SearchEngine::findAll(const std::string& term, const SearchOptions& options,
                                                size_t limit) {
    std::vector<SearchResult> results;
    if (!prepare(term, options))
        return results;
    const Buffer& buffer = m_terminal.buffer();
    const long long linesTop = buffer.invariantBase() - buffer.yBase().value;
    ScrollbackMatches& last = m_scrollbackMatches;
    const bool reusable = last.queryId == m_queryId && last.buffer == &buffer &&
                          last.cols == m_terminal.cols() && last.rows == m_terminal.rows() &&
                          buffer.lineCount() >= last.lineCount && linesTop >= last.linesTop;
    LineIndex from(0);
    if (reusable) {
        // Matches on lines that left the ring go (they are the first ones); the rest keep
        // their place in the scroll-invariant numbering.
        auto kept = std::lower_bound(last.matches.begin(), last.matches.end(), linesTop,
                                     [](const KeptMatch& k, long long top) { return k.row < top; });
        if (kept - last.matches.begin() > static_cast<std::ptrdiff_t>(last.matches.size() / 2)) {
            kept = last.matches.erase(last.matches.begin(), kept);
        }
        const size_t count = std::min(limit, static_cast<size_t>(last.matches.end() - kept));
        results.reserve(count + kReservedForNewMatches);
        for (auto k = kept; k != kept + static_cast<std::ptrdiff_t>(count); ++k)
            results.push_back({m_term, Col(k->col), LineIndex(static_cast<int>(k->row - linesTop)), k->size});
        from = LineIndex(static_cast<int>(std::max(0LL, last.stableEnd - linesTop)));
    } else {
        last.matches.clear();
    }
    const size_t reused = results.size();
    findAllFrom(from, limit, results);

    if (results.size() >= limit) {
        last = {};
        return results;
    }
    // Rows before the logical line the screen starts in are scrollback from now on.
    const LineIndex stableEnd = logicalLineStart(buffer.yBase());
    for (auto r = results.begin() + static_cast<std::ptrdiff_t>(reused);
         r != results.end() && r->row < stableEnd; ++r)
        last.matches.push_back({r->row.value + linesTop, r->col.value, r->size});
    last.stableEnd = std::max(stableEnd.value + linesTop, reusable ? last.stableEnd : 0LL);
    last.queryId = m_queryId;
    last.buffer = &buffer;
    last.cols = m_terminal.cols();
    last.rows = m_terminal.rows();
    last.lineCount = buffer.lineCount();
    last.linesTop = linesTop;
    return results;
}

} // namespace termkit
