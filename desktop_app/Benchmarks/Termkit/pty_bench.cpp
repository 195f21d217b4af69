// termkit-pty-bench FILE COLS ROWS [--marker TEXT] [--scrollback LINES] [--count-only]
//
// Runs `cat FILE` followed by a marker line in a child on a pseudo-terminal, through a
// LocalProcess into a HeadlessTerminal of COLS x ROWS whose executor is this program's
// main thread, and times from the start of the child until its exit has been reported
// (which comes after its last output has been fed). Prints one JSON line. --count-only
// counts the child's bytes without a terminal: the cost of the pseudo-terminal alone.

#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>

#include "Termkit/engine/ScreenText.h"
#include "Termkit/process/HeadlessTerminal.h"
#include "Termkit/process/RunLoop.h"

namespace {

// The peak resident memory of this process, in kilobytes, as the kernel counts it.
long peakResidentKb() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmHWM:", 0) == 0)
            return std::atol(line.c_str() + 6);
    }
    return -1;
}

double cpuSeconds(int who) {
    rusage usage = {};
    getrusage(who, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Counts bytes only: the process layer without a terminal behind it.
class CountingHost : public termkit::LocalProcessDelegate {
public:
    uint64_t bytes = 0;
    bool ended = false;
    std::optional<int32_t> code;
    void processTerminated(termkit::LocalProcess&, std::optional<int32_t> exitCode) override {
        ended = true;
        code = exitCode;
    }
    void dataReceived(std::span<const uint8_t> slice) override { bytes += slice.size(); }
    void send(std::span<const uint8_t>) override {}
    std::optional<winsize> getWindowSize() override { return std::nullopt; }
};

std::string shellQuote(const std::string& text) {
    std::string out = "'";
    for (char c : text)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: %s FILE COLS ROWS [--marker TEXT] [--scrollback LINES] [--count-only]\n",
                     argv[0]);
        return 2;
    }
    const std::string path = argv[1];
    termkit::TerminalOptions options;
    options.cols = std::atoi(argv[2]);
    options.rows = std::atoi(argv[3]);
    std::string marker = "TERMKIT-PTY-BENCH-DONE";
    bool countOnly = false;
    for (int i = 4; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--marker") && i + 1 < argc) {
            marker = argv[++i];
        } else if (!std::strcmp(argv[i], "--scrollback") && i + 1 < argc) {
            options.scrollback = std::atoi(argv[++i]);
        } else if (!std::strcmp(argv[i], "--count-only")) {
            countOnly = true;
        }
    }
    const std::string command = "stty -echo; cat " + shellQuote(path) + "; echo " + shellQuote(marker);
    termkit::RunLoop loop;
    const auto start = std::chrono::steady_clock::now();
    const double cpuStart = cpuSeconds(RUSAGE_SELF);
    const double mainCpuStart = cpuSeconds(RUSAGE_THREAD);

    termkit::LocalProcess::PendingStatus status;
    std::optional<int32_t> code;
    uint64_t bytes = 0;
    bool markerShown = false;
    if (countOnly) {
        CountingHost host;
        termkit::LocalProcess process(&host, loop);
        process.startProcess("/bin/sh", {"-c", command});
        loop.runUntil([&] { return host.ended; }, std::chrono::hours(1));
        status = process.pendingStatus();
        code = host.code;
        bytes = host.bytes;
        markerShown = true;
    } else {
        bool ended = false;
        termkit::HeadlessTerminal headless(loop, options, [&](std::optional<int32_t> exitCode) {
            ended = true;
            code = exitCode;
        });
        headless.terminal().setSilentLog(true);
        headless.process().startProcess("/bin/sh", {"-c", command});
        loop.runUntil([&] { return ended; }, std::chrono::hours(1));
        status = headless.process().pendingStatus();
        bytes = status.totalRead;
        for (const std::string& row : termkit::screenText(headless.terminal())) {
            markerShown |= row.find(marker) != std::string::npos;
        }
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf(
        "{\"cols\": %d, \"rows\": %d, \"bytes\": %llu, \"seconds\": %.4f, \"bytes_per_second\": %.0f, "
        "\"marker_shown\": %s, \"exit_code\": %d, \"cpu_seconds\": %.3f, \"main_thread_cpu_seconds\": %.3f, "
        "\"peak_backlog_bytes\": %zu, \"suspensions\": %llu, \"slices_cut\": %llu, \"peak_rss_kb\": %ld, "
        "\"count_only\": %s}\n",
        options.cols, options.rows, static_cast<unsigned long long>(bytes), seconds,
        static_cast<double>(bytes) / seconds, markerShown ? "true" : "false", code.value_or(-1),
        cpuSeconds(RUSAGE_SELF) - cpuStart, cpuSeconds(RUSAGE_THREAD) - mainCpuStart, status.peakPendingBytes,
        static_cast<unsigned long long>(status.suspensions),
        static_cast<unsigned long long>(status.slicesCut), peakResidentKb(), countOnly ? "true" : "false");
    return markerShown && code == 0 ? 0 : 1;
}
