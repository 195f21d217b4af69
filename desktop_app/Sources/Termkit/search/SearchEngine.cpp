#include "Termkit/search/SearchEngine.h"

#include <unicode/regex.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "Termkit/engine/Terminal.h"

namespace termkit {

namespace {

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
    return m_validQuery;
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

const std::vector<std::pair<int, int>>& SearchEngine::matchesIn(SearchLineSlot& slot) {
    if (slot.matchQuery != m_queryId) {
        findInLine(slot.entry);
        slot.matchQuery = m_queryId;
        slot.matchCount = static_cast<uint32_t>(slot.entry.matches.size());
    }
    return slot.entry.matches;
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
        const SearchLineEntry& entry = slot.entry;
        const int minUnit =
            row == first ? entry.unitOf(std::min(startRow - first, entry.rowCount() - 1), startCol.value) : 0;
        for (const auto& match : matchesIn(slot)) {
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
        const SearchLineEntry& entry = slot.entry;
        const int maxUnit =
            row == first ? entry.unitOf(std::min(startRow - first, entry.rowCount() - 1), startCol.value)
                         : static_cast<int>(entry.lineAsString.size()) + 1;
        const auto& matches = matchesIn(slot);
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
    const int lineCount = m_terminal.buffer().lineCount();
    for (LineIndex row = from; row.value < lineCount && results.size() < limit;) {
        SearchLineSlot& slot = m_lineCache.slot(row);
        // A line already searched for this query with no match is passed over without
        // reading its entry.
        if (slot.matchQuery != m_queryId || slot.matchCount != 0) {
            for (const auto& match : matchesIn(slot)) {
                if (results.size() >= limit)
                    break;
                results.push_back(resultOf(slot.entry, row, match));
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
                          buffer.lineCount() >= last.lineCount && linesTop >= last.linesTop &&
                          last.results.size() < limit;
    LineIndex from(0);
    if (reusable) {
        const auto gone = static_cast<int>(linesTop - last.linesTop);
        // Matches on lines that left the ring go; the rest move up with their lines.
        for (const SearchResult& r : last.results) {
            if (r.row.value >= gone && results.size() < limit) {
                results.push_back(r);
                results.back().row -= gone;
            }
        }
        from = LineIndex(std::max(0, last.stableEnd.value - gone));
    }
    findAllFrom(from, limit, results);

    last = {};
    if (results.size() < limit) {
        // Rows before the logical line the screen starts in are scrollback from now on.
        last.stableEnd = logicalLineStart(buffer.yBase());
        last.queryId = m_queryId;
        last.buffer = &buffer;
        last.cols = m_terminal.cols();
        last.rows = m_terminal.rows();
        last.lineCount = buffer.lineCount();
        last.linesTop = linesTop;
        const auto stable = std::find_if(results.begin(), results.end(),
                                         [&](const SearchResult& r) { return r.row >= last.stableEnd; });
        last.results.assign(results.begin(), stable);
    }
    return results;
}

} // namespace termkit
