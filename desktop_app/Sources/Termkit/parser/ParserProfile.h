#pragma once
// Optional timing of the parser, switched on by TERMKIT_PROFILE=1.

#include <chrono>
#include <cstdint>

namespace termkit {

/// Process-wide record of how long `parse` spans took. The environment variable is read
/// once per process; when it is not "1" a span costs one predictable branch.
class ParserProfile {
public:
    /// True when TERMKIT_PROFILE was "1" at the first query.
    static bool enabled();
    /// Adds one "Parser.Parse" span to the totals of the "ParserProfile" category.
    static void record(std::chrono::nanoseconds span, uint64_t bytes);
    /// Totals so far: number of spans, nanoseconds and bytes.
    static uint64_t spans();
    static uint64_t totalNanoseconds();
    static uint64_t totalBytes();
};

/// Measures one parse call when profiling is on.
class ParserProfileScope {
public:
    explicit ParserProfileScope(uint64_t bytes) : m_bytes(bytes), m_on(ParserProfile::enabled()) {
        if (m_on)
            m_start = std::chrono::steady_clock::now();
    }
    ~ParserProfileScope() {
        if (m_on)
            ParserProfile::record(std::chrono::steady_clock::now() - m_start, m_bytes);
    }
    ParserProfileScope(const ParserProfileScope&) = delete;
    ParserProfileScope& operator=(const ParserProfileScope&) = delete;

private:
    uint64_t m_bytes;
    bool m_on;
    std::chrono::steady_clock::time_point m_start{};
};

} // namespace termkit
