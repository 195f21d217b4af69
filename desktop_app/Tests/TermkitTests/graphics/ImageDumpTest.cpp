#include "Termkit/graphics/ImageDump.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include <unistd.h>

#include "TermkitTests/graphics/GraphicsTestSupport.h"

namespace termkit {
namespace {

using testing::apc;
using testing::base64;
using testing::gradient;
using testing::GraphicsTerminal;

std::vector<uint8_t> readBytes(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST(ImageDumpTest, OneLinePerPlacementAndOneFilePerPicture) {
    const auto dir = std::filesystem::temp_directory_path() / ("termkit-dump-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    GraphicsTerminal t(20, 6);
    const RgbaImage picture = gradient(20, 40);
    t.feed(apc("a=t,f=100,i=5", base64(encodePng(picture))));
    t.feed("\x1b[2;3H");
    t.feed(apc("a=p,i=5,p=1,z=2"));
    t.feed("\x1b[1;10H");
    t.feed(apc("a=p,i=5,p=2,c=4,r=1"));
    t.feed("\x1b[5;1H\x1bPq#1;2;100;0;0#1~~\x1b\\");
    const std::string lines = dumpImages(*t.terminal, dir.string());
    EXPECT_EQ(lines, "image id=5 placement=2 source=kitty row=0 col=9 cols=4 rows=1 file=kitty-5.png\n"
                     "image id=1 placement=0 source=sixel row=4 col=0 cols=1 rows=1 file=sixel-1.png\n"
                     "image id=5 placement=1 source=kitty row=1 col=2 cols=2 rows=2 file=kitty-5.png\n");
    const auto kitty = decodePngToRgba(readBytes(dir / "kitty-5.png"), 1 << 20);
    ASSERT_TRUE(kitty);
    EXPECT_EQ(kitty->rgba, picture.rgba);
    const auto sixel = decodePngToRgba(readBytes(dir / "sixel-1.png"), 1 << 20);
    ASSERT_TRUE(sixel);
    EXPECT_EQ(sixel->width, 2);
    EXPECT_EQ(sixel->height, 6);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir), std::filesystem::directory_iterator()),
              2);
    std::filesystem::remove_all(dir);
    // Nothing is listed once the pictures have scrolled away.
    t.feed("\x1b[6;1H\n\n\n\n\n\n\n");
    EXPECT_EQ(dumpImages(*t.terminal, "/nonexistent"), "");
}

} // namespace
} // namespace termkit
