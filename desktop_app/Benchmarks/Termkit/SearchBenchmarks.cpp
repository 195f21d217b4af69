// Search and selection over a long scrollback: the sgr corpus (coloured compiler output,
// listings and diffs) fed at 200x50 into 100,000 lines of scrollback. The corpus comes from
// ../shared/bench/gen_corpus.py (via peers/setup.sh); TERMKIT_BENCH_CORPUS names the file,
// by default ~/.cache/termbench/corpus/sgr.bin. search_compare.py runs these beside the
// xterm.js search addon on the same corpus.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "Termkit/engine/Terminal.h"
#include "Termkit/search/SearchService.h"
#include "Termkit/selection/SelectionService.h"

namespace {

constexpr int kCols = 200;
constexpr int kRows = 50;
constexpr int kScrollback = 100000;
constexpr int kSelectedLines = 10000;
constexpr size_t kNoLimit = 1000000;
constexpr const char* kWord = "latency";
constexpr const char* kPattern = "lat[a-z]+cy";

class Discard : public termkit::TerminalDelegate {
public:
    void send(termkit::Terminal&, std::span<const uint8_t>) override {}
};

std::string corpusPath() {
    if (const char* path = std::getenv("TERMKIT_BENCH_CORPUS"))
        return path;
    const char* home = std::getenv("HOME");
    return std::string(home ? home : "") + "/.cache/termbench/corpus/sgr.bin";
}

// One terminal for all the benchmarks: feeding 32 MiB takes longer than any of them.
termkit::Terminal* fedTerminal() {
    static Discard host;
    static std::unique_ptr<termkit::Terminal> terminal = [] {
        std::ifstream in(corpusPath(), std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        if (bytes.empty())
            return std::unique_ptr<termkit::Terminal>();
        termkit::TerminalOptions o;
        o.cols = kCols;
        o.rows = kRows;
        o.scrollback = kScrollback;
        auto t = std::make_unique<termkit::Terminal>(&host, o);
        t->setSilentLog(true);
        t->feed(bytes);
        return t;
    }();
    return terminal.get();
}

termkit::SearchOptions optionsFor(bool regex) {
    termkit::SearchOptions o;
    o.regex = regex;
    return o;
}

void BM_SearchFindAllCold(benchmark::State& state) {
    termkit::Terminal* t = fedTerminal();
    if (t == nullptr) {
        state.SkipWithError("no corpus: run ../shared/bench/peers/setup.sh or set TERMKIT_BENCH_CORPUS");
        return;
    }
    const bool regex = state.range(0) != 0;
    size_t found = 0;
    for (auto _ : state) {
        termkit::SearchService search(*t);
        found = search.findAll(regex ? kPattern : kWord, optionsFor(regex), kNoLimit).size();
        benchmark::DoNotOptimize(found);
    }
    state.counters["matches"] = static_cast<double>(found);
    state.counters["lines"] = t->buffer().lineCount();
}

// A find bar left open while output arrives: one new line, then every match again.
void BM_SearchFindAllWarmAfterOneLine(benchmark::State& state) {
    termkit::Terminal* t = fedTerminal();
    if (t == nullptr) {
        state.SkipWithError("no corpus: run ../shared/bench/peers/setup.sh or set TERMKIT_BENCH_CORPUS");
        return;
    }
    const bool regex = state.range(0) != 0;
    termkit::SearchService search(*t);
    search.findAll(regex ? kPattern : kWord, optionsFor(regex), kNoLimit);
    size_t found = 0;
    for (auto _ : state) {
        state.PauseTiming();
        t->feed(std::string("one more line with ") + kWord + "\r\n");
        state.ResumeTiming();
        found = search.findAll(regex ? kPattern : kWord, optionsFor(regex), kNoLimit).size();
        benchmark::DoNotOptimize(found);
    }
    state.counters["matches"] = static_cast<double>(found);
}

void BM_SelectionText10000Lines(benchmark::State& state) {
    termkit::Terminal* t = fedTerminal();
    if (t == nullptr) {
        state.SkipWithError("no corpus: run ../shared/bench/peers/setup.sh or set TERMKIT_BENCH_CORPUS");
        return;
    }
    termkit::SelectionService selection(*t);
    const int last = t->buffer().lineCount() - 1;
    selection.setSelection({termkit::Col(0), termkit::LineIndex(last - kSelectedLines + 1)},
                           {termkit::Col(kCols), termkit::LineIndex(last)});
    size_t bytes = 0;
    for (auto _ : state) {
        const std::string text = selection.getSelectedText();
        bytes = text.size();
        benchmark::DoNotOptimize(text.data());
    }
    state.counters["bytes"] = static_cast<double>(bytes);
}

BENCHMARK(BM_SearchFindAllCold)->ArgName("regex")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SearchFindAllWarmAfterOneLine)->ArgName("regex")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SelectionText10000Lines)->Unit(benchmark::kMillisecond);

} // namespace
