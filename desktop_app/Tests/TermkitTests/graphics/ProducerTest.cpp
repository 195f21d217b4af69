// Pictures from real programs: img2sixel and chafa turn small PNGs made here into sixel and
// kitty streams, and the terminal must show what the PNG held, where the program meant it.
//
// Tolerance. Both programs quantise colours: sixel registers are percentages (steps of 2.55)
// and a palette of at most 256 colours is chosen, with error diffusion spreading the error
// over neighbours; chafa also resamples to its own size. A decoded pixel is compared with the
// source pixel at the same relative position, and what must hold is the mean absolute error
// per channel (kMeanTolerance levels of 255) and the worst single channel (kMaxTolerance).

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <unistd.h>

#include "Termkit/graphics/SixelDecoder.h"
#include "TermkitTests/graphics/GraphicsTestSupport.h"

namespace termkit {
namespace {

using testing::gradient;
using testing::GraphicsTerminal;

constexpr double kMeanTolerance = 10.0;
constexpr int kMaxTolerance = 64;

bool haveTool(const char* name) {
    const std::string command = std::string("command -v ") + name + " >/dev/null 2>&1";
    return std::system(command.c_str()) == 0;
}

std::string run(const std::string& command) {
    std::string out;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr)
        return out;
    char buffer[65536];
    size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0)
        out.append(buffer, n);
    ::pclose(pipe);
    return out;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// A PNG of the test gradient, in a folder of its own that goes with the object.
struct SourcePng {
    std::filesystem::path dir;
    std::string path;
    RgbaImage image;
    SourcePng(int w, int h) : image(gradient(w, h)) {
        dir = std::filesystem::temp_directory_path() / ("termkit-producer-" + std::to_string(::getpid()) +
                                                        "-" + std::to_string(w) + "x" + std::to_string(h));
        std::filesystem::create_directories(dir);
        path = (dir / "source.png").string();
        const auto png = encodePng(image);
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(png.data()), std::streamsize(png.size()));
    }
    ~SourcePng() {
        std::error_code ignored;
        std::filesystem::remove_all(dir, ignored);
    }
};

struct Error {
    double mean = 0;
    int max = 0;
};

// Compares a decoded picture with the source at the same relative positions.
Error compare(const RgbaImage& decoded, const RgbaImage& source) {
    Error e;
    long long sum = 0;
    long long count = 0;
    for (int y = 0; y < decoded.height; ++y) {
        for (int x = 0; x < decoded.width; ++x) {
            const int sx = std::min(source.width - 1, int((x + 0.5) * source.width / decoded.width));
            const int sy = std::min(source.height - 1, int((y + 0.5) * source.height / decoded.height));
            const uint8_t* d = &decoded.rgba[(size_t(y) * decoded.width + x) * 4];
            const uint8_t* s = &source.rgba[(size_t(sy) * source.width + sx) * 4];
            for (int c = 0; c < 3; ++c) {
                const int diff = std::abs(int(d[c]) - int(s[c]));
                sum += diff;
                e.max = std::max(e.max, diff);
                ++count;
            }
            // Resampling may soften the alpha of the edge pixels a little.
            EXPECT_GE(d[3], 255 - kMaxTolerance) << x << "," << y;
        }
    }
    e.mean = count ? double(sum) / double(count) : 1e9;
    return e;
}

int cellsFor(int pixels, int cell) {
    return (pixels + cell - 1) / cell;
}

// A producer's stream fed to a fresh terminal, which must place exactly one picture; `placed`
// stays empty (with the failure reported) when it does not.
struct Fed {
    GraphicsTerminal terminal{80, 40};
    std::vector<VisiblePlacement> placed;
    Error error;
};

void feedOnePicture(Fed& fed, const std::string& stream, const RgbaImage& source) {
    ASSERT_FALSE(stream.empty());
    fed.terminal.feed(stream);
    const auto placed = fed.terminal.placements();
    ASSERT_EQ(placed.size(), 1u);
    fed.placed = placed;
    fed.error = compare(*placed[0].slice->pixels, source);
    EXPECT_LE(fed.error.mean, kMeanTolerance);
    EXPECT_LE(fed.error.max, kMaxTolerance);
}

class Img2SixelTest : public ::testing::TestWithParam<std::pair<int, int>> {};

