// Box drawing, block elements and powerline glyphs drawn by geometry, so lines join.

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "Termkit/view/glyphs/BlockElementMapping.h"
#include "Termkit/view/glyphs/BoxDrawingRenderer.h"
#include "Termkit/view/glyphs/CustomGlyphs.h"
#include "Termkit/view/glyphs/PowerlineRenderer.h"

namespace termkit {
namespace {

constexpr int kW = 9;
constexpr int kH = 18;

GlyphBitmap draw(char32_t c, bool antiAlias = true, int w = kW, int h = kH, int thickness = 1) {
    CustomGlyphKey key{c, w, h, thickness, 1.0, antiAlias};
    auto bitmap = CustomGlyphs::render(key);
    EXPECT_TRUE(bitmap.has_value()) << "U+" << std::hex << static_cast<uint32_t>(c);
    return bitmap.value_or(GlyphBitmap{});
}

int at(const GlyphBitmap& b, int x, int y) {
    return b.pixels[static_cast<size_t>(y) * b.width + x];
}

// Covered rows of one column, as a string of '#' and '.' from top to bottom.
std::string column(const GlyphBitmap& b, int x) {
    std::string s;
    for (int y = 0; y < b.height; ++y)
        s += at(b, x, y) > 127 ? '#' : '.';
    return s;
}

std::string row(const GlyphBitmap& b, int y) {
    std::string s;
    for (int x = 0; x < b.width; ++x)
        s += at(b, x, y) > 127 ? '#' : '.';
    return s;
}

TEST(BoxDrawingTest, ArmsOfTheStraightCharacters) {
    using W = LineWeight;
    EXPECT_EQ(BoxDrawingRenderer::arms(0x253C), (BoxArms{W::light, W::light, W::light, W::light}));
    EXPECT_EQ(BoxDrawingRenderer::arms(0x254B), (BoxArms{W::heavy, W::heavy, W::heavy, W::heavy}));
    EXPECT_EQ(BoxDrawingRenderer::arms(0x256C), (BoxArms{W::doubled, W::doubled, W::doubled, W::doubled}));
    EXPECT_EQ(BoxDrawingRenderer::arms(0x2552), (BoxArms{W::none, W::doubled, W::light, W::none}));
    EXPECT_EQ(BoxDrawingRenderer::arms(0x2545), (BoxArms{W::light, W::light, W::heavy, W::heavy}));
    EXPECT_EQ(BoxDrawingRenderer::arms(0x257E), (BoxArms{W::none, W::light, W::none, W::heavy}));
    EXPECT_FALSE(BoxDrawingRenderer::arms(0x2504)); // dashed
    EXPECT_FALSE(BoxDrawingRenderer::arms(0x256D)); // arc
    EXPECT_FALSE(BoxDrawingRenderer::arms(0x2580)); // outside the block
}

TEST(BoxDrawingTest, AHorizontalLineRunsEdgeToEdgeOnTheCentreRow) {
    const GlyphBitmap b = draw(0x2500);
    const int y = (kH - 1) / 2;
    EXPECT_EQ(row(b, y), std::string(kW, '#'));
    for (int r = 0; r < kH; ++r) {
        if (r != y) {
            EXPECT_EQ(row(b, r), std::string(kW, '.')) << r;
        }
    }
}

TEST(BoxDrawingTest, EveryCharacterWithAHorizontalArmUsesTheSameRows) {
    // A line drawn from several cells is unbroken: the arm of each character that reaches
    // the right edge covers the same rows as the one of its neighbour that reaches the left.
    const std::string edge = column(draw(0x2500), kW - 1);
    for (char32_t c : {U'\u250C', U'\u252C', U'\u253C', U'\u251C', U'\u2514', U'\u2534', U'\u2576'})
        EXPECT_EQ(column(draw(c), kW - 1), edge) << std::hex << static_cast<uint32_t>(c);
    for (char32_t c : {U'\u2510', U'\u2524', U'\u253C', U'\u2518', U'\u2574'})
        EXPECT_EQ(column(draw(c), 0), edge) << std::hex << static_cast<uint32_t>(c);
    const std::string vertical = row(draw(0x2502), kH - 1);
    for (char32_t c : {U'\u250C', U'\u2510', U'\u253C', U'\u252C', U'\u2577', U'\u2552'})
        EXPECT_EQ(row(draw(c), kH - 1), vertical) << std::hex << static_cast<uint32_t>(c);
}

TEST(BoxDrawingTest, HeavyLinesAreTwiceAsThickAndContainTheLightOne) {
    const std::string light = column(draw(0x2500), 0);
    const std::string heavy = column(draw(0x2501), 0);
    EXPECT_EQ(std::count(light.begin(), light.end(), '#'), 1);
    EXPECT_EQ(std::count(heavy.begin(), heavy.end(), '#'), 2);
    for (size_t i = 0; i < light.size(); ++i) {
        if (light[i] == '#') {
            EXPECT_EQ(heavy[i], '#');
        }
    }
}

TEST(BoxDrawingTest, ACornerIsClosed) {
    const GlyphBitmap b = draw(0x250C); // ┌
    const int x = (kW - 1) / 2;
    const int y = (kH - 1) / 2;
    EXPECT_GT(at(b, x, y), 127);
    EXPECT_EQ(row(b, y).substr(0, x), std::string(x, '.'));
    EXPECT_EQ(row(b, y).substr(x), std::string(kW - x, '#'));
    EXPECT_EQ(column(b, x).substr(0, y), std::string(y, '.'));
    EXPECT_EQ(column(b, x).substr(y), std::string(kH - y, '#'));
}

TEST(BoxDrawingTest, DoubleLinesAreTwoStrokesWithAGap) {
    const std::string c = column(draw(0x2550), 0); // ═
    const int y = (kH - 1) / 2;
    EXPECT_EQ(c[y - 1], '#');
    EXPECT_EQ(c[y], '.');
    EXPECT_EQ(c[y + 1], '#');
    EXPECT_EQ(std::count(c.begin(), c.end(), '#'), 2);
}

TEST(BoxDrawingTest, DoubleCornerHasAnOuterAndAnInnerPath) {
    const GlyphBitmap b = draw(0x2554); // ╔
    const int x = (kW - 1) / 2;
    const int y = (kH - 1) / 2;
    // Outer path: the upper stroke turns down along the left stroke.
    EXPECT_GT(at(b, x - 1, y - 1), 127);
    EXPECT_GT(at(b, kW - 1, y - 1), 127);
    EXPECT_GT(at(b, x - 1, kH - 1), 127);
    // Inner path: the lower stroke turns down along the right stroke.
    EXPECT_GT(at(b, x + 1, y + 1), 127);
    EXPECT_GT(at(b, x + 1, kH - 1), 127);
    // Between the two, and beyond the corner, nothing.
    EXPECT_EQ(at(b, x, y), 0);
    EXPECT_EQ(at(b, x, kH - 1), 0);
    EXPECT_EQ(at(b, 0, y - 1), 0);
    EXPECT_EQ(at(b, x - 1, 0), 0);
    // Its right arm meets the doubled line of ═ on the same rows.
    EXPECT_EQ(column(b, kW - 1), column(draw(0x2550), kW - 1));
}

TEST(BoxDrawingTest, DoubleCrossLeavesTheMiddleOpen) {
    const GlyphBitmap b = draw(0x256C); // ╬
    const int x = (kW - 1) / 2;
    const int y = (kH - 1) / 2;
    EXPECT_EQ(at(b, x, y), 0);
    EXPECT_EQ(at(b, x, 0), 0);           // between the two vertical strokes
    EXPECT_EQ(at(b, 0, y), 0);           // between the two horizontal strokes
    EXPECT_GT(at(b, x - 1, y - 1), 127); // the four inner corners
    EXPECT_GT(at(b, x + 1, y + 1), 127);
    EXPECT_EQ(at(b, x + 1, y), 0); // the corners do not cross into the gap
}

TEST(BoxDrawingTest, ArcsMeetTheLinesAtTheEdges) {
    const GlyphBitmap b = draw(0x256D); // ╭
    const int x = (kW - 1) / 2;
    const int y = (kH - 1) / 2;
    EXPECT_GT(at(b, x, kH - 1), 127); // joins │ below
    EXPECT_GT(at(b, kW - 1, y), 127); // joins ─ to the right
    EXPECT_EQ(at(b, 0, 0), 0);
    EXPECT_EQ(at(b, 0, kH - 1), 0);
    EXPECT_EQ(at(b, kW - 1, 0), 0);
    const GlyphBitmap c = draw(0x256F); // ╯
    EXPECT_GT(at(c, x, 0), 127);
    EXPECT_GT(at(c, 0, y), 127);
    EXPECT_EQ(at(c, kW - 1, kH - 1), 0);
}

TEST(BoxDrawingTest, DashesComeInTheirNumber) {
    auto runs = [](const std::string& s) {
        int n = 0;
        for (size_t i = 0; i < s.size(); ++i)
            n += s[i] == '#' && (i == 0 || s[i - 1] != '#') ? 1 : 0;
        return n;
    };
    const int y = (kH - 1) / 2;
    EXPECT_EQ(runs(row(draw(0x254C, true, 16, kH), y)), 2);
    EXPECT_EQ(runs(row(draw(0x2504, true, 16, kH), y)), 3);
    EXPECT_EQ(runs(row(draw(0x2508, true, 16, kH), y)), 4);
    EXPECT_EQ(runs(column(draw(0x250A), (kW - 1) / 2)), 4);
}

TEST(BoxDrawingTest, DiagonalsReachTheCorners) {
    const GlyphBitmap b = draw(0x2572); // ╲
    EXPECT_GT(at(b, 0, 0), 0);
    EXPECT_GT(at(b, kW - 1, kH - 1), 0);
    EXPECT_EQ(at(b, kW - 1, 0), 0);
    const GlyphBitmap x = draw(0x2573);
    EXPECT_GT(at(x, kW - 1, 0), 0);
    EXPECT_GT(at(x, 0, 0), 0);
}

TEST(BoxDrawingTest, WithoutAntiAliasingPixelsAreOnOrOff) {
    const GlyphBitmap b = draw(0x256D, false);
    std::set<int> values(b.pixels.begin(), b.pixels.end());
    for (int v : values)
        EXPECT_TRUE(v == 0 || v == 255) << v;
    const GlyphBitmap smooth = draw(0x256D, true);
    bool partial = false;
    for (uint8_t v : smooth.pixels)
        partial = partial || (v > 0 && v < 255);
    EXPECT_TRUE(partial);
}

TEST(BlockElementTest, HalvesAndEighthsTileOnWholePixels) {
    const GlyphBitmap upper = draw(0x2580);
    const GlyphBitmap lower = draw(0x2584);
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x)
            EXPECT_EQ(at(upper, x, y) + at(lower, x, y), 255) << x << "," << y;
    EXPECT_EQ(row(draw(0x2588), 0), std::string(kW, '#'));
    const GlyphBitmap eighth = draw(0x2581);
    EXPECT_EQ(row(eighth, kH - 1), std::string(kW, '#'));
    EXPECT_EQ(row(eighth, kH - 3), std::string(kW, '.'));
    const GlyphBitmap left = draw(0x258C); // ▌
    EXPECT_EQ(row(left, 5), std::string(BlockElementMapping::edge(0.5, kW), '#') +
                                std::string(kW - BlockElementMapping::edge(0.5, kW), '.'));
}

TEST(BlockElementTest, ShadesAndQuadrants) {
    EXPECT_EQ(at(draw(0x2591), 3, 3), 64);
    EXPECT_EQ(at(draw(0x2592), 3, 3), 128);
    EXPECT_EQ(at(draw(0x2593), 3, 3), 191);
    const GlyphBitmap q = draw(0x259A); // ▚ upper left and lower right
    EXPECT_EQ(at(q, 0, 0), 255);
    EXPECT_EQ(at(q, kW - 1, kH - 1), 255);
    EXPECT_EQ(at(q, kW - 1, 0), 0);
    EXPECT_EQ(at(q, 0, kH - 1), 0);
    EXPECT_EQ(BlockElementMapping::rects(0x2599).size(), 3u);
    EXPECT_TRUE(BlockElementMapping::rects(0x25A0).empty());
}

TEST(PowerlineTest, ASolidArrowFillsItsEdgeAndPointsToTheMiddle) {
    const GlyphBitmap b = draw(0xE0B0);
    // No seam against the cells before it: the edge column is covered all the way, but for
    // the two corner pixels that the slanted sides cut.
    EXPECT_EQ(column(b, 0).substr(1, kH - 2), std::string(kH - 2, '#'));
    EXPECT_GT(at(b, 0, 0), 0);
    EXPECT_EQ(at(b, kW - 1, 0), 0);
    EXPECT_EQ(at(b, kW - 1, kH - 1), 0);
    EXPECT_GT(at(b, kW - 2, kH / 2), 0);
    const GlyphBitmap mirrored = draw(0xE0B2);
    EXPECT_EQ(column(mirrored, kW - 1).substr(1, kH - 2), std::string(kH - 2, '#'));
    EXPECT_EQ(at(mirrored, 0, 0), 0);
}

TEST(PowerlineTest, HalfCirclesAndTriangles) {
    const GlyphBitmap round = draw(0xE0B4);
    EXPECT_EQ(column(round, 0), std::string(kH, '#'));
    EXPECT_EQ(at(round, kW - 1, 0), 0);
    const GlyphBitmap lowerLeft = draw(0xE0B8);
    EXPECT_EQ(at(lowerLeft, 0, kH - 1), 255);
    EXPECT_EQ(at(lowerLeft, kW - 1, 0), 0);
    EXPECT_EQ(row(lowerLeft, kH - 1), std::string(kW, '#'));
}

TEST(CustomGlyphsTest, WhatIsDrawnByGeometry) {
    EXPECT_TRUE(CustomGlyphs::handles(0x2500));
    EXPECT_TRUE(CustomGlyphs::handles(0x259F));
    EXPECT_TRUE(CustomGlyphs::handles(0xE0B0));
    EXPECT_FALSE(CustomGlyphs::handles('A'));
    EXPECT_FALSE(CustomGlyphs::handles(0xE0A0)); // the branch symbol comes from the font
    EXPECT_FALSE(CustomGlyphs::render({'A', kW, kH, 1, 1.0, true}));
    EXPECT_FALSE(CustomGlyphs::render({0x2500, 0, kH, 1, 1.0, true}));
    EXPECT_EQ(CustomGlyphs::baseThickness(18), 1);
    EXPECT_EQ(CustomGlyphs::baseThickness(36), 2);
    EXPECT_EQ(CustomGlyphs::baseThickness(8), 1);
}

TEST(CustomGlyphsTest, ThickerLinesStayCentredAndJoined) {
    const GlyphBitmap b = draw(0x253C, true, 18, 36, 2);
    const std::string edge = column(b, 0);
    EXPECT_EQ(std::count(edge.begin(), edge.end(), '#'), 2);
    EXPECT_EQ(column(draw(0x2500, true, 18, 36, 2), 17), edge);
}

} // namespace
} // namespace termkit
