// Pictures in the terminal: sixel decoding against libsixel's own decoder on the same
// streams, a 1920x1080 PNG sent by the kitty protocol in 4096-byte chunks, Unicode
// placeholders resolved for a frame, and the image store's memory under a stream that never
// stops sending pictures.
//
// The sixel streams come from img2sixel (libsixel-bin) run on pictures made here, so they
// look like what programs send. Run: build/desktop_app/Benchmarks/termkit_graphics_benchmarks

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>

#include <unistd.h>

extern "C" {
#include <sixel.h>
}

#include "Termkit/buffer/Utf8.h"
#include "Termkit/engine/Terminal.h"
#include "Termkit/graphics/ImageCodec.h"
#include "Termkit/graphics/KittyPlaceholder.h"
#include "Termkit/graphics/SixelDecoder.h"
#include "Termkit/graphics/TerminalGraphics.h"

namespace {

using termkit::RgbaImage;

class QuietHost : public termkit::TerminalDelegate {
public:
    void send(termkit::Terminal&, std::span<const uint8_t>) override {}
    std::optional<std::pair<int, int>> cellSizeInPixels(termkit::Terminal&) override {
        return std::pair(10, 20);
    }
};

// A 200x60 terminal with the image protocols and a host that reports 10x20-pixel cells.
struct ScreenWithGraphics {
    QuietHost host;
    termkit::TerminalGraphics graphics;
    std::unique_ptr<termkit::Terminal> terminal;
    ScreenWithGraphics() {
        termkit::TerminalOptions options;
        options.cols = 200;
        options.rows = 60;
        terminal = std::make_unique<termkit::Terminal>(&host, options, nullptr, &graphics);
        graphics.attach(*terminal);
    }
};

// A picture with smooth areas and noise, so that a quantiser needs its whole palette.
RgbaImage photoLike(int width, int height) {
    RgbaImage image;
    image.width = width;
    image.height = height;
    image.rgba.resize(size_t(width) * height * 4);
    std::mt19937 random(7);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            uint8_t* p = &image.rgba[(size_t(y) * width + x) * 4];
            const int noise = int(random() % 24);
            p[0] = uint8_t((x * 255 / width + noise) & 0xFF);
            p[1] = uint8_t((y * 255 / height + noise) & 0xFF);
            p[2] = uint8_t(((x ^ y) & 0x7F) + noise);
            p[3] = 255;
        }
    return image;
}

