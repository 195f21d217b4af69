// Unicode placeholders: cells that hold U+10EEEE with diacritics for row, column and the
// image id's high byte, the foreground colour naming the image and the underline colour the
// placement. No producer in this system's packages writes them (chafa here only places
// pictures directly), so the streams are written here the way the protocol describes them.

#include "Termkit/graphics/KittyPlaceholder.h"

#include <gtest/gtest.h>

#include <filesystem>

#include <unistd.h>

#include "Termkit/buffer/Utf8.h"
#include "Termkit/graphics/ImageDump.h"
#include "TermkitTests/graphics/GraphicsTestSupport.h"

namespace termkit {
namespace {

using testing::apc;
using testing::base64;
using testing::gradient;
using testing::GraphicsTerminal;

// The placeholder followed by the diacritics of the given values (row, column, high byte).
std::string cell(std::initializer_list<int> values = {}) {
    std::string out;
    appendUtf8(kKittyPlaceholderCharacter, out);
    for (int v : values)
        appendUtf8(kittyDiacritic(v), out);
    return out;
}

// A row of a placement as programs usually write it: every cell with its row and column.
std::string fullRow(int row, int firstCol, int cols) {
    std::string out;
    for (int c = firstCol; c < firstCol + cols; ++c)
        out += cell({row, c});
    return out;
}

// Transmits a gradient picture as image `id` (stored, not shown).
std::string transmit(uint32_t id, int w, int h) {
    return apc("a=t,f=100,q=2,i=" + std::to_string(id), base64(encodePng(gradient(w, h))));
}

// (row, col, cols, rows) of each draw, and its target rectangle, for compact expectations.
struct Shown {
    int row, col, cols, rows;
    double x, y, w, h;
    bool operator==(const Shown&) const = default;
};

std::vector<Shown> shown(const GraphicsTerminal& t) {
    std::vector<Shown> out;
    for (const PlaceholderDraw& d : resolvePlaceholders(*t.terminal, t.graphics.kitty(), {10, 20}))
        out.push_back({d.row, d.col, d.cols, d.rows, d.targetX, d.targetY, d.targetWidth, d.targetHeight});
    return out;
}

std::vector<PlaceholderDraw> draws(const GraphicsTerminal& t) {
    return resolvePlaceholders(*t.terminal, t.graphics.kitty(), {10, 20});
}

Attribute withColors(Attribute::Color fg, Attribute::OptionalColor underline = std::nullopt) {
    Attribute a;
    a.fg = fg;
    a.underlineColor = underline;
    return a;
}

// --- The diacritics -----------------------------------------------------------------------------

TEST(KittyPlaceholderTest, TheDiacriticTableHasTheProtocolsValues) {
    EXPECT_EQ(kittyDiacritic(0), U'\u0305');
    EXPECT_EQ(kittyDiacritic(1), U'\u030D');
    EXPECT_EQ(kittyDiacritic(17), U'\u0363');
    EXPECT_EQ(kittyDiacritic(kKittyDiacriticCount - 1), U'\U0001D244');
    EXPECT_EQ(kittyDiacritic(kKittyDiacriticCount), 0u);
    EXPECT_EQ(kittyDiacritic(-1), 0u);
    for (int v = 0; v < kKittyDiacriticCount; ++v) {
        EXPECT_EQ(kittyDiacriticValue(kittyDiacritic(v)), v);
        if (v > 0) { // ascending, which the look-up relies on
            EXPECT_LT(kittyDiacritic(v - 1), kittyDiacritic(v));
        }
    }
    // Marks that compose with letters are not in it.
    EXPECT_EQ(kittyDiacriticValue(U'\u0300'), -1);
    EXPECT_EQ(kittyDiacriticValue(U'\u0301'), -1);
    EXPECT_EQ(kittyDiacriticValue(U'a'), -1);
}

// --- Decoding cells -----------------------------------------------------------------------------

TEST(KittyPlaceholderTest, ColoursNameTheImageAndPlacementAndDiacriticsTheCell) {
    KittyPlaceholderDecoder decoder;
    const auto full = decoder.decode(
        cell({3, 7, 2}),
        withColors(Attribute::Color::trueColor(0x12, 0x34, 0x56), Attribute::Color::trueColor(0, 0x01, 0x02)),
        4, 9);
    ASSERT_TRUE(full);
    EXPECT_EQ(*full, (KittyPlaceholderCell{4, 9, 0x02123456u, 0x102u, 3, 7, 2}));
    // A palette colour is its index; no underline colour is placement 0.
    decoder.reset();
    const auto indexed = decoder.decode(cell({0, 0}), withColors(Attribute::Color::ansi256(42)), 0, 0);
    ASSERT_TRUE(indexed);
    EXPECT_EQ(indexed->imageId, 42u);
    EXPECT_EQ(indexed->placementId, 0u);
    // Not a placeholder.
    EXPECT_FALSE(decoder.decode("a\u0305", withColors(Attribute::Color::ansi256(42)), 0, 1));
}

TEST(KittyPlaceholderTest, ACellWithoutDiacriticsContinuesTheCellToItsLeft) {
    KittyPlaceholderDecoder d;
    const Attribute a = withColors(Attribute::Color::trueColor(0, 0, 7));
    ASSERT_TRUE(d.decode(cell({2, 5, 1}), a, 0, 0));
    const auto next = d.decode(cell(), a, 0, 1);
    ASSERT_TRUE(next);
    EXPECT_EQ(next->placeholderRow, 2);
    EXPECT_EQ(next->placeholderCol, 6);
    EXPECT_EQ(next->msb, 1);
    EXPECT_EQ(next->imageId, 0x01000007u);
    const auto third = d.decode(cell(), a, 0, 2);
    EXPECT_EQ(third->placeholderCol, 7);
}

TEST(KittyPlaceholderTest, ARowDiacriticAloneContinuesTheColumnOnlyInTheSameRow) {
    KittyPlaceholderDecoder d;
    const Attribute a = withColors(Attribute::Color::trueColor(0, 0, 7));
    ASSERT_TRUE(d.decode(cell({2, 5, 1}), a, 0, 0));
    const auto same = d.decode(cell({2}), a, 0, 1);
    EXPECT_EQ(same->placeholderCol, 6);
    EXPECT_EQ(same->msb, 1);
    // Another row starts again at column 0, high byte 0.
    const auto other = d.decode(cell({3}), a, 0, 2);
    EXPECT_EQ(other->placeholderRow, 3);
    EXPECT_EQ(other->placeholderCol, 0);
    EXPECT_EQ(other->msb, 0);
}

TEST(KittyPlaceholderTest, RowAndColumnInheritTheHighByteOnlyWhenTheyFollowOn) {
    KittyPlaceholderDecoder d;
    const Attribute a = withColors(Attribute::Color::trueColor(0, 0, 7));
    ASSERT_TRUE(d.decode(cell({0, 0, 4}), a, 0, 0));
    EXPECT_EQ(d.decode(cell({0, 1}), a, 0, 1)->msb, 4);
    // A jump in columns does not follow on.
    EXPECT_EQ(d.decode(cell({0, 5}), a, 0, 2)->msb, 0);
}

TEST(KittyPlaceholderTest, InheritingNeedsTheSameColoursAndTheCellJustToTheLeft) {
    const Attribute a = withColors(Attribute::Color::trueColor(0, 0, 7));
    const Attribute b = withColors(Attribute::Color::trueColor(0, 0, 8));
    const Attribute underlined =
        withColors(Attribute::Color::trueColor(0, 0, 7), Attribute::Color::ansi256(3));
    {
        KittyPlaceholderDecoder d;
        d.decode(cell({1, 4}), a, 0, 0);
        const auto other = d.decode(cell(), b, 0, 1);
        EXPECT_EQ(other->placeholderRow, 0);
        EXPECT_EQ(other->placeholderCol, 0);
    }
    {
        KittyPlaceholderDecoder d;
        d.decode(cell({1, 4}), a, 0, 0);
        EXPECT_EQ(d.decode(cell(), underlined, 0, 1)->placeholderCol, 0);
    }
    {
        // A cell of other text in between breaks the chain.
        KittyPlaceholderDecoder d;
        d.decode(cell({1, 4}), a, 0, 0);
        EXPECT_FALSE(d.decode("x", a, 0, 1));
        EXPECT_EQ(d.decode(cell(), a, 0, 2)->placeholderCol, 0);
    }
    {
        // So does a gap of columns, and a new row.
        KittyPlaceholderDecoder d;
        d.decode(cell({1, 4}), a, 0, 0);
        EXPECT_EQ(d.decode(cell(), a, 0, 2)->placeholderCol, 0);
        d.decode(cell({1, 4}), a, 0, 3);
        d.reset();
        EXPECT_EQ(d.decode(cell(), a, 1, 4)->placeholderCol, 0);
    }
}

// --- On the screen ------------------------------------------------------------------------------

TEST(KittyPlaceholderTest, ThePrinterKeepsThePlaceholderAndItsDiacriticsInOneCell) {
    GraphicsTerminal t;
    t.feed("\x1b[38;5;9m" + cell({1, 2, 3}) + cell({1, 3}) + "x");
    EXPECT_EQ(t.terminal->getCharacter(Col(0), ScreenRow(0)), cell({1, 2, 3}));
    EXPECT_EQ(t.terminal->getCharacter(Col(1), ScreenRow(0)), cell({1, 3}));
    EXPECT_EQ(t.terminal->getCharacter(Col(2), ScreenRow(0)), "x");
    EXPECT_EQ(t.terminal->buffer().x().value, 3);
}

TEST(KittyPlaceholderTest, AVirtualPlacementIsDrawnInTheCellsThatNameIt) {
    GraphicsTerminal t(20, 10);
    t.feed(transmit(5, 40, 40));
    // Four by two cells of 10x20 pixels are 40x40: the picture fills them exactly.
    t.feed(apc("a=p,U=1,i=5,p=2,c=4,r=2,q=2"));
    EXPECT_TRUE(t.placements().empty()); // nothing rides on the lines
    EXPECT_EQ(t.terminal->buffer().x().value, 0);
    t.feed("\x1b[3;4H\x1b[38;5;5m\x1b[58;5;2m" + fullRow(0, 0, 4) + "\x1b[4;4H" + fullRow(1, 0, 4) +
           "\x1b[m");
    EXPECT_EQ(shown(t), (std::vector<Shown>{{2, 3, 4, 2, 3, 2, 4, 2}}));
    const PlaceholderDraw d = draws(t).at(0);
    EXPECT_EQ(d.imageId, 5u);
    EXPECT_EQ(d.placementId, 2u);
    EXPECT_DOUBLE_EQ(d.sourceX, 0);
    EXPECT_DOUBLE_EQ(d.sourceY, 0);
    EXPECT_DOUBLE_EQ(d.sourceWidth, 40);
    EXPECT_DOUBLE_EQ(d.sourceHeight, 40);
    EXPECT_EQ(d.pixels, t.kitty().imagesById().at(5).payload);
}

TEST(KittyPlaceholderTest, ACellShowsItsOwnPieceOfThePicture) {
    GraphicsTerminal t(20, 10);
    t.feed(transmit(5, 40, 40));
    t.feed(apc("a=p,U=1,i=5,c=4,r=2,q=2"));
    // Only the cell of row 1, column 2, somewhere else on the screen.
    t.feed("\x1b[6;10H\x1b[38;5;5m" + cell({1, 2}));
    ASSERT_EQ(draws(t).size(), 1u);
    const PlaceholderDraw d = draws(t)[0];
    EXPECT_EQ(d.row, 5);
    EXPECT_EQ(d.col, 9);
    EXPECT_DOUBLE_EQ(d.sourceX, 20);
    EXPECT_DOUBLE_EQ(d.sourceY, 20);
    EXPECT_DOUBLE_EQ(d.sourceWidth, 10);
    EXPECT_DOUBLE_EQ(d.sourceHeight, 20);
    EXPECT_EQ(shown(t), (std::vector<Shown>{{5, 9, 1, 1, 9, 5, 1, 1}}));
}

TEST(KittyPlaceholderTest, CellsWithoutDiacriticsAfterTheFirstFillTheRow) {
    GraphicsTerminal t(20, 10);
    t.feed(transmit(5, 40, 40));
    t.feed(apc("a=p,U=1,i=5,c=4,r=2,q=2"));
    // Diacritics only on the first cell of each row, as many programs write them.
    t.feed("\x1b[38;5;5m" + cell({0, 0}) + cell() + cell() + cell() + "\r\n" + cell({1}) + cell() + cell() +
           cell());
    EXPECT_EQ(shown(t), (std::vector<Shown>{{0, 0, 4, 2, 0, 0, 4, 2}}));
}

TEST(KittyPlaceholderTest, ThePictureFitsItsCellsWithItsAspectKeptAndCentred) {
    GraphicsTerminal t(20, 10);
    // 20x40 pixels into four by two cells (40x40): two cells wide, a cell of margin each side.
    t.feed(transmit(5, 20, 40));
    t.feed(apc("a=p,U=1,i=5,c=4,r=2,q=2"));
    t.feed("\x1b[38;5;5m" + fullRow(0, 0, 4) + "\r\n" + fullRow(1, 0, 4));
    EXPECT_EQ(shown(t), (std::vector<Shown>{{0, 0, 4, 2, 1, 0, 2, 2}}));
    // The margin cells alone show nothing.
    t.feed("\x1b[2J\x1b[H" + cell({0, 0}) + "\r\n" + cell({1, 3}));
    EXPECT_TRUE(shown(t).empty());
}

TEST(KittyPlaceholderTest, OneSideGivenTheOtherFollowsThePicture) {
    GraphicsTerminal t(20, 10);
    t.feed(transmit(5, 40, 40));
    t.feed(apc("a=p,U=1,i=5,p=1,c=2,q=2"));
    t.feed(apc("a=p,U=1,i=5,p=2,r=3,q=2"));
    t.feed(apc("a=p,U=1,i=5,p=3,q=2"));
    // Two columns of 10 pixels are 20: a square picture needs one row of 20.
    EXPECT_EQ(t.kitty().placementsByKey().at({5, 1}).rows, 1);
    // Three rows of 20 are 60: six columns of 10.
    EXPECT_EQ(t.kitty().placementsByKey().at({5, 2}).cols, 6);
    EXPECT_EQ(t.kitty().placementsByKey().at({5, 3}).cols, 4);
    EXPECT_EQ(t.kitty().placementsByKey().at({5, 3}).rows, 2);
    // A side that would follow past the largest placement is refused, not wrapped around.
    t.feed(transmit(6, 2, 400));
    t.host.replies.clear();
    t.feed(apc("a=p,U=1,i=6,p=1,c=9000"));
    EXPECT_EQ(t.host.replies,
              std::vector<std::string>{testing::kittyReply("i=6,p=1", "EINVAL: placement out of range")});
    EXPECT_FALSE(t.kitty().placementsByKey().contains({6, 1}));
}

TEST(KittyPlaceholderTest, ThePictureFollowsItsTextWhenItScrollsAndMoves) {
    GraphicsTerminal t(20, 5);
    t.feed(transmit(5, 40, 40));
    t.feed(apc("a=p,U=1,i=5,c=4,r=2,q=2"));
    t.feed("\x1b[3;1H\x1b[38;5;5m" + fullRow(0, 0, 4) + "\r\n" + fullRow(1, 0, 4) + "\x1b[m");
    EXPECT_EQ(shown(t).at(0).row, 2);
    // Two line feeds at the bottom scroll it up two rows.
    t.feed("\x1b[5;1H\n\n");
    EXPECT_EQ(shown(t), (std::vector<Shown>{{0, 0, 4, 2, 0, 0, 4, 2}}));
    // Inserted characters push it right.
    t.feed("\x1b[1;1H\x1b[3@\x1b[2;1H\x1b[3@");
    EXPECT_EQ(shown(t), (std::vector<Shown>{{0, 3, 4, 2, 3, 0, 4, 2}}));
    // One more line scrolls its top row away: the bottom half remains.
    t.feed("\x1b[5;1H\n");
    ASSERT_EQ(draws(t).size(), 1u);
    EXPECT_DOUBLE_EQ(draws(t)[0].sourceY, 20);
    EXPECT_DOUBLE_EQ(draws(t)[0].sourceHeight, 20);
    // Erased with its text.
    t.feed("\x1b[2J");
    EXPECT_TRUE(shown(t).empty());
}

TEST(KittyPlaceholderTest, PlacementsAreFoundByUnderlineColourOrTheLowestId) {
    GraphicsTerminal t(20, 10);
    t.feed(transmit(5, 40, 40));
    t.feed(apc("a=p,U=1,i=5,p=7,c=4,r=2,z=3,q=2"));
    t.feed(apc("a=p,U=1,i=5,p=9,c=2,r=1,z=-4,q=2"));
    // Placement 9 by the underline colour; cell (0,0) of a two-by-one box: half the picture wide.
    t.feed("\x1b[38;5;5;58;5;9m" + cell({0, 0}) + "\x1b[m");
    ASSERT_EQ(draws(t).size(), 1u);
    EXPECT_EQ(draws(t)[0].placementId, 9u);
    EXPECT_EQ(draws(t)[0].zIndex, -4);
    // No underline colour: the lowest id, 7.
    t.feed("\x1b[2;1H\x1b[38;5;5m" + cell({0, 0}) + "\x1b[m");
    ASSERT_EQ(draws(t).size(), 2u);
    EXPECT_EQ(draws(t)[0].placementId, 9u); // z-order: -4 first
    EXPECT_EQ(draws(t)[1].placementId, 7u);
    // A placement that is not virtual is not drawn by placeholders.
    t.feed("\x1b[5;1H");
    t.feed(apc("a=p,i=5,p=11,C=1,q=2"));
    t.feed("\x1b[3;1H\x1b[38;5;5;58;5;11m" + cell({0, 0}) + "\x1b[m");
    EXPECT_EQ(draws(t).size(), 2u);
}

TEST(KittyPlaceholderTest, TheThirdDiacriticGivesTheImageIdsHighByte) {
    GraphicsTerminal t(20, 10);
    const uint32_t id = 0x03000102;
    t.feed(transmit(id, 40, 40));
    t.feed(apc("a=p,U=1,c=4,r=2,q=2,i=" + std::to_string(id)));
    t.feed("\x1b[38;2;0;1;2m" + cell({0, 0, 3}) + cell() + "\x1b[m");
    ASSERT_EQ(draws(t).size(), 1u);
    EXPECT_EQ(draws(t)[0].imageId, id);
    EXPECT_EQ(draws(t)[0].cols, 2);
    // Without it the low 24 bits name another image, which does not exist.
    t.feed("\r\n\x1b[38;2;0;1;2m" + cell({0, 0}) + "\x1b[m");
    EXPECT_EQ(draws(t).size(), 1u);
}

TEST(KittyPlaceholderTest, NothingIsDrawnWithoutAVirtualPlacementOrAnImage) {
    GraphicsTerminal t(20, 10);
    t.feed("\x1b[38;5;5m" + fullRow(0, 0, 4) + "\x1b[m");
    EXPECT_TRUE(shown(t).empty());
    t.feed(transmit(5, 40, 40));
    EXPECT_TRUE(shown(t).empty());
    t.feed(apc("a=p,U=1,i=5,c=4,r=2,q=2"));
    EXPECT_EQ(shown(t).size(), 1u);
    // Deleting the image with its data takes the picture away; the text stays.
    t.feed(apc("a=d,d=I,i=5"));
    EXPECT_TRUE(shown(t).empty());
    EXPECT_EQ(t.terminal->getCharacter(Col(0), ScreenRow(0)), cell({0, 0}));
    // A hard reset forgets virtual placements too.
    t.feed(transmit(6, 40, 40));
    t.feed(apc("a=p,U=1,i=6,c=4,r=2,q=2"));
    EXPECT_TRUE(t.kitty().hasVirtualPlacements());
    t.feed("\x1b"
           "c");
    EXPECT_FALSE(t.kitty().hasVirtualPlacements());
}

TEST(KittyPlaceholderTest, AVirtualPlacementWithAParentIsRefused) {
    GraphicsTerminal t(20, 10);
    t.feed(transmit(5, 40, 40));
    t.feed(apc("a=p,i=5,p=1,C=1,q=2"));
    t.host.replies.clear();
    t.feed(apc("a=p,U=1,i=5,p=2,P=5,Q=1"));
    ASSERT_EQ(t.host.replies.size(), 1u);
    EXPECT_EQ(t.host.replies[0],
              testing::kittyReply("i=5,p=2", "EINVAL: virtual placement cannot refer to parent"));
    EXPECT_FALSE(t.kitty().hasVirtualPlacements());
}

TEST(KittyPlaceholderTest, TheDumpListsPlaceholderPlacements) {
    const auto dir =
        std::filesystem::temp_directory_path() / ("termkit-placeholder-dump-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    GraphicsTerminal t(20, 6);
    t.feed(transmit(5, 40, 40));
    t.feed(apc("a=p,U=1,i=5,p=3,c=4,r=2,q=2"));
    t.feed("\x1b[2;3H\x1b[38;5;5;58;5;3m" + fullRow(0, 0, 4) + "\x1b[3;3H" + fullRow(1, 0, 4) + "\x1b[m");
    EXPECT_EQ(dumpImages(*t.terminal, dir.string(), &t.kitty()),
              "image id=5 placement=3 source=placeholder row=1 col=2 cols=4 rows=2 file=kitty-5.png\n");
    EXPECT_TRUE(std::filesystem::exists(dir / "kitty-5.png"));
    // Without the kitty state only pictures on lines are listed.
    EXPECT_EQ(dumpImages(*t.terminal, dir.string()), "");
    std::filesystem::remove_all(dir);
}

} // namespace
} // namespace termkit