TEST_P(Img2SixelTest, PixelsAndCellsMatchTheSource) {
    if (!haveTool("img2sixel"))
        GTEST_SKIP() << "img2sixel (libsixel-bin) is not installed; scripts/bootstrap installs it";
    const auto [w, h] = GetParam();
    SourcePng source(w, h);
    Fed fed;
    ASSERT_NO_FATAL_FAILURE(feedOnePicture(fed, run("img2sixel " + source.path), source.image));
    const auto& placed = fed.placed;
    const RgbaImage& decoded = *placed[0].slice->pixels;
    // img2sixel keeps the size; a sixel band is six rows, but the raster attributes say the height.
    EXPECT_EQ(decoded.width, w);
    EXPECT_EQ(decoded.height, h);
    RecordProperty("meanError", std::to_string(fed.error.mean));
    std::printf("img2sixel %dx%d: mean %.2f max %d\n", w, h, fed.error.mean, fed.error.max);
    EXPECT_EQ(placed[0].row, 0);
    EXPECT_EQ(placed[0].col, 0);
    EXPECT_EQ(placed[0].slice->cols, cellsFor(w, 10));
    EXPECT_EQ(placed[0].slice->rows, cellsFor(h, 20));
}

INSTANTIATE_TEST_SUITE_P(Sizes, Img2SixelTest,
                         ::testing::Values(std::make_pair(16, 12), std::make_pair(40, 30),
                                           std::make_pair(97, 61)));

class ChafaTest : public ::testing::TestWithParam<std::pair<int, int>> {};

TEST_P(ChafaTest, SixelsMatchTheSource) {
    if (!haveTool("chafa"))
        GTEST_SKIP() << "chafa is not installed; scripts/bootstrap installs it";
    const auto [w, h] = GetParam();
    SourcePng source(w, h);
    Fed fed;
    ASSERT_NO_FATAL_FAILURE(
        feedOnePicture(fed, run("chafa --format=sixels --size=8x4 " + source.path), source.image));
    const auto& placed = fed.placed;
    const RgbaImage& decoded = *placed[0].slice->pixels;
    std::printf("chafa sixels %dx%d -> %dx%d: mean %.2f max %d\n", w, h, decoded.width, decoded.height,
                fed.error.mean, fed.error.max);
    EXPECT_EQ(placed[0].slice->cols, cellsFor(decoded.width, 10));
    EXPECT_EQ(placed[0].slice->rows, cellsFor(decoded.height, 20));
}

TEST_P(ChafaTest, KittyMatchesTheSourceAndCoversTheCellsItAsksFor) {
    if (!haveTool("chafa"))
        GTEST_SKIP() << "chafa is not installed; scripts/bootstrap installs it";
    const auto [w, h] = GetParam();
    SourcePng source(w, h);
    const std::string stream = run("chafa --format=kitty --size=8x4 " + source.path);
    ASSERT_FALSE(stream.empty());
    // The cells chafa asks for, from its first command.
    const size_t c = stream.find(",c=");
    const size_t r = stream.find(",r=");
    ASSERT_NE(c, std::string::npos);
    ASSERT_NE(r, std::string::npos);
    const int cols = std::atoi(stream.c_str() + c + 3);
    const int rows = std::atoi(stream.c_str() + r + 3);
    Fed fed;
    ASSERT_NO_FATAL_FAILURE(feedOnePicture(fed, stream, source.image));
    const auto& placed = fed.placed;
    const RgbaImage& decoded = *placed[0].slice->pixels;
    std::printf("chafa kitty %dx%d -> %dx%d in %dx%d cells: mean %.2f max %d\n", w, h, decoded.width,
                decoded.height, cols, rows, fed.error.mean, fed.error.max);
    EXPECT_EQ(placed[0].slice->cols, cols);
    EXPECT_EQ(placed[0].slice->rows, rows);
    EXPECT_TRUE(fed.terminal.host.replies.empty()); // chafa names no image, so nothing is answered
}

INSTANTIATE_TEST_SUITE_P(Sizes, ChafaTest,
                         ::testing::Values(std::make_pair(16, 12), std::make_pair(64, 48),
                                           std::make_pair(120, 40)));

// Streams the programs made once, kept so that the decoding is checked where they are missing.
TEST(ProducerFixtureTest, CommittedStreamsDecodeToTheirSource) {
    struct Case {
        const char* file;
        int w, h;
    };
    for (const Case& c : {Case{"img2sixel-16x12.six", 16, 12}, Case{"chafa-sixels-16x12.six", 16, 12},
                          Case{"chafa-kitty-16x12.kitty", 16, 12}}) {
        SCOPED_TRACE(c.file);
        Fed fed;
        ASSERT_NO_FATAL_FAILURE(feedOnePicture(
            fed, readFile(std::string(TERMKIT_GRAPHICS_TEST_DATA) + "/" + c.file), gradient(c.w, c.h)));
    }
}

} // namespace
} // namespace termkit