// The whole DCS string img2sixel writes for a picture of that size (cached per size).
const std::string& sixelStream(int width, int height) {
    static std::map<std::pair<int, int>, std::string> cache;
    auto& stream = cache[{width, height}];
    if (!stream.empty())
        return stream;
    const auto dir =
        std::filesystem::temp_directory_path() / ("termkit-sixel-bench-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    const std::string png = (dir / "in.png").string();
    const auto bytes = termkit::encodePng(photoLike(width, height));
    std::ofstream(png, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    FILE* pipe = ::popen(("img2sixel " + png).c_str(), "r");
    char buffer[65536];
    size_t n = 0;
    while (pipe != nullptr && (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0)
        stream.append(buffer, n);
    if (pipe != nullptr)
        ::pclose(pipe);
    std::filesystem::remove_all(dir);
    return stream;
}

// The body between the introducer's `q` and the string terminator.
std::span<const uint8_t> sixelBody(const std::string& stream) {
    const size_t q = stream.find('q');
    const size_t st = stream.rfind("\x1b\\");
    return {reinterpret_cast<const uint8_t*>(stream.data()) + q + 1, st - q - 1};
}

void BM_SixelDecodeTermkit(benchmark::State& state) {
    const std::string& stream = sixelStream(int(state.range(0)), int(state.range(1)));
    if (stream.empty()) {
        state.SkipWithError("img2sixel is not installed");
        return;
    }
    const auto body = sixelBody(stream);
    for (auto _ : state) {
        auto image = termkit::decodeSixel(body, true);
        benchmark::DoNotOptimize(image->rgba.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(stream.size()));
}

// libsixel decodes to palette indices; expanding them to RGBA is part of the same job.
void BM_SixelDecodeLibsixel(benchmark::State& state) {
    const std::string& stream = sixelStream(int(state.range(0)), int(state.range(1)));
    if (stream.empty()) {
        state.SkipWithError("img2sixel is not installed");
        return;
    }
    sixel_allocator_t* allocator = nullptr;
    sixel_allocator_new(&allocator, nullptr, nullptr, nullptr, nullptr);
    std::vector<uint8_t> input(stream.begin(), stream.end());
    std::vector<uint8_t> rgba;
    for (auto _ : state) {
        unsigned char* pixels = nullptr;
        unsigned char* palette = nullptr;
        int width = 0;
        int height = 0;
        int colours = 0;
        if (SIXEL_FAILED(sixel_decode_raw(input.data(), int(input.size()), &pixels, &width, &height, &palette,
                                          &colours, allocator))) {
            state.SkipWithError("libsixel failed");
            break;
        }
        rgba.resize(size_t(width) * height * 4);
        for (size_t i = 0; i < size_t(width) * height; ++i) {
            const unsigned char* c = palette + pixels[i] * 3;
            rgba[i * 4] = c[0];
            rgba[i * 4 + 1] = c[1];
            rgba[i * 4 + 2] = c[2];
            rgba[i * 4 + 3] = 255;
        }
        benchmark::DoNotOptimize(rgba.data());
        sixel_allocator_free(allocator, pixels);
        sixel_allocator_free(allocator, palette);
    }
    sixel_allocator_unref(allocator);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(stream.size()));
}

// The whole road: parser, DCS handler, decoding and placing on the grid.
void BM_SixelThroughTerminal(benchmark::State& state) {
    const std::string& stream = sixelStream(int(state.range(0)), int(state.range(1)));
    if (stream.empty()) {
        state.SkipWithError("img2sixel is not installed");
        return;
    }
    ScreenWithGraphics screen;
    termkit::Terminal& terminal = *screen.terminal;
    for (auto _ : state) {
        terminal.feed(stream);
        terminal.feed("\x1b[H\x1b[2J");
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(stream.size()));
}

#define SIXEL_SIZES Args({256, 256})->Args({800, 600})->Args({1920, 1080})
BENCHMARK(BM_SixelDecodeTermkit)->SIXEL_SIZES->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SixelDecodeLibsixel)->SIXEL_SIZES->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SixelThroughTerminal)->SIXEL_SIZES->Unit(benchmark::kMillisecond);

// Kitty: a 1920x1080 PNG in 4096-byte chunks, from the first byte to the placed picture.
void BM_KittyPng1080pIn4096ByteChunks(benchmark::State& state) {
    const auto png = termkit::encodePng(photoLike(1920, 1080));
    static const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string base64;
    for (size_t i = 0; i < png.size(); i += 3) {
        const uint32_t v = (uint32_t(png[i]) << 16) | (i + 1 < png.size() ? uint32_t(png[i + 1]) << 8 : 0) |
                           (i + 2 < png.size() ? png[i + 2] : 0);
        base64 += alphabet[(v >> 18) & 63];
        base64 += alphabet[(v >> 12) & 63];
        base64 += i + 1 < png.size() ? alphabet[(v >> 6) & 63] : '=';
        base64 += i + 2 < png.size() ? alphabet[v & 63] : '=';
    }
    std::string stream;
    for (size_t at = 0; at < base64.size(); at += 4096) {
        const bool last = at + 4096 >= base64.size();
        stream += at == 0 ? "\x1b_Ga=T,f=100,i=1,q=2," : "\x1b_G";
        stream += last ? "m=0;" : "m=1;";
        stream += base64.substr(at, 4096);
        stream += "\x1b\\";
    }
    QuietHost host;
    termkit::TerminalOptions options;
    options.cols = 200;
    options.rows = 60;
    for (auto _ : state) {
        termkit::TerminalGraphics graphics;
        termkit::Terminal terminal(&host, options, nullptr, &graphics);
        terminal.feed(stream);
        if (termkit::visiblePlacements(terminal).size() != 1)
            state.SkipWithError("the picture was not placed");
    }
    state.counters["png_bytes"] = double(png.size());
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(stream.size()));
}
BENCHMARK(BM_KittyPng1080pIn4096ByteChunks)->Unit(benchmark::kMillisecond);

