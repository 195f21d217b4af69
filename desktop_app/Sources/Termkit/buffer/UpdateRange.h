#pragma once
// Coalesced record of the rows that changed since the host last looked.

#include <algorithm>
#include <climits>

namespace termkit {

/// Changed screen rows, and the same rows as scroll-invariant row numbers.
struct UpdateRange {
    int refreshStart = INT_MAX;
    int refreshEnd = -1;
    long long scrollInvariantRefreshStart = LLONG_MAX;
    long long scrollInvariantRefreshEnd = -1;

    /// Marks one screen row; `invariantBase` is the invariant number of screen row 0.
    void mark(int row, long long invariantBase) { mark(row, row, invariantBase); }
    /// Marks an inclusive range of screen rows.
    void mark(int start, int end, long long invariantBase) {
        refreshStart = std::min(refreshStart, start);
        refreshEnd = std::max(refreshEnd, end);
        scrollInvariantRefreshStart = std::min(scrollInvariantRefreshStart, invariantBase + start);
        scrollInvariantRefreshEnd = std::max(scrollInvariantRefreshEnd, invariantBase + end);
    }
    bool empty() const { return refreshEnd < 0; }
    void clear() { *this = UpdateRange{}; }
};

} // namespace termkit
