#include "Termkit/search/SearchService.h"

#include "Termkit/engine/Terminal.h"

namespace termkit {

SearchService::SearchService(const Terminal& terminal)
    : m_terminal(terminal), m_lineCache(terminal), m_engine(terminal, m_lineCache) {}

void SearchService::noteQuery(const std::string& term, const SearchOptions& options) {
    if (term == m_state.cachedSearchTerm && options == m_state.lastSearchOptions)
        return;
    // Another term or options: the last match says nothing about where to go on.
    m_state.cachedSearchTerm = term;
    m_state.lastSearchOptions = options;
    reset();
}

std::optional<SearchResult> SearchService::remember(std::optional<SearchResult> result) {
    if (result) {
        m_lastResult = result;
        m_lastSelection = selectionOf(*result, m_terminal.cols());
    }
    return result;
}

std::optional<SearchResult> SearchService::findNext(const std::string& term, const SearchOptions& options) {
    noteQuery(term, options);
    const Position from = m_lastSelection ? m_lastSelection->end : Position(Col(0), LineIndex(0));
    std::optional<SearchResult> result = m_engine.find(term, from.row, from.col, options);
    if (!result && m_lastSelection)
        result = m_engine.find(term, LineIndex(0), Col(0), options);
    return remember(std::move(result));
}

std::optional<SearchResult> SearchService::findPrevious(const std::string& term,
                                                        const SearchOptions& options) {
    noteQuery(term, options);
    const Position bottom(Col(m_terminal.cols()), LineIndex(m_terminal.buffer().lineCount() - 1));
    const Position from = m_lastSelection ? m_lastSelection->start : bottom;
    std::optional<SearchResult> result = m_engine.findBackward(term, from.row, from.col, options);
    if (!result && m_lastSelection)
        result = m_engine.findBackward(term, bottom.row, bottom.col, options);
    return remember(std::move(result));
}

std::vector<SearchResult> SearchService::findAll(const std::string& term, const SearchOptions& options,
                                                 size_t limit) {
    return m_engine.findAll(term, options, limit);
}

void SearchService::reset() {
    m_lastSelection.reset();
    m_lastResult.reset();
}

void SearchService::invalidate() {
    m_lineCache.invalidate();
}

} // namespace termkit