// Unicode placeholders, resolved as the view does for each frame, on a 200x60 screen full of
// plain text: range 0 has no virtual placement (nothing is read), 1 has one but no
// placeholder cell on screen (every cell is looked at), 2 adds a 40x20 grid of placeholders.
void BM_PlaceholderResolve(benchmark::State& state) {
    ScreenWithGraphics screen;
    termkit::Terminal& terminal = *screen.terminal;
    termkit::TerminalGraphics& graphics = screen.graphics;
    std::string text;
    for (int r = 0; r < 60; ++r)
        text += std::string(199, char('a' + r % 26)) + "\r\n";
    terminal.feed(text);
    if (state.range(0) >= 1) {
        terminal.feed("\x1b_Ga=T,f=24,s=1,v=1,i=9,U=1,c=40,r=20,q=2;AAAA\x1b\\");
    }
    if (state.range(0) == 2) {
        std::string grid = "\x1b[38;5;9m";
        for (int r = 0; r < 20; ++r) {
            grid += "\x1b[" + std::to_string(r + 10) + ";20H";
            for (int c = 0; c < 40; ++c) {
                termkit::appendUtf8(termkit::kKittyPlaceholderCharacter, grid);
                termkit::appendUtf8(termkit::kittyDiacritic(r), grid);
                termkit::appendUtf8(termkit::kittyDiacritic(c), grid);
            }
        }
        terminal.feed(grid + "\x1b[m");
    }
    size_t draws = 0;
    for (auto _ : state) {
        const auto resolved = termkit::resolvePlaceholders(terminal, graphics.kitty(), {10, 20});
        draws = resolved.size();
        benchmark::DoNotOptimize(resolved.data());
    }
    state.counters["draws"] = double(draws);
}
BENCHMARK(BM_PlaceholderResolve)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMicrosecond);

long residentBytes() {
    std::ifstream statm("/proc/self/statm");
    long pages = 0;
    long resident = 0;
    statm >> pages >> resident;
    return resident * ::sysconf(_SC_PAGESIZE);
}

// Pictures forever: 1 MB raw images with fresh ids, placed and scrolled, under a 64 MB
// quota. Reports the store's bytes and the process's resident growth.
void BM_EndlessKittyStream(benchmark::State& state) {
    constexpr long long kQuota = 64ll * 1024 * 1024;
    constexpr int kSide = 512; // 512x512 RGBA: 1 MiB
    QuietHost host;
    termkit::TerminalGraphics graphics;
    termkit::TerminalOptions options;
    options.cols = 100;
    options.rows = 40;
    options.scrollback = 1000;
    options.kittyImageCacheLimitBytes = kQuota;
    termkit::Terminal terminal(&host, options, nullptr, &graphics);
    graphics.attach(terminal);
    std::string raw(size_t(kSide) * kSide * 4, '\x55');
    static const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string base64;
    for (size_t i = 0; i + 2 < raw.size(); i += 3) {
        const uint32_t v =
            (uint32_t(uint8_t(raw[i])) << 16) | (uint32_t(uint8_t(raw[i + 1])) << 8) | uint8_t(raw[i + 2]);
        for (int s = 18; s >= 0; s -= 6)
            base64 += alphabet[(v >> s) & 63];
    }
    base64 += "VQ=="; // the last byte
    const long before = residentBytes();
    long peak = before;
    uint32_t id = 1;
    size_t maxStore = 0;
    for (auto _ : state) {
        for (int i = 0; i < 16; ++i, ++id) {
            std::string command = "\x1b_Ga=T,f=32,s=" + std::to_string(kSide) +
                                  ",v=" + std::to_string(kSide) + ",c=4,r=2,q=2,i=" + std::to_string(id) +
                                  ";" + base64 + "\x1b\\\r\n";
            terminal.feed(command);
            maxStore = std::max(maxStore, graphics.kitty().totalImageBytes());
            peak = std::max(peak, residentBytes());
        }
    }
    state.counters["images"] = double(id - 1);
    state.counters["store_max_MiB"] = double(maxStore) / (1 << 20);
    state.counters["quota_MiB"] = double(kQuota) / (1 << 20);
    state.counters["rss_growth_MiB"] = double(peak - before) / (1 << 20);
}
BENCHMARK(BM_EndlessKittyStream)->Iterations(64)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
