#include "Termkit/graphics/SixelDecoder.h"

#include <gtest/gtest.h>

#include "TermkitTests/graphics/GraphicsTestSupport.h"

namespace termkit {
namespace {

using testing::GraphicsTerminal;

std::span<const uint8_t> bytesOf(std::string_view s) {
    return {reinterpret_cast<const uint8_t*>(s.data()), s.size()};
}

// The RGBA of a pixel.
std::array<int, 4> at(const RgbaImage& image, int x, int y) {
    const uint8_t* p = &image.rgba[(size_t(y) * image.width + x) * 4];
    return {p[0], p[1], p[2], p[3]};
}

TEST(SixelDecoderTest, RasterAttributesGiveTheSizeAndRegistersTheColours) {
    // Register 1 is pure red by RGB percentages; "~" sets all six rows of a column.
    const auto image = decodeSixel(bytesOf("\"1;1;4;8#1;2;100;0;0#1~~-~~"), true);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->width, 4);
    EXPECT_EQ(image->height, 12);
    EXPECT_EQ(at(*image, 0, 0), (std::array<int, 4>{255, 0, 0, 255}));
    EXPECT_EQ(at(*image, 1, 11), (std::array<int, 4>{255, 0, 0, 255}));
    EXPECT_EQ(at(*image, 2, 0), (std::array<int, 4>{0, 0, 0, 0})); // raster width, never drawn
}

TEST(SixelDecoderTest, DrawingBeyondTheAnnouncedSizeAndEmptyBands) {
    // Announced 2x6, drawn 3 wide; the second band draws nothing, the third is blue.
    const auto image = decodeSixel(bytesOf("\"1;1;2;6#1;2;100;0;0#2;2;0;0;100#1~~~-$-#2@"), true);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->width, 3);
    EXPECT_EQ(image->height, 13);
    EXPECT_EQ(image->rgba.size(), size_t(3 * 13 * 4));
    EXPECT_EQ(at(*image, 2, 5), (std::array<int, 4>{255, 0, 0, 255}));
    for (int y = 6; y < 12; ++y)
        EXPECT_EQ(at(*image, 0, y), (std::array<int, 4>{0, 0, 0, 0})) << y;
    EXPECT_EQ(at(*image, 0, 12), (std::array<int, 4>{0, 0, 255, 255}));
    EXPECT_EQ(at(*image, 1, 12), (std::array<int, 4>{0, 0, 0, 0}));
    // Announced taller than drawn: the rows below stay transparent, or take register 0.
    const auto tall = decodeSixel(bytesOf("\"1;1;2;20#1;2;100;0;0#1~~"), true);
    ASSERT_TRUE(tall);
    EXPECT_EQ(tall->height, 20);
    EXPECT_EQ(at(*tall, 1, 5), (std::array<int, 4>{255, 0, 0, 255}));
    EXPECT_EQ(at(*tall, 1, 19), (std::array<int, 4>{0, 0, 0, 0}));
    const auto opaque = decodeSixel(bytesOf("\"1;1;2;20#0;2;0;100;0#1;2;100;0;0#1~"), false);
    ASSERT_TRUE(opaque);
    EXPECT_EQ(at(*opaque, 1, 0), (std::array<int, 4>{0, 255, 0, 255}));
    EXPECT_EQ(at(*opaque, 0, 19), (std::array<int, 4>{0, 255, 0, 255}));
}

TEST(SixelDecoderTest, HlsRegistersFollowTheDecWheel) {
    EXPECT_EQ(hlsToRgb(120, 50, 100), sixelRgba(255, 0, 0)); // red at 120
    EXPECT_EQ(hlsToRgb(240, 50, 100), sixelRgba(0, 255, 0)); // green at 240
    EXPECT_EQ(hlsToRgb(0, 50, 100), sixelRgba(0, 0, 255));   // blue at 0
    EXPECT_EQ(hlsToRgb(77, 100, 30), sixelRgba(255, 255, 255));
    EXPECT_EQ(hlsToRgb(77, 50, 0), sixelRgba(128, 128, 128));
    const auto image = decodeSixel(bytesOf("#3;1;240;50;100#3@"), true);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->width, 1);
    EXPECT_EQ(image->height, 1); // only the top bit ('@' = 1) is set
    EXPECT_EQ(at(*image, 0, 0), (std::array<int, 4>{0, 255, 0, 255}));
}

