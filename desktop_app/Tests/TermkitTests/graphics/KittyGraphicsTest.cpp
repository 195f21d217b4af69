#include "Termkit/graphics/KittyGraphics.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <zlib.h>

#include "Termkit/graphics/KittyPayloadLoader.h"
#include "TermkitTests/graphics/GraphicsTestSupport.h"

namespace termkit {
namespace {

using testing::apc;
using testing::base64;
using testing::gradient;
using testing::GraphicsTerminal;
using testing::kittyReply;

std::string pngBase64(int w, int h) {
    return base64(encodePng(gradient(w, h)));
}

std::span<const uint8_t> bytesOf(const std::string& s) {
    return {reinterpret_cast<const uint8_t*>(s.data()), s.size()};
}

// A file that removes itself at the end of a test (unless the terminal already has).
struct ScratchFile {
    std::string path;
    explicit ScratchFile(std::string p, const std::vector<uint8_t>& bytes) : path(std::move(p)) {
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    }
    ~ScratchFile() { std::remove(path.c_str()); }
};

std::string uniqueName(const std::string& stem) {
    return stem + "-" + std::to_string(::getpid());
}

// --- Control parsing ---------------------------------------------------------------------------

TEST(KittyGraphicsControlTest, DefaultsAndEveryKey) {
    const auto d = KittyGraphicsControl::parse({});
    EXPECT_EQ(d.action, 't');
    EXPECT_EQ(d.format, 32);
    EXPECT_EQ(d.transmission, 'd');
    EXPECT_FALSE(d.imageId);
    EXPECT_FALSE(d.compression);
    EXPECT_FALSE(d.deleteMode);
    const std::string text =
        "a=T,q=2,f=100,t=f,s=3,v=4,x=1,y=2,w=5,h=6,S=7,O=8,i=9,I=10,p=11,P=12,Q=13,H=-1,V=2,"
        "X=3,Y=4,U=1,z=-5,m=1,o=z,c=7,r=8,C=1,d=I;payload";
    std::string_view payload;
    const auto c = KittyGraphicsControl::parse(bytesOf(text), &payload);
    EXPECT_EQ(payload, "payload");
    EXPECT_EQ(c.action, 'T');
    EXPECT_EQ(c.suppressResponses, 2);
    EXPECT_EQ(c.format, 100);
    EXPECT_EQ(c.transmission, 'f');
    EXPECT_EQ(c.width, 3);
    EXPECT_EQ(c.height, 4);
    EXPECT_EQ(c.cropX, 1);
    EXPECT_EQ(c.cropY, 2);
    EXPECT_EQ(c.cropWidth, 5);
    EXPECT_EQ(c.cropHeight, 6);
    EXPECT_EQ(c.dataSize, 7);
    EXPECT_EQ(c.dataOffset, 8);
    EXPECT_EQ(c.imageId, 9u);
    EXPECT_EQ(c.imageNumber, 10u);
    EXPECT_EQ(c.placementId, 11u);
    EXPECT_EQ(c.parentImageId, 12u);
    EXPECT_EQ(c.parentPlacementId, 13u);
    EXPECT_EQ(c.offsetH, -1);
    EXPECT_EQ(c.offsetV, 2);
    EXPECT_EQ(c.pixelOffsetX, 3);
    EXPECT_EQ(c.pixelOffsetY, 4);
    EXPECT_EQ(c.unicodePlaceholder, 1);
    EXPECT_EQ(c.zIndex, -5);
    EXPECT_EQ(c.more, 1);
    EXPECT_EQ(c.compression, 'z');
    EXPECT_EQ(c.columns, 7);
    EXPECT_EQ(c.rows, 8);
    EXPECT_EQ(c.cursorPolicy, 1);
    EXPECT_EQ(c.deleteMode, 'I');
}

TEST(KittyGraphicsControlTest, BadPairsAreDroppedAndBadNumbersKeepTheDefault) {
    const std::string text = "f=abc,i,s=\xc3\xa9,v=12x,i=4294967296,c=3,=5,ab=1";
    const auto c = KittyGraphicsControl::parse(bytesOf(text));
    EXPECT_EQ(c.format, 32);
    EXPECT_EQ(c.width, 0);
    EXPECT_EQ(c.height, 0);
    EXPECT_FALSE(c.imageId); // over 32 bits
    EXPECT_EQ(c.columns, 3);
}

// --- Replies and chunking --------------------------------------------------------------------------

TEST(KittyGraphicsTest, TwoChunkPngRepliesOnceAfterTheFinalChunk) {
    GraphicsTerminal t;
    const std::string data = pngBase64(20, 40);
    const size_t half = data.size() / 2 / 4 * 4;
    t.feed(apc("a=T,f=100,i=7,m=1", data.substr(0, half)));
    EXPECT_TRUE(t.host.replies.empty());
    EXPECT_TRUE(t.kitty().pending().has_value());
    t.feed(apc("m=0", data.substr(half)));
    ASSERT_EQ(t.host.replies.size(), 1u);
    EXPECT_EQ(t.host.replies[0], kittyReply("i=7", "OK"));
    EXPECT_FALSE(t.kitty().pending().has_value());
    const auto placed = t.placements();
    ASSERT_EQ(placed.size(), 1u);
    EXPECT_EQ(placed[0].slice->imageId, 7u);
    EXPECT_EQ(placed[0].slice->cols, 2);
    EXPECT_EQ(placed[0].slice->rows, 2);
}

TEST(KittyGraphicsTest, DeleteDuringAChunkedTransferGoesThroughAndLeavesItAlone) {
    GraphicsTerminal t;
    const std::string data = pngBase64(10, 20);
    t.feed(apc("a=T,f=100,i=2,m=1", data.substr(0, 8)));
    t.feed(apc("a=d,d=A"));
    EXPECT_TRUE(t.kitty().pending().has_value());
    t.feed(apc("m=0", data.substr(8)));
    EXPECT_EQ(t.host.replies, std::vector<std::string>{kittyReply("i=2", "OK")});
}

TEST(KittyGraphicsTest, ImageIdAndNumberAreMutuallyExclusive) {
    GraphicsTerminal t;
    t.feed(apc("a=t,f=100,i=1,I=2", pngBase64(2, 2)));
    EXPECT_EQ(t.host.replies,
              std::vector<std::string>{kittyReply("i=1,I=2", "EINVAL: i and I are mutually exclusive")});
    EXPECT_TRUE(t.kitty().imagesById().empty());
}

TEST(KittyGraphicsTest, PutOfAMissingImageIsNotFound) {
    GraphicsTerminal t;
    t.feed(apc("a=p,i=9"));
    EXPECT_EQ(t.host.replies, std::vector<std::string>{kittyReply("i=9", "ENOENT: image not found")});
}

TEST(KittyGraphicsTest, QuietOneDropsOkButKeepsErrorsAndTwoDropsBoth) {
    GraphicsTerminal t;
    t.feed(apc("a=t,f=100,i=1,q=1", pngBase64(2, 2)));
    EXPECT_TRUE(t.host.replies.empty());
    EXPECT_EQ(t.kitty().imagesById().size(), 1u);
    t.feed(apc("a=p,i=5,q=1"));
    EXPECT_EQ(t.host.replies, std::vector<std::string>{kittyReply("i=5", "ENOENT: image not found")});
    t.host.replies.clear();
    t.feed(apc("a=p,i=5,q=2"));
    t.feed(apc("a=t,f=100,i=3,q=2", pngBase64(2, 2)));
    EXPECT_TRUE(t.host.replies.empty());
    EXPECT_EQ(t.kitty().imagesById().size(), 2u);
}

TEST(KittyGraphicsTest, NoIdentityNoReply) {
    GraphicsTerminal t;
    t.feed(apc("a=t,f=100", pngBase64(2, 2)));
    t.feed(apc("a=t,f=100", "!!!"));
    EXPECT_TRUE(t.host.replies.empty());
    EXPECT_EQ(t.kitty().imagesById().size(), 1u);
}

TEST(KittyGraphicsTest, UnsupportedActionAndQueryStoresNothing) {
    GraphicsTerminal t;
    t.feed(apc("a=Z,i=3"));
    t.feed(apc("a=q,i=4,s=1,v=1,f=24", base64(std::string("\x01\x02\x03", 3))));
    t.feed(apc("a=q,i=5,s=2,v=2,f=24", base64(std::string("\x01\x02\x03", 3))));
    EXPECT_EQ(t.host.replies,
              (std::vector<std::string>{kittyReply("i=3", "EINVAL: unsupported action"),
                                        kittyReply("i=4", "OK"), kittyReply("i=5", "EINVAL: bad payload")}));
    EXPECT_TRUE(t.kitty().imagesById().empty());
}

TEST(KittyGraphicsTest, ImageNumberGetsAFreshIdAndTheReplyNamesBoth) {
    GraphicsTerminal t;
    t.feed(apc("a=t,f=100,I=42", pngBase64(2, 2)));
    ASSERT_EQ(t.kitty().imageNumbers().count(42), 1u);
    const uint32_t id = t.kitty().imageNumbers().at(42);
    EXPECT_EQ(t.host.replies,
              std::vector<std::string>{kittyReply("i=" + std::to_string(id) + ",I=42", "OK")});
    t.feed(apc("a=p,I=42,p=3"));
    EXPECT_EQ(t.placements().size(), 1u);
}

// --- Formats -----------------------------------------------------------------------------------------

TEST(KittyGraphicsTest, RawRgbAndRgbaAndZlib) {
    GraphicsTerminal t;
    const std::string rgb("\x10\x20\x30\x40\x50\x60", 6);
    t.feed(apc("a=t,f=24,s=2,v=1,i=1", base64(rgb)));
    const auto& one = *t.kitty().imagesById().at(1).payload;
    EXPECT_EQ(one.rgba, (std::vector<uint8_t>{0x10, 0x20, 0x30, 0xFF, 0x40, 0x50, 0x60, 0xFF}));

    const std::string rgba("\x01\x02\x03\x04\x05\x06\x07\x08", 8);
    uLongf size = compressBound(rgba.size());
    std::vector<uint8_t> packed(size);
    ASSERT_EQ(compress(packed.data(), &size, reinterpret_cast<const Bytef*>(rgba.data()), rgba.size()), Z_OK);
    packed.resize(size);
    t.feed(apc("a=t,f=32,s=2,v=1,o=z,i=2", base64(packed)));
    EXPECT_EQ(t.kitty().imagesById().at(2).payload->rgba, std::vector<uint8_t>(rgba.begin(), rgba.end()));

    t.feed(apc("a=t,f=32,s=3,v=1,i=3", base64(rgba)));     // too little data
    t.feed(apc("a=t,f=32,s=2,v=1,o=x,i=4", base64(rgba))); // unknown compression
    t.feed(apc("a=t,f=32,s=2,v=1,o=z,i=5", base64(rgba))); // not a zlib stream
    t.feed(apc("a=t,f=7,s=2,v=1,i=6", base64(rgba)));      // unknown format
    t.feed(apc("a=t,f=32,i=7", base64(rgba)));             // raw without a size
    for (size_t i = 2; i < t.host.replies.size(); ++i)
        EXPECT_NE(t.host.replies[i].find("EINVAL: bad payload"), std::string::npos) << i;
    EXPECT_EQ(t.host.replies.size(), 7u);
    EXPECT_EQ(t.kitty().imagesById().size(), 2u);
}

TEST(KittyGraphicsTest, PngPixelsArriveIntact) {
    GraphicsTerminal t;
    const RgbaImage source = gradient(17, 9);
    t.feed(apc("a=t,f=100,i=1", base64(encodePng(source))));
    const auto& stored = *t.kitty().imagesById().at(1).payload;
    EXPECT_EQ(stored.width, 17);
    EXPECT_EQ(stored.height, 9);
    EXPECT_EQ(stored.rgba, source.rgba);
}

// --- Transmission media ---------------------------------------------------------------------------------

TEST(KittyGraphicsTest, FileIsReadAndKept) {
    GraphicsTerminal t;
    const auto png = encodePng(gradient(4, 4));
    const std::string path =
        (std::filesystem::temp_directory_path() / uniqueName("termkit-kitty-file.png")).string();
    ScratchFile file(path, png);
    t.feed(apc("a=t,t=f,f=100,i=1", base64(path)));
    EXPECT_EQ(t.host.replies, std::vector<std::string>{kittyReply("i=1", "OK")});
    EXPECT_TRUE(std::filesystem::exists(path));
}

TEST(KittyGraphicsTest, FileRangeWithOffsetAndSize) {
    GraphicsTerminal t;
    std::vector<uint8_t> bytes = {9, 9, 9, 1, 2, 3, 4, 9};
    const std::string path =
        (std::filesystem::temp_directory_path() / uniqueName("termkit-kitty-range")).string();
    ScratchFile file(path, bytes);
    t.feed(apc("a=t,t=f,f=32,s=1,v=1,O=3,S=4,i=1", base64(path)));
    EXPECT_EQ(t.kitty().imagesById().at(1).payload->rgba, (std::vector<uint8_t>{1, 2, 3, 4}));
    t.feed(apc("a=t,t=f,f=32,s=1,v=1,O=6,S=4,i=2", base64(path)));
    EXPECT_EQ(t.host.replies.back(), kittyReply("i=2", "EINVAL: bad payload"));
}

TEST(KittyGraphicsTest, TemporaryFileIsDeletedAfterReading) {
    GraphicsTerminal t;
    const std::string path = "/tmp/" + uniqueName("tty-graphics-protocol-test") + ".png";
    ScratchFile file(path, encodePng(gradient(3, 3)));
    t.feed(apc("a=T,t=t,f=100,i=1", base64(path)));
    EXPECT_EQ(t.host.replies, std::vector<std::string>{kittyReply("i=1", "OK")});
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(t.placements().size(), 1u);
}

TEST(KittyGraphicsTest, TemporaryFileWithoutTheMarkerIsRefusedAndKept) {
    GraphicsTerminal t;
    const std::string path = "/tmp/" + uniqueName("termkit-not-marked") + ".png";
    ScratchFile file(path, encodePng(gradient(3, 3)));
    t.feed(apc("a=t,t=t,f=100,i=1", base64(path)));
    EXPECT_EQ(t.host.replies, std::vector<std::string>{kittyReply("i=1", "EINVAL: bad temp path")});
    EXPECT_TRUE(std::filesystem::exists(path));
}

// A writable folder that is not one of the temporary ones (the checkout itself may live in
// /tmp), or empty when this machine has none.
std::string folderOutsideTheTemporaryOnes() {
    std::vector<std::filesystem::path> candidates = {std::filesystem::current_path()};
    if (const char* home = std::getenv("HOME"))
        candidates.emplace_back(home);
    for (const auto& candidate : candidates) {
        std::error_code error;
        const std::string real = std::filesystem::canonical(candidate, error).string();
        if (!error && access(real.c_str(), W_OK) == 0 && !isInTemporaryFolder(real))
            return real;
    }
    return {};
}

TEST(KittyGraphicsTest, TemporaryFileOutsideTheTemporaryFoldersIsRefused) {
    GraphicsTerminal t;
    const std::string dir = folderOutsideTheTemporaryOnes();
    if (dir.empty())
        GTEST_SKIP() << "no writable folder outside the temporary ones";
    const std::string path = dir + "/" + uniqueName("tty-graphics-protocol-here");
    ScratchFile file(path, encodePng(gradient(3, 3)));
    t.feed(apc("a=t,t=t,f=100,i=1", base64(path)));
    EXPECT_EQ(t.host.replies, std::vector<std::string>{kittyReply("i=1", "EINVAL: bad temp path")});
    EXPECT_TRUE(std::filesystem::exists(path));
}

TEST(KittyGraphicsTest, DevicePathsAreRefusedButSharedMemoryFilesAreNot) {
    GraphicsTerminal t;
    t.feed(apc("a=t,t=f,f=32,s=1,v=1,i=1", base64("/dev/zero")));
    t.feed(apc("a=t,t=t,f=32,s=1,v=1,i=2", base64("/dev/null")));
    t.feed(apc("a=t,t=f,f=32,s=1,v=1,i=3", base64("/proc/self/environ")));
    t.feed(apc("a=t,t=f,f=32,s=1,v=1,i=4", base64("/nonexistent/file")));
    EXPECT_EQ(t.host.replies, (std::vector<std::string>{kittyReply("i=1", "EINVAL: bad path"),
                                                        kittyReply("i=2", "EINVAL: bad path"),
                                                        kittyReply("i=3", "EINVAL: bad path"),
                                                        kittyReply("i=4", "EINVAL: bad path")}));
    t.host.replies.clear();
    const std::string shmPath = "/dev/shm/" + uniqueName("tty-graphics-protocol-shmfile");
    ScratchFile file(shmPath, std::vector<uint8_t>{1, 2, 3, 4});
    t.feed(apc("a=t,t=t,f=32,s=1,v=1,i=5", base64(shmPath)));
    EXPECT_EQ(t.host.replies, std::vector<std::string>{kittyReply("i=5", "OK")});
    EXPECT_FALSE(std::filesystem::exists(shmPath));
}

TEST(KittyGraphicsTest, SharedMemoryIsReadAndUnlinked) {
    GraphicsTerminal t;
    const std::string name = "/" + uniqueName("termkit-kitty-shm");
    const auto png = encodePng(gradient(5, 3));
    const int fd = ::shm_open(name.c_str(), O_CREAT | O_RDWR | O_EXCL, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::write(fd, png.data(), png.size()), ssize_t(png.size()));
    ::close(fd);
    t.feed(apc("a=t,t=s,f=100,i=1", base64(name)));
    EXPECT_EQ(t.host.replies, std::vector<std::string>{kittyReply("i=1", "OK")});
    EXPECT_EQ(t.kitty().imagesById().at(1).payload->width, 5);
    const int again = ::shm_open(name.c_str(), O_RDONLY, 0);
    EXPECT_LT(again, 0);
    if (again >= 0) {
        ::close(again);
        ::shm_unlink(name.c_str());
    }
    t.feed(apc("a=t,t=s,f=100,i=2", base64(name)));
    EXPECT_EQ(t.host.replies.back(), kittyReply("i=2", "EINVAL: bad payload"));
    t.feed(apc("a=t,t=x,f=100,i=3", base64(name)));
    EXPECT_EQ(t.host.replies.back(), kittyReply("i=3", "ENOTSUP: unsupported transmission"));
}

TEST(KittyGraphicsTest, HostMayRefuseLocalMedia) {
    GraphicsTerminal t;
    const std::string path = "/tmp/" + uniqueName("tty-graphics-protocol-refused");
    ScratchFile file(path, encodePng(gradient(3, 3)));
    t.kitty().setLocalTransmissionAllowed(false);
    t.feed(apc("a=t,t=t,f=100,i=1", base64(path)));
    t.feed(apc("a=t,t=s,f=100,i=2", base64("/some-object")));
    t.feed(apc("a=t,f=100,i=3", base64(encodePng(gradient(3, 3)))));
    EXPECT_EQ(t.host.replies,
              (std::vector<std::string>{kittyReply("i=1", "ENOTSUP: unsupported transmission"),
                                        kittyReply("i=2", "ENOTSUP: unsupported transmission"),
                                        kittyReply("i=3", "OK")}));
    EXPECT_TRUE(std::filesystem::exists(path));
}

// --- Limits -----------------------------------------------------------------------------------------

TEST(KittyGraphicsTest, CacheLimitDropsTheOldestUnplacedImageFirst) {
    // Each 10x10 image is 400 bytes; the limit holds two.
    GraphicsTerminal t(20, 10, 50, 900);
    t.feed(apc("a=T,f=100,i=1,q=2", pngBase64(10, 10))); // placed, oldest
    t.feed(apc("a=t,f=100,i=2,q=2", pngBase64(10, 10))); // unplaced
    EXPECT_EQ(t.kitty().totalImageBytes(), 800u);
    t.feed(apc("a=t,f=100,i=3,q=2", pngBase64(10, 10)));
    EXPECT_TRUE(t.kitty().imagesById().contains(1));
    EXPECT_FALSE(t.kitty().imagesById().contains(2));
    EXPECT_TRUE(t.kitty().imagesById().contains(3));
    EXPECT_EQ(t.kitty().totalImageBytes(), 800u);
    EXPECT_EQ(t.placements().size(), 1u);
}

TEST(KittyGraphicsTest, CacheLimitTakesPlacedImagesWithTheirPlacementsWhenItMust) {
    GraphicsTerminal t(20, 10, 50, 500);
    t.feed(apc("a=T,f=100,i=1,q=2", pngBase64(10, 10)));
    t.feed(apc("a=T,f=100,i=2,q=2", pngBase64(10, 10)));
    EXPECT_FALSE(t.kitty().imagesById().contains(1));
    ASSERT_EQ(t.placements().size(), 1u);
    EXPECT_EQ(t.placements()[0].slice->imageId, 2u);
}

TEST(KittyGraphicsTest, PayloadLimitsAreNamedConstants) {
    EXPECT_EQ(kKittyPayloadLimitBytes, 419430400u);
    EXPECT_EQ(TerminalOptions{}.kittyImageCacheLimitBytes, 335544320);
    // A PNG whose header claims more pixels than the limit allows is refused before decoding.
    RgbaImage tiny = gradient(1, 1);
    std::vector<uint8_t> png = encodePng(tiny);
    png[16] = 0x00, png[17] = 0x00, png[18] = 0x40, png[19] = 0x00; // width 16384
    png[20] = 0x00, png[21] = 0x00, png[22] = 0x40, png[23] = 0x00; // height 16384
    GraphicsTerminal t;
    t.feed(apc("a=t,f=100,i=1", base64(png)));
    EXPECT_EQ(t.host.replies, std::vector<std::string>{kittyReply("i=1", "EINVAL: bad payload")});
}

} // namespace
} // namespace termkit
