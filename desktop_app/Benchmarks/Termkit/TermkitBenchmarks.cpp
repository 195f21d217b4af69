// Micro-benchmarks of the Termkit hot paths, each reporting bytes per second and the heap
// allocations made per megabyte while feeding, which must be zero in steady state.

#include <benchmark/benchmark.h>

#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "Termkit/buffer/CharacterTable.h"
#include "Termkit/buffer/Utf8.h"
#include "Termkit/engine/Terminal.h"

#include "AllocationCounter.h"

namespace {

class Discard : public termkit::TerminalDelegate {
public:
    void send(termkit::Terminal&, std::span<const uint8_t>) override {}
};

std::string asciiText() {
    std::string s;
    std::mt19937 rng(1);
    while (s.size() < (1 << 20)) {
        const int words = 5 + static_cast<int>(rng() % 15);
        for (int w = 0; w < words; ++w)
            s += std::string(1 + rng() % 9, static_cast<char>('a' + rng() % 26)) + " ";
        s += "\r\n";
    }
    return s;
}

std::string sgrText() {
    std::string s;
    std::mt19937 rng(2);
    while (s.size() < (1 << 20)) {
        s += "\x1b[" + std::to_string(30 + rng() % 8) + "mword\x1b[0m \x1b[1;38;5;" +
             std::to_string(rng() % 256) + "mbold\x1b[m \x1b[38;2;" + std::to_string(rng() % 256) +
             ";10;20mtrue\x1b[39m";
        if (rng() % 4 == 0)
            s += "\r\n";
    }
    return s;
}

std::string wideText() {
    std::string s;
    std::mt19937 rng(3);
    while (s.size() < (1 << 20)) {
        for (int i = 0; i < 30; ++i) {
            const char32_t c = 0x4E00 + rng() % 0x5000;
            s += static_cast<char>(0xE0 | (c >> 12));
            s += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            s += static_cast<char>(0x80 | (c & 0x3F));
        }
        s += " e\xcc\x81 \xf0\x9f\x98\x80\r\n";
    }
    return s;
}

// Coloured tool output: a handful of sequences again and again, most of them resets, and
// now and then a true colour that never comes back.
std::string sgrRepeatedText() {
    const char* const sequences[] = {"\x1b[1m",  "\x1b[0m",     "\x1b[1;31m", "\x1b[01;34m", "\x1b[1;94m",
                                     "\x1b[39m", "\x1b[30;42m", "\x1b[m",     "\x1b[7m",     "\x1b[27m"};
    std::string s;
    std::mt19937 rng(6);
    while (s.size() < (1 << 20)) {
        for (int k = 0; k < 6; ++k) {
            s += sequences[rng() % std::size(sequences)];
            s += std::string(2 + rng() % 10, static_cast<char>('a' + rng() % 26));
            s += "\x1b[0m ";
        }
        if (rng() % 8 == 0)
            s += "\x1b[38;2;" + std::to_string(rng() % 256) + ";" + std::to_string(rng() % 256) +
                 ";9mrgb\x1b[39m";
        s += "\r\n";
    }
    return s;
}

// Diff output: whole lines on a true-colour background, their words in 256-colour and
// now and then true-colour foregrounds, so SGR sequences start from true-colour attributes.
std::string sgrDiffText() {
    std::string s;
    std::mt19937 rng(7);
    while (s.size() < (1 << 20)) {
        s += rng() % 2 ? "\x1b[48;2;0;64;0m+" : "\x1b[48;2;64;0;0m-";
        for (int w = 0; w < 8; ++w) {
            if (rng() % 3 == 0) {
                s += "\x1b[38;2;" + std::to_string(rng() % 256) + ";" + std::to_string(rng() % 256) + ";9m";
            } else {
                s += "\x1b[38;5;" + std::to_string(rng() % 16) + "m";
            }
            s += std::string(2 + rng() % 8, static_cast<char>('a' + rng() % 26));
            s += "\x1b[39m ";
        }
        s += "\x1b[0m\r\n";
    }
    return s;
}

// A full-screen program's redraw: each row addressed, coloured and erased to its end.
std::string redrawText() {
    std::string s;
    std::mt19937 rng(8);
    while (s.size() < (1 << 20)) {
        s += "\x1b[?25l";
        for (int row = 1; row <= 24; ++row) {
            s += "\x1b[" + std::to_string(row) + ";1H";
            s += rng() % 4 == 0 ? "\x1b[30;46m" : "\x1b[1;32m";
            s += std::string(5 + rng() % 40, static_cast<char>('a' + rng() % 26));
            s += "\x1b[0m\x1b[K";
        }
        s += "\x1b[?25h";
    }
    return s;
}

void appendUtf8(char32_t c, std::string& s) {
    if (c < 0x80) {
        s += static_cast<char>(c);
    } else if (c < 0x800) {
        s += static_cast<char>(0xC0 | (c >> 6));
        s += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        s += static_cast<char>(0xE0 | (c >> 12));
        s += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        s += static_cast<char>(0x80 | (c & 0x3F));
    }
}

// Words of one script each, narrow and wide, between ASCII spaces: the run path of the
// print path, where each scalar is decoded, looked up and written in one loop.
std::string mixedScriptText() {
    struct Script {
        char32_t first;
        uint32_t count;
    };
    // Cyrillic, Greek, box drawing, hiragana, katakana, CJK, Hangul.
    const Script scripts[] = {{0x0410, 32}, {0x03B1, 24},     {0x2500, 64},    {0x3041, 80},
                              {0x30A1, 80}, {0x4E00, 0x5000}, {0xAC00, 0x2B00}};
    std::string s;
    std::mt19937 rng(5);
    while (s.size() < (1 << 20)) {
        for (int w = 0; w < 8; ++w) {
            const Script& script = scripts[rng() % std::size(scripts)];
            const int length = 3 + static_cast<int>(rng() % 8);
            for (int k = 0; k < length; ++k)
                appendUtf8(script.first + rng() % script.count, s);
            s += ' ';
        }
        s += "\r\n";
    }
    return s;
}

// Latin words whose letters carry zero to three combining marks, as in text that stacks
// diacritics: each mark run is joined to its letter as one cluster in the character table.
std::string markedLetterText() {
    std::string s;
    std::mt19937 rng(7);
    while (s.size() < (1 << 20)) {
        for (int w = 0; w < 8; ++w) {
            const int length = 3 + static_cast<int>(rng() % 8);
            for (int k = 0; k < length; ++k) {
                s += static_cast<char>('a' + rng() % 26);
                const int marks = static_cast<int>(rng() % 6) - 2; // none half of the time
                for (int m = 0; m < marks; ++m)
                    appendUtf8(0x300 + rng() % 0x70, s);
            }
            s += ' ';
        }
        s += "\r\n";
    }
    return s;
}

// Emoji as chat and tool output use them: with the emoji selector, skin tones, joiner
// sequences and flags, between words of plain text.
std::string emojiSequenceText() {
    const char* const emoji[] = {
        "\xe2\x9c\x94\xef\xb8\x8f",                                 // check mark, VS16
        "\xe2\x9d\xa4\xef\xb8\x8f",                                 // heart, VS16
        "\xf0\x9f\x91\x8d\xf0\x9f\x8f\xbd",                         // thumbs up, skin tone
        "\xf0\x9f\x91\xa9\xe2\x80\x8d\xf0\x9f\x92\xbb",             // woman, ZWJ, laptop
        "\xf0\x9f\x8f\xb3\xef\xb8\x8f\xe2\x80\x8d\xf0\x9f\x8c\x88", // rainbow flag
        "\xf0\x9f\x87\xa9\xf0\x9f\x87\xaa",                         // flag of Germany
        "\xf0\x9f\x98\x80",                                         // grinning face
    };
    std::string s;
    std::mt19937 rng(8);
    while (s.size() < (1 << 20)) {
        for (int w = 0; w < 6; ++w) {
            s += std::string(2 + rng() % 6, static_cast<char>('a' + rng() % 26));
            s += ' ';
            s += emoji[rng() % std::size(emoji)];
            s += ' ';
        }
        s += "\r\n";
    }
    return s;
}

std::string scrollText() {
    std::string s = "\x1b[2;23r";
    while (s.size() < (1 << 20))
        s += "\x1b[23;1Hline\n\x1b[2;1H\x1bMtop\x1b[5S\x1b[3T\x1b[2L\x1b[2M";
    return s;
}

void feedBenchmark(benchmark::State& state, const std::string& text) {
    Discard host;
    termkit::TerminalOptions options;
    options.cols = static_cast<int>(state.range(0));
    options.rows = static_cast<int>(state.range(1));
    options.scrollback = 1000;
    termkit::Terminal terminal(&host, options);
    terminal.setSilentLog(true);
    // Warm up until the scrollback ring is full and every table has been touched.
    for (int i = 0; i < 3; ++i)
        terminal.feed(text);
    const uint64_t before = termkit::bench::allocationCount();
    uint64_t bytes = 0;
    for (auto _ : state) {
        terminal.feed(text);
        bytes += text.size();
    }
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    state.counters["allocs_per_MB"] =
        static_cast<double>(termkit::bench::allocationCount() - before) / (static_cast<double>(bytes) / 1e6);
}

void BM_AsciiRun(benchmark::State& state) {
    feedBenchmark(state, asciiText());
}
void BM_Sgr(benchmark::State& state) {
    feedBenchmark(state, sgrText());
}
void BM_SgrRepeated(benchmark::State& state) {
    feedBenchmark(state, sgrRepeatedText());
}
void BM_SgrDiff(benchmark::State& state) {
    feedBenchmark(state, sgrDiffText());
}
void BM_Redraw(benchmark::State& state) {
    feedBenchmark(state, redrawText());
}
void BM_Utf8Wide(benchmark::State& state) {
    feedBenchmark(state, wideText());
}
void BM_Utf8MixedScripts(benchmark::State& state) {
    feedBenchmark(state, mixedScriptText());
}
void BM_Utf8MarkedLetters(benchmark::State& state) {
    feedBenchmark(state, markedLetterText());
}
void BM_Utf8EmojiSequences(benchmark::State& state) {
    feedBenchmark(state, emojiSequenceText());
}
void BM_Scrolling(benchmark::State& state) {
    feedBenchmark(state, scrollText());
}

// Letters with stacked marks met for the first time, as such text brings them: each one
// misses in the index and is stored, and the index grows as it fills. A fresh table per
// iteration, so this counts the growth too (it allocates, unlike the feed benchmarks).
void BM_CharacterTableNewClusters(benchmark::State& state) {
    std::vector<std::string> clusters;
    std::mt19937 rng(11);
    for (int i = 0; i < 65536; ++i) {
        std::string c;
        termkit::appendUtf8(static_cast<char32_t>('a' + rng() % 26), c);
        const int marks = 1 + static_cast<int>(rng() % 4);
        for (int m = 0; m < marks; ++m)
            termkit::appendUtf8(static_cast<char32_t>(0x300 + rng() % 0x70), c);
        clusters.push_back(std::move(c));
    }
    for (auto _ : state) {
        termkit::CharacterTable table;
        for (const std::string& c : clusters)
            benchmark::DoNotOptimize(table.clusterCode(c));
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(clusters.size()));
}

BENCHMARK(BM_AsciiRun)->Args({80, 24})->Args({200, 50});
BENCHMARK(BM_Sgr)->Args({80, 24})->Args({200, 50});
BENCHMARK(BM_SgrRepeated)->Args({80, 24})->Args({200, 50});
BENCHMARK(BM_SgrDiff)->Args({80, 24})->Args({200, 50});
BENCHMARK(BM_Redraw)->Args({80, 24})->Args({200, 50});
BENCHMARK(BM_Utf8Wide)->Args({80, 24})->Args({200, 50});
BENCHMARK(BM_Utf8MixedScripts)->Args({80, 24})->Args({200, 50});
BENCHMARK(BM_Utf8MarkedLetters)->Args({80, 24})->Args({200, 50});
BENCHMARK(BM_Utf8EmojiSequences)->Args({80, 24})->Args({200, 50});
BENCHMARK(BM_Scrolling)->Args({80, 24})->Args({200, 50});
BENCHMARK(BM_CharacterTableNewClusters);

} // namespace

BENCHMARK_MAIN();
