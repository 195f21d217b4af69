// termkit-bench FILE COLS ROWS SCROLLBACK [--limit BYTES] [--dump] [--nofeed]
//
// Reads FILE into memory, feeds it to a headless terminal in 64 KiB chunks, timing only the
// feeding, and prints one JSON line. --dump then prints the screen as "|"-prefixed rows;
// --nofeed loads everything but feeds nothing, as the baseline for memory measurements.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Termkit/engine/ScreenText.h"
#include "Termkit/engine/Terminal.h"

namespace {

constexpr size_t kChunk = 64 * 1024;

class DiscardingHost : public termkit::TerminalDelegate {
public:
    void send(termkit::Terminal&, std::span<const uint8_t>) override {}
};

} // namespace

int main(int argc, char** argv) {
    if (argc < 5) {
        std::fprintf(stderr, "usage: %s FILE COLS ROWS SCROLLBACK [--limit BYTES] [--dump] [--nofeed]\n",
                     argv[0]);
        return 2;
    }
    const char* path = argv[1];
    const int cols = std::atoi(argv[2]);
    const int rows = std::atoi(argv[3]);
    const int scrollback = std::atoi(argv[4]);
    size_t limit = SIZE_MAX;
    bool dump = false;
    bool nofeed = false;
    for (int i = 5; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--limit") && i + 1 < argc) {
            limit = std::strtoull(argv[++i], nullptr, 10);
        } else if (!std::strcmp(argv[i], "--dump")) {
            dump = true;
        } else if (!std::strcmp(argv[i], "--nofeed")) {
            nofeed = true;
        }
    }
    FILE* file = std::fopen(path, "rb");
    if (file == nullptr) {
        std::perror(path);
        return 1;
    }
    std::fseek(file, 0, SEEK_END);
    size_t length = static_cast<size_t>(std::ftell(file));
    std::fseek(file, 0, SEEK_SET);
    length = std::min(length, limit);
    std::vector<uint8_t> data(length);
    if (length > 0 && std::fread(data.data(), 1, length, file) != length) {
        std::perror("fread");
        return 1;
    }
    std::fclose(file);

    DiscardingHost host;
    termkit::TerminalOptions options;
    options.cols = cols;
    options.rows = rows;
    options.scrollback = scrollback;
    termkit::Terminal terminal(&host, options);
    terminal.setSilentLog(true);

    const auto start = std::chrono::steady_clock::now();
    if (!nofeed) {
        for (size_t off = 0; off < data.size(); off += kChunk) {
            const size_t n = std::min(kChunk, data.size() - off);
            terminal.feed(std::span<const uint8_t>(data.data() + off, n));
        }
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const size_t bytes = nofeed ? 0 : data.size();
    std::printf(
        "{\"peer\":\"termkit\",\"bytes\":%zu,\"seconds\":%.6f,\"mbps\":%.3f,\"scrollback_lines\":%d}\n",
        bytes, seconds, seconds > 0 ? static_cast<double>(bytes) / seconds / 1e6 : 0.0,
        terminal.normalBuffer().yBase().value);
    if (dump) {
        for (const std::string& row : termkit::screenText(terminal))
            std::printf("|%s\n", row.c_str());
    }
    return 0;
}
