#pragma once
// Find next, previous and all over a terminal's active buffer, remembering where the last
// match was so that the next search goes on from there.

#include <optional>
#include <string>
#include <vector>

#include "Termkit/search/SearchEngine.h"
#include "Termkit/search/SearchLineCache.h"

namespace termkit {

/// The term and options the remembered match belongs to.
struct SearchState {
    std::string cachedSearchTerm;
    SearchOptions lastSearchOptions;
};

class SearchService {
public:
    explicit SearchService(const Terminal& terminal);

    /// The next match after the last one (or from the top), wrapping past the last row.
    std::optional<SearchResult> findNext(const std::string& term, const SearchOptions& options = {});
    /// The match before the last one (or from the bottom), wrapping past the first row.
    std::optional<SearchResult> findPrevious(const std::string& term, const SearchOptions& options = {});
    std::vector<SearchResult> findAll(const std::string& term, const SearchOptions& options = {},
                                      size_t limit = kDefaultLimit);
    /// Forgets the last match.
    void reset();
    /// Drops the cached lines (their own checks catch changed rows; this frees the memory).
    void invalidate();

    const std::optional<SearchSelection>& lastSelection() const { return m_lastSelection; }
    const std::optional<SearchResult>& lastResult() const { return m_lastResult; }
    const SearchLineCache& lineCache() const { return m_lineCache; }

    /// Enough matches to highlight every one a person can look at, bounded so that a
    /// one-letter term over a long scrollback stays quick.
    static constexpr size_t kDefaultLimit = 10000;

private:
    void noteQuery(const std::string& term, const SearchOptions& options);
    std::optional<SearchResult> remember(std::optional<SearchResult> result);

    const Terminal& m_terminal;
    SearchState m_state;
    SearchLineCache m_lineCache;
    SearchEngine m_engine;
    std::optional<SearchSelection> m_lastSelection;
    std::optional<SearchResult> m_lastResult;
};

} // namespace termkit
