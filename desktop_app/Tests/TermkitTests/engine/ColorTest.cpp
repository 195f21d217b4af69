#include "Termkit/engine/Color.h"

#include <gtest/gtest.h>

namespace termkit {
namespace {

Color parse(std::string_view s) {
    auto c = Color::parseColor(s);
    EXPECT_TRUE(c.has_value()) << s;
    return c.value_or(Color());
}

TEST(ColorTest, EightBitValuesWidenByTwoHundredFiftySeven) {
    EXPECT_EQ(Color::from8bit(0x37, 0, 0xFF), Color(0x3737, 0, 0xFFFF));
}

TEST(ColorTest, DefaultInstalledColours) {
    const auto& c = Color::defaultInstalledColors();
    EXPECT_EQ(c[0], Color::from8bit(0, 0, 0));
    EXPECT_EQ(c[1], Color::from8bit(0x99, 0x00, 0x01));
    EXPECT_EQ(c[4], Color::from8bit(0x03, 0x00, 0xB2));
    EXPECT_EQ(c[7], Color::from8bit(0xBF, 0xBF, 0xBF));
    EXPECT_EQ(c[8], Color::from8bit(0x8A, 0x89, 0x8A));
    EXPECT_EQ(c[12], Color::from8bit(0x07, 0x00, 0xFE));
    EXPECT_EQ(c[15], Color::from8bit(0xE5, 0xE5, 0xE5));
}

TEST(ColorTest, HashFormsByLength) {
    EXPECT_EQ(parse("#fff"), Color(0xFFFF, 0xFFFF, 0xFFFF));
    EXPECT_EQ(parse("#ffffff"), Color(0xFFFF, 0xFFFF, 0xFFFF));
    EXPECT_EQ(parse("#123"), Color(0x1111, 0x2222, 0x3333));
    EXPECT_EQ(parse("#abcabcabc"), Color(0xABEB, 0xABEB, 0xABEB));
    EXPECT_EQ(parse("#fffffffff"), Color(0xFFFF, 0xFFFF, 0xFFFF));
    EXPECT_EQ(parse("#123456789abc"), Color(0x1234, 0x5678, 0x9ABC));
    EXPECT_FALSE(Color::parseColor("#ab"));
    EXPECT_FALSE(Color::parseColor("#abcd"));
    EXPECT_EQ(parse("#ggg"), Color(0, 0, 0));
    EXPECT_EQ(parse("#1g3"), Color(0x1111, 0, 0x3333));
}

TEST(ColorTest, RgbFormScalesByTheLongestChannel) {
    EXPECT_EQ(parse("rgb:f/ff/fff"), Color(0x00F0, 0x0FFF, 0xFFFF));
    EXPECT_EQ(parse("rgb:1x2x3"), parse("rgb:1/2/3"));
    EXPECT_EQ(parse("rgb:1/2/3"), Color(0x1111, 0x2222, 0x3333));
    EXPECT_EQ(parse("rgb:f/f/f"), Color(0xFFFF, 0xFFFF, 0xFFFF));
    EXPECT_EQ(parse("rgb:ffff/0/8000"), Color(0xFFFF, 0, 0x8000));
    EXPECT_FALSE(Color::parseColor("RGB:1/2/3")) << "the prefix is not case-blind";
    EXPECT_FALSE(Color::parseColor("rgb:"));
    EXPECT_FALSE(Color::parseColor("red"));
}

TEST(ColorTest, FormatsAsXcolor) {
    EXPECT_EQ(Color(0x1234, 0xABCD, 0x0005).formatAsXcolor(), "rgb:1234/abcd/0005");
}

TEST(ColorTest, LabConversionOfKnownColours) {
    const LabColor white = Color::from8bit(255, 255, 255).toLab();
    EXPECT_NEAR(white.l, 100.0, 0.01);
    EXPECT_NEAR(white.a, 0.0, 0.01);
    EXPECT_NEAR(white.b, 0.0, 0.01);
    const LabColor red = Color::from8bit(255, 0, 0).toLab();
    EXPECT_NEAR(red.l, 53.24, 0.05);
    EXPECT_NEAR(red.a, 80.09, 0.05);
    EXPECT_NEAR(red.b, 67.20, 0.05);
    for (int v : {0, 1, 17, 128, 200, 255}) {
        const Color c = Color::from8bit(static_cast<uint8_t>(v), static_cast<uint8_t>(255 - v),
                                        static_cast<uint8_t>(v / 2));
        EXPECT_EQ(Color::fromLab(c.toLab()), c) << v;
    }
}

TEST(ColorTest, XtermPaletteCubeAndGreys) {
    const auto& base = Color::defaultInstalledColors();
    const auto p = generateXtermPalette(base);
    ASSERT_EQ(p.size(), 256u);
    EXPECT_EQ(p[15], base[15]);
    EXPECT_EQ(p[16], Color::from8bit(0, 0, 0));
    EXPECT_EQ(p[17], Color::from8bit(0, 0, 0x5F));
    EXPECT_EQ(p[16 + 36], Color::from8bit(0x5F, 0, 0));
    EXPECT_EQ(p[231], Color::from8bit(0xFF, 0xFF, 0xFF));
    EXPECT_EQ(p[232], Color::from8bit(8, 8, 8));
    EXPECT_EQ(p[255], Color::from8bit(238, 238, 238));
}

TEST(ColorTest, LabPaletteSwapsADarkForegroundToTheStart) {
    const auto& base = Color::defaultInstalledColors();
    const Color darkFg = Color::from8bit(0x10, 0x10, 0x10);
    const Color lightBg = Color::from8bit(0xF0, 0xF0, 0xF0);
    const auto p = generateBase16LabPalette(base, darkFg, lightBg, false);
    ASSERT_EQ(p.size(), 256u);
    EXPECT_EQ(p[16], darkFg);
    EXPECT_EQ(p[231], lightBg);
    // Whichever of the two is the background, colour 16 is the darker one.
    const auto q = generateBase16LabPalette(base, lightBg, darkFg, false);
    EXPECT_EQ(q[16], darkFg);
}

TEST(ColorTest, HarmoniousLabPaletteStartsFromALightBackground) {
    const auto& base = Color::defaultInstalledColors();
    const Color darkFg = Color::from8bit(0x20, 0x20, 0x20);
    const Color lightBg = Color::from8bit(0xFA, 0xF0, 0xE6);
    const auto p = generateBase16LabPalette(base, darkFg, lightBg, true);
    EXPECT_EQ(p[16], lightBg);
    EXPECT_EQ(p[231], darkFg);
}

TEST(ColorTest, LabGreyRampHoldsNeitherEnd) {
    const auto& base = Color::defaultInstalledColors();
    const Color fg = Color::from8bit(0xE0, 0xE0, 0xE0);
    const Color bg = Color::from8bit(0x10, 0x10, 0x10);
    const auto p = generateBase16LabPalette(base, fg, bg, false);
    for (int i = 232; i < 256; ++i) {
        EXPECT_NE(p[i], fg) << i;
        EXPECT_NE(p[i], bg) << i;
    }
    // The ramp rises from the dark end toward the light one.
    for (int i = 233; i < 256; ++i)
        EXPECT_GE(p[i].red, p[i - 1].red) << i;
}

TEST(ColorTest, LabPaletteWithFewerThanEightColoursFallsBackToXterm) {
    const auto& base = Color::defaultInstalledColors();
    const std::vector<Color> few(base.begin(), base.begin() + 4);
    EXPECT_EQ(generateBase16LabPalette(few, std::nullopt, std::nullopt, false), generateXtermPalette(few));
}

} // namespace
} // namespace termkit
