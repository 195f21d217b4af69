#include "Termkit/parser/ParserProfile.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace termkit {

namespace {

std::atomic<uint64_t> g_spans{0};
std::atomic<uint64_t> g_nanoseconds{0};
std::atomic<uint64_t> g_bytes{0};

// Printed once at exit so that a profiled run leaves its totals without a debugger.
void printTotals() {
    std::fprintf(stderr, "Info: ParserProfile: Parser.Parse spans=%llu seconds=%.6f bytes=%llu\n",
                 static_cast<unsigned long long>(g_spans.load()), g_nanoseconds.load() / 1e9,
                 static_cast<unsigned long long>(g_bytes.load()));
}

bool readEnvironment() {
    const char* value = std::getenv("TERMKIT_PROFILE");
    const bool on = value != nullptr && std::strcmp(value, "1") == 0;
    if (on)
        std::atexit(printTotals);
    return on;
}

} // namespace

bool ParserProfile::enabled() {
    static const bool on = readEnvironment();
    return on;
}

void ParserProfile::record(std::chrono::nanoseconds span, uint64_t bytes) {
    g_spans.fetch_add(1, std::memory_order_relaxed);
    g_nanoseconds.fetch_add(static_cast<uint64_t>(span.count()), std::memory_order_relaxed);
    g_bytes.fetch_add(bytes, std::memory_order_relaxed);
}

uint64_t ParserProfile::spans() {
    return g_spans.load();
}
uint64_t ParserProfile::totalNanoseconds() {
    return g_nanoseconds.load();
}
uint64_t ParserProfile::totalBytes() {
    return g_bytes.load();
}

} // namespace termkit
