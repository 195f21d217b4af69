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
    const std::vector<std::pair<int, int>>& matchesIn(SearchLineSlot& slot, LineIndex row);
    void prepareCellFilter(const std::string& term, const SearchOptions& options);
    bool mayMatch(const SearchLineSlot& slot, LineIndex row) const;
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
    // What a line of plain ASCII cells must hold for the query to match in it: the whole
    // term, or the letters and digits a pattern starts with, as the cells' codes read (folded
    // when the case does not matter); empty when nothing is known. With it, a cold search
    // reads most lines' cells once and makes no text for them.
    std::string m_cellLiteral;
    std::array<uint8_t, 128> m_cellKey{};
    std::array<int, 256> m_cellSkip{};
    // Whether a line's cells must all be plain ASCII for the literal to decide: so for a
    // pattern without case, whose matcher folds a few other letters to ASCII ones.
    bool m_cellLiteralNeedsAscii = false;
    SearchOptions m_options;
    std::unique_ptr<icu::RegexPattern> m_pattern;
    std::unique_ptr<icu::RegexMatcher> m_matcher;
    bool m_validQuery = false;
    uint64_t m_queryId = 0;
    // The last `findAll` over the scrollback. Lines there never change in place: they only
    // leave through the top of a full ring, or all go with a clear, a reset or a resize. So
    // its matches stay true, shifted by the lines that left, and a repeated `findAll` only
    // searches the rows that were on the screen or are new.
    // A match kept from the scrollback, its row counted from the buffer's invariant base.
    struct KeptMatch {
        long long row;
        int col;
        int size;
    };
    struct ScrollbackMatches {
        uint64_t queryId = 0;
        const Buffer* buffer = nullptr;
        int cols = 0;
        int rows = 0;
        int lineCount = 0;
        long long linesTop = 0;
        // The first invariant row not yet searched as scrollback.
        long long stableEnd = 0;
        std::vector<KeptMatch> matches;
    };
    ScrollbackMatches m_scrollbackMatches;
};

} // namespace termkit