TEST(SixelDecoderTest, RepeatCarriageReturnAndNewBand) {
    // Five columns of bit 0 in blue, then back to column 1 with bit 1 in red, then a band down.
    const auto image = decodeSixel(bytesOf("#1;2;0;0;100#2;2;100;0;0#1!5@$#2?A-#1!2~"), true);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->width, 5);
    EXPECT_EQ(image->height, 12);
    EXPECT_EQ(at(*image, 4, 0), (std::array<int, 4>{0, 0, 255, 255}));
    EXPECT_EQ(at(*image, 1, 1), (std::array<int, 4>{255, 0, 0, 255}));
    EXPECT_EQ(at(*image, 0, 1), (std::array<int, 4>{0, 0, 0, 0}));
    EXPECT_EQ(at(*image, 1, 11), (std::array<int, 4>{0, 0, 255, 255}));
    EXPECT_EQ(at(*image, 2, 11), (std::array<int, 4>{0, 0, 0, 0}));
}

TEST(SixelDecoderTest, OpaqueBackgroundTakesRegisterZero) {
    const auto image = decodeSixel(bytesOf("#0;2;0;100;0#1;2;100;0;0#1@A"), false);
    ASSERT_TRUE(image);
    EXPECT_EQ(at(*image, 0, 1), (std::array<int, 4>{0, 255, 0, 255}));
    EXPECT_EQ(at(*image, 1, 1), (std::array<int, 4>{255, 0, 0, 255}));
    EXPECT_EQ(at(*image, 0, 0), (std::array<int, 4>{255, 0, 0, 255}));
}

TEST(SixelDecoderTest, EmptyAndHugeStreams) {
    EXPECT_FALSE(decodeSixel(bytesOf(""), true));
    EXPECT_FALSE(decodeSixel(bytesOf("#1;2;1;1;1$-"), true));
    const auto wide = decodeSixel(bytesOf("!99999~"), true);
    ASSERT_TRUE(wide);
    EXPECT_EQ(wide->width, kSixelMaxWidth);
    EXPECT_EQ(at(*wide, kSixelMaxWidth - 1, 5)[3], 255);
}

TEST(SixelDcsTest, PictureIsPlacedAtTheCursorAndTextGoesOnBelow) {
    GraphicsTerminal t;
    t.feed("ab");
    // 25 x 30 pixels: three columns and two rows of 10x20 cells.
    t.feed("\x1bPq\"1;1;25;30#1;2;100;0;0#1!25~-!25~-!25~-!25~-!25~\x1b\\");
    const auto placed = t.placements();
    ASSERT_EQ(placed.size(), 1u);
    EXPECT_EQ(placed[0].slice->source, ImageSource::sixel);
    EXPECT_EQ(placed[0].row, 0);
    EXPECT_EQ(placed[0].col, 2);
    EXPECT_EQ(placed[0].slice->cols, 3);
    EXPECT_EQ(placed[0].slice->rows, 2);
    EXPECT_EQ(placed[0].slice->pixels->width, 25);
    EXPECT_EQ(placed[0].slice->pixels->height, 30);
    EXPECT_EQ(t.terminal->buffer().y().value, 2);
    EXPECT_EQ(t.terminal->buffer().x().value, 2);
    // Sixel pictures scroll and are erased like kitty ones.
    t.feed("\x1b[2J");
    EXPECT_TRUE(t.placements().empty());
}

TEST(SixelDcsTest, TransparentBackgroundParameter) {
    GraphicsTerminal t;
    t.feed("\x1bP0;1;0q#1;2;100;0;0#1@?@\x1b\\");
    t.feed("\x1bP0;0;0q#1;2;100;0;0#1@?@\x1b\\");
    const auto placed = t.placements();
    ASSERT_EQ(placed.size(), 2u);
    EXPECT_EQ(at(*placed[0].slice->pixels, 0, 0)[3], 255);
    EXPECT_EQ(at(*placed[0].slice->pixels, 1, 0)[3], 0);   // the gap shows what is behind
    EXPECT_EQ(at(*placed[1].slice->pixels, 1, 0)[3], 255); // register 0 fills the gap
}

} // namespace
} // namespace termkit
