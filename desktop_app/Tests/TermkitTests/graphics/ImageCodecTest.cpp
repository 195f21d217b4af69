#include "Termkit/graphics/ImageCodec.h"

#include <gtest/gtest.h>

#include <zlib.h>

#include "TermkitTests/graphics/GraphicsTestSupport.h"

namespace termkit {
namespace {

std::vector<uint8_t> bytes(std::string_view s) {
    return {s.begin(), s.end()};
}

TEST(ImageCodecTest, Base64) {
    EXPECT_EQ(decodeBase64("aGVsbG8=", 100), bytes("hello"));
    EXPECT_EQ(decodeBase64("aGVs\nbG8", 100), bytes("hello"));
    EXPECT_EQ(decodeBase64("", 100), bytes(""));
    EXPECT_EQ(decodeBase64("aGVsbA==bw==", 100), bytes("hello")); // padded chunks, joined
    EXPECT_FALSE(decodeBase64("aGV*bG8=", 100));
    EXPECT_FALSE(decodeBase64("aGVsbG8=", 4));
    EXPECT_EQ(decodeBase64(testing::base64(std::string_view("\x00\xff\x10", 3)), 3),
              bytes(std::string_view("\x00\xff\x10", 3)));
}

TEST(ImageCodecTest, ZlibWithLimit) {
    const std::vector<uint8_t> plain(10000, 'a');
    uLongf size = compressBound(plain.size());
    std::vector<uint8_t> packed(size);
    ASSERT_EQ(compress(packed.data(), &size, plain.data(), plain.size()), Z_OK);
    packed.resize(size);
    EXPECT_EQ(decompressZlib(packed, 10000), plain);
    EXPECT_FALSE(decompressZlib(packed, 9999));
    packed.resize(packed.size() / 2);
    EXPECT_FALSE(decompressZlib(packed, 10000));
}

TEST(ImageCodecTest, PngRoundTripAndHeader) {
    const RgbaImage source = testing::gradient(33, 7);
    const auto png = encodePng(source);
    EXPECT_EQ(pngPixelSize(png), std::make_pair(33, 7));
    const auto back = decodePngToRgba(png, 1 << 20);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->rgba, source.rgba);
    EXPECT_FALSE(decodePngToRgba(png, 33 * 7 * 4 - 1));
    EXPECT_FALSE(pngPixelSize(bytes("not a png at all, certainly")));
    std::vector<uint8_t> broken = png;
    broken.resize(40);
    EXPECT_FALSE(decodePngToRgba(broken, 1 << 20));
}

} // namespace
} // namespace termkit
