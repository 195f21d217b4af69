// The shelf packer: limits, growth that keeps regions, freezing, reset and its log lines.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Termkit/view/render/GlyphAtlas.h"

namespace termkit {
namespace {

struct Recorder {
    std::vector<std::string> lines;
    LogSink sink() {
        return [this](std::string_view line) { lines.emplace_back(line); };
    }
    int count(const std::string& part) const {
        int n = 0;
        for (const auto& l : lines)
            n += l.find(part) != std::string::npos ? 1 : 0;
        return n;
    }
};

GlyphBitmap solid(int w, int h, uint8_t value) {
    GlyphBitmap b;
    b.width = w;
    b.height = h;
    b.pixels.assign(static_cast<size_t>(w) * h, value);
    return b;
}

uint8_t pixel(const GlyphAtlas& atlas, int x, int y) {
    return atlas.data()[static_cast<size_t>(y) * atlas.size() + x];
}

TEST(GlyphAtlasTest, RecommendedMaxSizeFromTheEnvironmentValue) {
    EXPECT_EQ(GlyphAtlas::recommendedMaxSize(8192, "100"), 256);
    EXPECT_EQ(GlyphAtlas::recommendedMaxSize(8192, "99999"), 8192);
    EXPECT_EQ(GlyphAtlas::recommendedMaxSize(16384, "99999"), 16384);
    EXPECT_EQ(GlyphAtlas::recommendedMaxSize(32768, "99999"), 16384);
    EXPECT_EQ(GlyphAtlas::recommendedMaxSize(8192, "+1024"), 1024);
    EXPECT_EQ(GlyphAtlas::recommendedMaxSize(8192, "-5"), 256);
    EXPECT_EQ(GlyphAtlas::recommendedMaxSize(8192, "999999999999999999999999"), 8192);
    // Without the variable (or with something that is not a number) the cap is the limit.
    EXPECT_EQ(GlyphAtlas::recommendedMaxSize(4096, nullptr), 4096);
    EXPECT_EQ(GlyphAtlas::recommendedMaxSize(4096, "12abc"), 4096);
    EXPECT_EQ(GlyphAtlas::recommendedMaxSize(std::nullopt, nullptr), GlyphAtlas::kDefaultDeviceCap);
}

TEST(GlyphAtlasTest, StartSizeIsTheSmallerOfTheTwoAndAtLeast256) {
    EXPECT_EQ(GlyphAtlas(GlyphAtlasKind::grayscale, 1024, 512).size(), 512);
    EXPECT_EQ(GlyphAtlas(GlyphAtlasKind::grayscale, 64, 8192).size(), 256);
    EXPECT_EQ(GlyphAtlas(GlyphAtlasKind::color, 512, 8192).bytesPerPixel(), 4);
    EXPECT_EQ(GlyphAtlas(GlyphAtlasKind::color, 512, 8192).data().size(), 512u * 512 * 4);
}

TEST(GlyphAtlasTest, ShelvesFillLeftToRightThenMoveDownByTheTallest) {
    GlyphAtlas atlas(GlyphAtlasKind::grayscale, 256, 256);
    const auto a = atlas.reserve(100, 20);
    const auto b = atlas.reserve(100, 30);
    ASSERT_TRUE(a && b);
    EXPECT_EQ(*a, (AtlasRegion{0, 0, 100, 20}));
    EXPECT_EQ(*b, (AtlasRegion{100 + GlyphAtlas::kPadding, 0, 100, 30}));
    EXPECT_EQ(atlas.rowHeight(), 30);
    const auto c = atlas.reserve(100, 10); // no room on the first shelf
    ASSERT_TRUE(c);
    EXPECT_EQ(*c, (AtlasRegion{0, 30 + GlyphAtlas::kPadding, 100, 10}));
    EXPECT_FALSE(atlas.reserve(10, 300));
}

TEST(GlyphAtlasTest, GrowthKeepsExistingRegionsAndTheirPixels) {
    Recorder log;
    GlyphAtlas atlas(GlyphAtlasKind::grayscale, 256, 1024, {}, log.sink());
    std::vector<AtlasRegion> regions;
    // Sixteen glyphs of 60 fill 256 exactly; four more make it grow.
    for (int i = 0; i < 20; ++i) {
        auto r = atlas.ensureRegion(60, 60);
        ASSERT_TRUE(r);
        atlas.write(*r, solid(60, 60, static_cast<uint8_t>(i + 1)));
        regions.push_back(*r);
    }
    EXPECT_EQ(atlas.size(), 512);
    EXPECT_EQ(atlas.generation(), 0u);
    EXPECT_EQ(log.count("glyph atlas (grayscale) grow: 256 -> 512"), 1);
    // Every earlier region still holds its own pixels at the same place.
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(pixel(atlas, regions[i].x, regions[i].y), i + 1);
        EXPECT_EQ(pixel(atlas, regions[i].x + 59, regions[i].y + 59), i + 1);
    }
    EXPECT_FALSE(atlas.takeDidReset());
}

TEST(GlyphAtlasTest, AtTheLimitItResetsOnceLoggedAndEveryRegionIsStale) {
    Recorder log;
    GlyphAtlas atlas(GlyphAtlasKind::color, 256, 256, {}, log.sink());
    int placed = 0;
    while (atlas.generation() == 0) {
        ASSERT_TRUE(atlas.ensureRegion(100, 100));
        ++placed;
    }
    EXPECT_EQ(placed, 5); // four fit, the fifth starts again
    EXPECT_TRUE(atlas.didReset());
    EXPECT_TRUE(atlas.takeDidReset());
    EXPECT_FALSE(atlas.takeDidReset());
    // The fifth glyph is the first of the new generation, at the origin.
    EXPECT_EQ(atlas.nextX(), 100 + GlyphAtlas::kPadding);
    EXPECT_EQ(atlas.nextY(), 0);
    for (int i = 0; i < 8; ++i)
        ASSERT_TRUE(atlas.ensureRegion(100, 100));
    EXPECT_GE(atlas.generation(), 2u);
    EXPECT_EQ(log.count("glyph atlas (color) reset at size 256: glyph working set exceeds capacity"), 1);
}

TEST(GlyphAtlasTest, FrozenAndFullSkipsGlyphsAndLogsOnce) {
    Recorder log;
    GlyphAtlas atlas(GlyphAtlasKind::grayscale, 256, 256, {}, log.sink());
    for (int i = 0; i < 4; ++i)
        ASSERT_TRUE(atlas.ensureRegion(100, 100));
    atlas.freeze();
    for (int i = 0; i < 10; ++i)
        EXPECT_FALSE(atlas.ensureRegion(100, 100));
    EXPECT_EQ(atlas.generation(), 0u); // nothing handed out this frame was pulled away
    EXPECT_EQ(log.count("glyph atlas (grayscale) frozen and full; glyphs will be skipped this frame"), 1);
    // The next frame may reset again.
    atlas.beginFrame();
    EXPECT_TRUE(atlas.ensureRegion(100, 100));
    EXPECT_EQ(atlas.generation(), 1u);
}

TEST(GlyphAtlasTest, ARefusedTextureCountsAsNoRoom) {
    Recorder log;
    int asked = 0;
    GlyphAtlas atlas(
        GlyphAtlasKind::grayscale, 256, 2048,
        [&](int size) {
            ++asked;
            return size <= 512;
        },
        log.sink());
    // 512 holds 25 glyphs of 100; the 26th asks for 1024, which the device refuses.
    for (int i = 0; i < 26; ++i)
        ASSERT_TRUE(atlas.ensureRegion(100, 100));
    EXPECT_EQ(atlas.size(), 512);
    EXPECT_EQ(log.count("glyph atlas (grayscale) grow to 1024 failed: texture allocation"), 1);
    EXPECT_EQ(atlas.generation(), 1u); // the refusal led to a reset, not to a lost glyph
    EXPECT_EQ(asked, 2);
}

TEST(GlyphAtlasTest, AGlyphLargerThanTheLimitIsRefusedWithoutReset) {
    GlyphAtlas atlas(GlyphAtlasKind::grayscale, 256, 256);
    ASSERT_TRUE(atlas.ensureRegion(10, 10));
    EXPECT_FALSE(atlas.ensureRegion(300, 10));
    EXPECT_EQ(atlas.generation(), 0u);
}

TEST(GlyphAtlasTest, WritesAndGrowthMoveTheRevision) {
    GlyphAtlas atlas(GlyphAtlasKind::grayscale, 256, 512);
    const uint64_t start = atlas.revision();
    auto r = atlas.ensureRegion(4, 4);
    ASSERT_TRUE(r);
    atlas.write(*r, solid(4, 4, 9));
    EXPECT_GT(atlas.revision(), start);
    const uint64_t written = atlas.revision();
    ASSERT_TRUE(atlas.grow(512));
    EXPECT_GT(atlas.revision(), written);
    // A colour bitmap is not written into a grayscale atlas.
    GlyphBitmap colour = solid(4, 4, 1);
    colour.isColor = true;
    const uint64_t before = atlas.revision();
    atlas.write(*r, colour);
    EXPECT_EQ(atlas.revision(), before);
}

} // namespace
} // namespace termkit
