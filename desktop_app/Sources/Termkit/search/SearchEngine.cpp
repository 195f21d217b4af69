#include "Termkit/search/SearchEngine.h"

#include <unicode/regex.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <algorithm>
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

// Simple case folding maps each code point to one, so offsets into the folded text are
// offsets into the original too.
void foldInPlace(std::u16string& text) {
    for (char16_t& unit : text) {
        if (unit < 0xD800 || unit > 0xDFFF)
            unit = static_cast<char16_t>(u_foldCase(unit, U_FOLD_CASE_DEFAULT));
    }
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
        m_validQuery = m_pattern != nullptr;
    } else if (!options.caseSensitive) {
        foldInPlace(m_needle);
    }
    return m_validQuery;
}

bool SearchEngine::isWholeWord(const std::u16string& text, int begin, int end) const {
    const bool before = begin == 0 || m_nonWordCharacters.contains(text[static_cast<size_t>(begin) - 1]);
    const bool after =
        end >= static_cast<int>(text.size()) || m_nonWordCharacters.contains(text[static_cast<size_t>(end)]);
    return before && after;
}

void SearchEngine::findInLine(SearchLineEntry& entry) {
    entry.matches.clear();
    entry.matchQuery = m_queryId;
    const std::u16string* text = &entry.lineAsString;
    if (m_options.regex) {
        const icu::UnicodeString input(false, text->data(), static_cast<int32_t>(text->size()));
        UErrorCode status = U_ZERO_ERROR;
        std::unique_ptr<icu::RegexMatcher> matcher(m_pattern->matcher(input, status));
        if (U_FAILURE(status))
            return;
        int64_t from = 0;
        const auto length = static_cast<int64_t>(text->size());
        while (from <= length && matcher->find(from, status) && U_SUCCESS(status)) {
            const int begin = matcher->start(status);
            const int end = matcher->end(status);
            if (end == begin) {
                from = begin + 1; // an empty match selects nothing; look further on
                continue;
            }
            if (!m_options.wholeWord || isWholeWord(*text, begin, end))
                entry.matches.emplace_back(begin, end);
            from = end;
        }
        return;
    }
    if (!m_options.caseSensitive) {
        if (!entry.hasFolded) {
            entry.folded = entry.lineAsString;
            foldInPlace(entry.folded);
            entry.hasFolded = true;
        }
        text = &entry.folded;
    }
    const std::u16string_view haystack(*text);
    for (size_t at = haystack.find(m_needle); at != std::u16string_view::npos;
         at = haystack.find(m_needle, at)) {
        const auto begin = static_cast<int>(at);
        const int end = begin + static_cast<int>(m_needle.size());
        if (m_options.wholeWord && !isWholeWord(*text, begin, end)) {
            at += 1;
            continue;
        }
        entry.matches.emplace_back(begin, end);
        at = static_cast<size_t>(end);
    }
}

const std::vector<std::pair<int, int>>& SearchEngine::matchesIn(SearchLineEntry& entry) {
    if (entry.matchQuery != m_queryId)
        findInLine(entry);
    return entry.matches;
}

SearchResult SearchEngine::resultOf(const SearchLineEntry& entry, LineIndex row,
                                    std::pair<int, int> match) const {
    const auto [firstRow, firstCol] = entry.cellOf(match.first);
    const auto [lastRow, lastCol] = entry.cellOf(match.second - 1);
    const BufferLine& line = m_terminal.buffer().line(row + lastRow);
    const int lastWidth = lastCol < line.count() && line[lastCol].width == 2 ? 2 : 1;
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
        SearchLineEntry& entry = m_lineCache.entry(row);
        const int minUnit =
            row == first ? entry.unitOf(std::min(startRow - first, entry.rowCount() - 1), startCol.value) : 0;
        for (const auto& match : matchesIn(entry)) {
            if (match.first >= minUnit)
                return resultOf(entry, row, match);
        }
        row += entry.rowCount();
    }
    return std::nullopt;
}

std::optional<SearchResult> SearchEngine::findBackward(const std::string& term, LineIndex startRow,
                                                       Col startCol, const SearchOptions& options) {
    if (!prepare(term, options) || m_terminal.buffer().lineCount() == 0)
        return std::nullopt;
    const LineIndex first = logicalLineStart(startRow);
    for (LineIndex row = first;;) {
        SearchLineEntry& entry = m_lineCache.entry(row);
        const int maxUnit =
            row == first ? entry.unitOf(std::min(startRow - first, entry.rowCount() - 1), startCol.value)
                         : static_cast<int>(entry.lineAsString.size()) + 1;
        const auto& matches = matchesIn(entry);
        for (auto it = matches.rbegin(); it != matches.rend(); ++it) {
            if (it->first < maxUnit)
                return resultOf(entry, row, *it);
        }
        if (row.value == 0)
            return std::nullopt;
        row = logicalLineStart(row - 1);
    }
}

std::vector<SearchResult> SearchEngine::findAll(const std::string& term, const SearchOptions& options,
                                                size_t limit) {
    std::vector<SearchResult> results;
    if (!prepare(term, options))
        return results;
    const int lineCount = m_terminal.buffer().lineCount();
    for (LineIndex row(0); row.value < lineCount && results.size() < limit;) {
        SearchLineEntry& entry = m_lineCache.entry(row);
        for (const auto& match : matchesIn(entry)) {
            if (results.size() >= limit)
                break;
            results.push_back(resultOf(entry, row, match));
        }
        row += entry.rowCount();
    }
    return results;
}

} // namespace termkit
