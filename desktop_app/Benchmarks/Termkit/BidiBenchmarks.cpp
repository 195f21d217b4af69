// The bidi layout of rows: a 200-column row of mixed right-to-left and Latin text laid out
// from scratch and found again in the cache, and the gate every drawn row passes, on rows
// without right-to-left text.

#include <benchmark/benchmark.h>

#include <string>

#include "Termkit/bidi/TerminalBidi.h"
#include "Termkit/engine/Terminal.h"

namespace {

class Quiet : public termkit::TerminalDelegate {
public:
    void send(termkit::Terminal&, std::span<const uint8_t>) override {}
};

constexpr int kCols = 200;
constexpr int kRows = 50;

// Hebrew and Arabic words (with joining letters and a lam-alef), Latin, numbers, brackets.
std::string mixedRow() {
    const std::string words[] = {
        "\xd7\xa9\xd7\x9c\xd7\x95\xd7\x9d",         "hello", "\xd8\xb3\xd9\x84\xd8\xa7\xd9\x85", "(42)",
        "\xd8\xb9\xd9\x84\xd9\x8a\xd9\x83\xd9\x85", "v2.0",  "\xd7\xa2\xd7\x95\xd7\x9c\xd7\x9d", "ls -la"};
    std::string row;
    int cols = 0;
    for (int i = 0; cols < kCols - 10; ++i) {
        const std::string& w = words[i % 8];
        row += w + " ";
        // Every word above is one column per scalar.
        for (unsigned char c : w)
            cols += (c & 0xC0) != 0x80 ? 1 : 0;
        ++cols;
    }
    return row;
}

struct Fixture {
    Quiet host;
    termkit::Terminal terminal;
    explicit Fixture(const std::string& text) : terminal(&host, options()) { terminal.feed(text); }
    static termkit::TerminalOptions options() {
        termkit::TerminalOptions o;
        o.cols = kCols;
        o.rows = kRows;
        return o;
    }
};

void BM_BidiLayoutMixedRowUncached(benchmark::State& state) {
    Fixture f(mixedRow());
    termkit::TerminalBidi bidi;
    const termkit::LineIndex row = f.terminal.buffer().lineIndex(termkit::ScreenRow(0));
    for (auto _ : state) {
        bidi.clearCache();
        benchmark::DoNotOptimize(bidi.layout(row, f.terminal.buffer()));
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_BidiLayoutMixedRowCached(benchmark::State& state) {
    Fixture f(mixedRow());
    termkit::TerminalBidi bidi;
    const termkit::LineIndex row = f.terminal.buffer().lineIndex(termkit::ScreenRow(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(bidi.layout(row, f.terminal.buffer()));
    state.SetItemsProcessed(state.iterations());
}

// What a frame of plain output costs the view: the gate on each of 50 rows of 200 columns.
void BM_BidiGatePlainScreen(benchmark::State& state) {
    std::string text;
    for (int r = 0; r < kRows; ++r)
        text += std::string(kCols - 1, static_cast<char>('a' + r % 26)) + "\r\n";
    Fixture f(text);
    termkit::TerminalBidi bidi;
    const termkit::Buffer& buffer = f.terminal.buffer();
    for (auto _ : state) {
        int reordered = 0;
        for (termkit::ScreenRow r(0); r.value < kRows; ++r)
            reordered += bidi.rowNeedsLayout(buffer.lineIndex(r), buffer) ? 1 : 0;
        benchmark::DoNotOptimize(reordered);
    }
    state.SetItemsProcessed(state.iterations() * kRows);
}

} // namespace

BENCHMARK(BM_BidiLayoutMixedRowUncached);
BENCHMARK(BM_BidiLayoutMixedRowCached);
BENCHMARK(BM_BidiGatePlainScreen);
