#pragma once
// Finding a term in the buffer's logical lines, as plain text or an ICU regular expression.

#include <unicode/uversion.h>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "Termkit/buffer/Indices.h"
#include "Termkit/search/SearchLineCache.h"

U_NAMESPACE_BEGIN
class RegexPattern;
class RegexMatcher;
U_NAMESPACE_END

namespace termkit {

class Buffer;

struct SearchOptions {
    bool caseSensitive = false;
    bool regex = false;
    bool wholeWord = false;
    bool operator==(const SearchOptions&) const = default;
};

/// A match: where it starts and how many cells it covers, counted along the rows.
struct SearchResult {
    std::string term;
    Col col;
    LineIndex row;
    int size = 0;
};

/// A match as a selection: start and exclusive end.
struct SearchSelection {
    Position start;
    Position end;
};

/// The cells a result covers, for a buffer `cols` wide.
SearchSelection selectionOf(const SearchResult& result, int cols);

/// Finds matches line by line. Each line's matches for the present term and options are
/// kept in its cache entry, so a repeated search reads only lines that changed.
class SearchEngine {
public:
    SearchEngine(const Terminal& terminal, SearchLineCache& lineCache);
    ~SearchEngine();

    /// The first match at or after the position, searching down to the last row.
    std::optional<SearchResult> find(const std::string& term, LineIndex startRow, Col startCol,
                                     const SearchOptions& options);
    /// The last match that starts before the position, searching up to the first row.
    std::optional<SearchResult> findBackward(const std::string& term, LineIndex startRow, Col startCol,
                                             const SearchOptions& options);
    /// Every match from the top, at most `limit`.
    std::vector<SearchResult> findAll(const std::string& term, const SearchOptions& options, size_t limit);

    /// Characters that may border a whole word.
    const std::unordered_set<char16_t>& nonWordCharacters() const { return m_nonWordCharacters; }

private:
    bool prepare(const std::string& term, const SearchOptions& options);
    const std::vector<std::pair<int, int>>& matchesIn(SearchLineSlot& slot);
    void findInLine(SearchLineEntry& entry);
    void findPlain(std::u16string_view text, std::vector<std::pair<int, int>>& out) const;
    bool isWholeWord(std::u16string_view text, int begin, int end) const;
    SearchResult resultOf(const SearchLineEntry& entry, LineIndex row, std::pair<int, int> match) const;
    LineIndex logicalLineStart(LineIndex row) const;
    void findAllFrom(LineIndex from, size_t limit, std::vector<SearchResult>& results);

    const Terminal& m_terminal;
    SearchLineCache& m_lineCache;
    std::unordered_set<char16_t> m_nonWordCharacters;
    // The query in force: term, options, the compiled pattern, and an id that marks the
    // matches cache entries hold for it.
    std::string m_term;
    std::u16string m_needle;
    // The skip table of the folded needle, made once per query rather than once per line.
    std::array<int, 256> m_skip{};
    SearchOptions m_options;
    std::unique_ptr<icu::RegexPattern> m_pattern;
    std::unique_ptr<icu::RegexMatcher> m_matcher;
    bool m_validQuery = false;
    uint64_t m_queryId = 0;
    // The last `findAll` over the scrollback. Lines there never change in place: they only
    // leave through the top of a full ring, or all go with a clear, a reset or a resize. So
    // its matches stay true, shifted by the lines that left, and a repeated `findAll` only
    // searches the rows that were on the screen or are new.
    struct ScrollbackMatches {
        uint64_t queryId = 0;
        const Buffer* buffer = nullptr;
        int cols = 0;
        int rows = 0;
        int lineCount = 0;
        long long linesTop = 0;
        LineIndex stableEnd;
        std::vector<SearchResult> results;
    };
    ScrollbackMatches m_scrollbackMatches;
};

} // namespace termkit
