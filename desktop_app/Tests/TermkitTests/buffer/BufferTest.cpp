#include "Termkit/buffer/Buffer.h"

#include <gtest/gtest.h>

#include "TermkitTests/buffer/BufferTestSupport.h"

namespace termkit {
namespace {

using testing::allLines;
using testing::newline;
using testing::screen;
using testing::text;
using testing::write;
using Lines = std::vector<std::string>;

class UserScrollObserver : public BufferObserver {
public:
    bool holding = false;
    int inPlace = 0;
    bool isUserScrolling() const override { return holding; }
    void bufferScrolledInPlace() override { ++inPlace; }
};

TEST(BufferTest, StartsWithLazyBlankScreenRowsAndDefaultRegions) {
    Buffer b(10, 4, 8, 100, {});
    EXPECT_EQ(b.lineCount(), 4);
    EXPECT_EQ(b.lines().maxLength(), 104);
    EXPECT_EQ(b.lines().peek(0), nullptr);
    EXPECT_EQ(b.scrollTop(), ScreenRow(0));
    EXPECT_EQ(b.scrollBottom(), ScreenRow(3));
    EXPECT_EQ(b.marginLeft(), Col(0));
    EXPECT_EQ(b.marginRight(), Col(9));
    EXPECT_EQ(b.line(LineIndex(0)).count(), 10);
    EXPECT_NE(b.lines().peek(0), nullptr);
}

TEST(BufferTest, FullRingScrollKeepsYBaseGrowsLinesTopAndDropsTheOldestLine) {
    Buffer b(5, 2, 8, 2, {});
    for (int i = 0; i < 4; ++i) {
        write(b, std::u32string(1, U'a' + i));
        newline(b);
    }
    // Four lines and the cursor line: the ring of 4 is full and has dropped "a".
    EXPECT_TRUE(b.lines().isFull());
    EXPECT_EQ(allLines(b), (Lines{"b", "c", "d", ""}));
    const LineIndex yBase = b.yBase();
    const long long top = b.linesTop();
    write(b, U"e");
    newline(b);
    EXPECT_EQ(b.yBase(), yBase);
    EXPECT_EQ(b.linesTop(), top + 1);
    EXPECT_EQ(allLines(b), (Lines{"c", "d", "e", ""}));
}

TEST(BufferTest, UserScrolledUpViewStaysStillUntilItsLinesAreRecycled) {
    Buffer b(5, 2, 8, 4, {});
    UserScrollObserver observer;
    b.setObserver(&observer);
    for (int i = 0; i < 5; ++i) {
        write(b, std::u32string(1, U'a' + i));
        newline(b);
    }
    // The person scrolls to the top of the history; the ring of 6 is just full.
    ASSERT_TRUE(b.lines().isFull());
    b.setYDisp(LineIndex(2));
    observer.holding = true;
    const std::string shown = text(b, b.yDisp());
    EXPECT_EQ(shown, "c");
    write(b, U"f");
    newline(b);
    // The line on display moved one index up and yDisp with it: the text stays still.
    EXPECT_EQ(b.yDisp(), LineIndex(1));
    EXPECT_EQ(text(b, b.yDisp()), shown);
    EXPECT_EQ(observer.inPlace, 1);
    b.setYDisp(LineIndex(0));
    write(b, U"g");
    newline(b);
    // At the very top the line on display is itself recycled, and the view moves on.
    EXPECT_EQ(b.yDisp(), LineIndex(0));
    EXPECT_EQ(text(b, b.yDisp()), "c");
}

TEST(BufferTest, NotFullRingScrollGrowsYBaseAndFollowsUnlessTheUserHolds) {
    Buffer b(5, 2, 8, 10, {});
    UserScrollObserver observer;
    b.setObserver(&observer);
    newline(b);
    newline(b);
    EXPECT_EQ(b.yBase(), LineIndex(1));
    EXPECT_EQ(b.yDisp(), LineIndex(1));
    observer.holding = true;
    newline(b);
    EXPECT_EQ(b.yBase(), LineIndex(2));
    EXPECT_EQ(b.yDisp(), LineIndex(1));
}

TEST(BufferTest, ScrollRegionBelowTheTopKeepsHistoryOut) {
    Buffer b(5, 4, 8, 10, {});
    for (char32_t c : std::u32string(U"abcd")) {
        write(b, std::u32string(1, c));
        if (c != U'd')
            newline(b);
    }
    b.setScrollRegion(ScreenRow(1), ScreenRow(2));
    b.setY(ScreenRow(2));
    b.scroll(false);
    EXPECT_EQ(b.yBase(), LineIndex(0));
    EXPECT_EQ(screen(b), (Lines{"a", "c", "", "d"}));
}

TEST(BufferTest, ScrollRegionAtTheTopWithABottomMarginSendsTheTopLineToHistory) {
    Buffer b(5, 4, 8, 10, {});
    for (char32_t c : std::u32string(U"abcd")) {
        write(b, std::u32string(1, c));
        if (c != U'd')
            newline(b);
    }
    b.setScrollRegion(b.scrollTop(), ScreenRow(2));
    b.scroll(false);
    EXPECT_EQ(b.yBase(), LineIndex(1));
    EXPECT_EQ(allLines(b), (Lines{"a", "b", "c", "", "d"}));
}

TEST(BufferTest, WideCharacterThatWrappedJoinsTheRowAboveWhenWidened) {
    Buffer b(6, 3, 8, 10, {});
    write(b, U"hello\u4E16");
    newline(b);
    EXPECT_EQ(screen(b), (Lines{"hello", "\xe4\xb8\x96", ""}));
    EXPECT_TRUE(b.line(LineIndex(1)).isWrapped());
    b.resize(7, 3);
    EXPECT_EQ(screen(b)[0], "hello\xe4\xb8\x96");
    EXPECT_EQ(b.line(LineIndex(0)).count(), 7);
    EXPECT_EQ(b.line(LineIndex(0))[5].width, 2);
    EXPECT_EQ(b.line(LineIndex(0))[6].width, 0);
}

TEST(BufferTest, WideningMovesTheCursorUpByTheLinesRemovedAboveIt) {
    Buffer b(6, 3, 8, 10, {});
    write(b, U"hello\u4E16");
    newline(b);
    b.resize(7, 3);
    EXPECT_EQ(b.y(), ScreenRow(1));
    EXPECT_EQ(b.x(), Col(0));
    EXPECT_EQ(screen(b), (Lines{"hello\xe4\xb8\x96", "", ""}));
}

TEST(BufferTest, NarrowingPutsAWideCharacterOnTheEdgeOntoTheNextRow) {
    Buffer b(10, 3, 8, 10, {});
    write(b, U"abcd\u4E16x");
    newline(b);
    b.resize(5, 3);
    EXPECT_EQ(screen(b), (Lines{"abcd", "\xe4\xb8\x96x", ""}));
    EXPECT_TRUE(b.line(LineIndex(0))[4].isUntouchedBlank());
    EXPECT_TRUE(b.line(LineIndex(1)).isWrapped());
    EXPECT_EQ(b.y(), ScreenRow(2));
    // And back: the filler blank disappears again.
    b.resize(10, 3);
    EXPECT_EQ(screen(b)[0], "abcd\xe4\xb8\x96x");
}

TEST(BufferTest, GroupHoldingTheCursorIsNotReflowed) {
    Buffer b(5, 3, 8, 10, {});
    write(b, U"abcdefg");
    ASSERT_TRUE(b.line(LineIndex(1)).isWrapped());
    b.resize(10, 3);
    EXPECT_EQ(screen(b), (Lines{"abcde", "fg", ""}));
    EXPECT_TRUE(b.line(LineIndex(1)).isWrapped());
}

TEST(BufferTest, WideningRemovesLinesAboveTheCursorAndMovesItUp) {
    Buffer b(5, 4, 8, 10, {});
    write(b, U"abcdefg");
    newline(b);
    write(b, U"$");
    EXPECT_EQ(b.y(), ScreenRow(2));
    b.resize(10, 4);
    EXPECT_EQ(screen(b), (Lines{"abcdefg", "$", "", ""}));
    EXPECT_EQ(b.y(), ScreenRow(1));
    EXPECT_EQ(b.x(), Col(1));
}

TEST(BufferTest, NarrowingMovesTheCursorDownOnAScreenWithRoom) {
    Buffer b(10, 4, 8, 10, {});
    write(b, U"abcdefg");
    newline(b);
    write(b, U"$");
    b.resize(5, 4);
    EXPECT_EQ(screen(b), (Lines{"abcde", "fg", "$", ""}));
    EXPECT_EQ(b.y(), ScreenRow(2));
    EXPECT_EQ(b.yBase(), LineIndex(0));
}

TEST(BufferTest, NarrowingAFullScreenPushesItsTopIntoHistory) {
    Buffer b(10, 2, 8, 10, {});
    write(b, U"abcdefg");
    newline(b);
    write(b, U"$");
    b.resize(5, 2);
    EXPECT_EQ(b.yBase(), LineIndex(1));
    EXPECT_EQ(allLines(b), (Lines{"abcde", "fg", "$"}));
    EXPECT_EQ(b.y(), ScreenRow(1));
}

TEST(BufferTest, NarrowingKeepsEveryCellWhenTheRowCountStaysTheSame) {
    Buffer b(10, 3, 8, 10, {});
    write(b, U"abcdefghijk");
    newline(b);
    b.resize(9, 3);
    EXPECT_EQ(screen(b), (Lines{"abcdefghi", "jk", ""}));
}

TEST(BufferTest, AlternateBufferResizeTruncatesText) {
    Buffer alt(10, 3, 8, std::nullopt, {}, nullptr, false);
    write(alt, U"abcdefghij");
    alt.setCursor(Col(0), ScreenRow(1));
    write(alt, U"xyz");
    alt.resize(4, 3);
    EXPECT_EQ(screen(alt), (Lines{"abcd", "xyz", ""}));
    EXPECT_FALSE(alt.line(LineIndex(1)).isWrapped());
    EXPECT_EQ(alt.lines().maxLength(), 3);
}

TEST(BufferTest, ShrinkingRowsWithTheCursorInTheMiddlePopsEmptyRows) {
    Buffer b(5, 6, 8, 10, {});
    write(b, U"a");
    newline(b);
    write(b, U"b");
    b.resize(5, 3);
    EXPECT_EQ(b.yBase(), LineIndex(0));
    EXPECT_EQ(b.y(), ScreenRow(1));
    EXPECT_EQ(b.lineCount(), 3);
    EXPECT_EQ(screen(b), (Lines{"a", "b", ""}));
}

TEST(BufferTest, ShrinkingRowsWithTheCursorAtTheBottomScrolls) {
    Buffer b(5, 4, 8, 10, {});
    for (char32_t c : std::u32string(U"abcd")) {
        write(b, std::u32string(1, c));
        if (c != U'd')
            newline(b);
    }
    b.resize(5, 2);
    EXPECT_EQ(b.yBase(), LineIndex(2));
    EXPECT_EQ(b.y(), ScreenRow(1));
    EXPECT_EQ(screen(b), (Lines{"c", "d"}));
}

TEST(BufferTest, GrowingRowsPullsHistoryBackIntoView) {
    Buffer b(5, 2, 8, 10, {});
    for (char32_t c : std::u32string(U"abcd")) {
        write(b, std::u32string(1, c));
        if (c != U'd')
            newline(b);
    }
    ASSERT_EQ(b.yBase(), LineIndex(2));
    b.resize(5, 3);
    EXPECT_EQ(b.yBase(), LineIndex(1));
    EXPECT_EQ(b.y(), ScreenRow(2));
    EXPECT_EQ(screen(b), (Lines{"b", "c", "d"}));
}

TEST(BufferTest, ChangeHistorySizeToNothingLeavesOnlyTheScreen) {
    Buffer b(5, 2, 8, 10, {});
    for (int i = 0; i < 6; ++i) {
        write(b, std::u32string(1, U'a' + i));
        newline(b);
    }
    ASSERT_EQ(b.lineCount(), 7);
    b.changeHistorySize(std::nullopt);
    EXPECT_EQ(b.lines().maxLength(), 2);
    EXPECT_EQ(b.lineCount(), 2);
    EXPECT_EQ(b.yBase(), LineIndex(0));
    EXPECT_EQ(b.yDisp(), LineIndex(0));
    EXPECT_FALSE(b.scrollback().has_value());
    EXPECT_EQ(screen(b), (Lines{"f", ""}));
    b.changeHistorySize(3);
    EXPECT_EQ(b.lines().maxLength(), 5);
}

TEST(BufferTest, TabStopsEveryWidthAndKeptWhenWidening) {
    Buffer b(20, 2, 8, 0, {});
    EXPECT_EQ(b.nextTabStop(Col(0), false), Col(8));
    EXPECT_EQ(b.nextTabStop(Col(8), false), Col(16));
    EXPECT_EQ(b.nextTabStop(Col(16), false), Col(19));
    EXPECT_EQ(b.previousTabStop(Col(10)), Col(8));
    EXPECT_EQ(b.previousTabStop(Col(3)), Col(0));
    b.tabSet(Col(3));
    b.tabClear(Col(8));
    EXPECT_EQ(b.nextTabStop(Col(0), false), Col(3));
    EXPECT_EQ(b.nextTabStop(Col(3), false), Col(16));
    b.resize(30, 2);
    EXPECT_EQ(b.nextTabStop(Col(3), false), Col(16));
    EXPECT_EQ(b.nextTabStop(Col(16), false), Col(24));
    b.setMargins(b.marginLeft(), Col(20));
    EXPECT_EQ(b.nextTabStop(Col(16), true), Col(20));
    b.clearTabStops();
    EXPECT_EQ(b.nextTabStop(Col(0), false), Col(29));
}

TEST(BufferTest, InsertCharacterWithoutWraparoundDropsWideAndOverwritesTheEdge) {
    Buffer b(10, 2, 8, 0, {});
    b.modes().wraparound = false;
    write(b, U"abcdefghi");
    write(b, U"\u4E16");
    EXPECT_EQ(text(b, LineIndex(0)), "abcdefghi");
    write(b, U"jk");
    EXPECT_EQ(text(b, LineIndex(0)), "abcdefghik");
    EXPECT_EQ(b.y(), ScreenRow(0));
}

TEST(BufferTest, InsertModeWithAWideCharacterAtTheEdgeLeavesNoHalf) {
    Buffer b(6, 2, 8, 0, {});
    write(b, U"abcd\u4E16");
    b.setX(Col(0));
    b.modes().insertMode = true;
    write(b, U"x");
    // The wide character was pushed to columns 5 and 6; column 6 does not exist.
    EXPECT_EQ(b.line(LineIndex(0))[5].width, 1);
    EXPECT_EQ(b.line(LineIndex(0))[5].code, 0);
    EXPECT_EQ(text(b, LineIndex(0)), "xabcd");
}

TEST(BufferTest, AsciiRunsWrapLikeSingleCharacters) {
    Buffer viaRun(4, 3, 8, 10, {});
    Buffer viaChars(4, 3, 8, 10, {});
    const std::string s = "abcdefghijklmn";
    EXPECT_EQ(
        viaRun.insertAsciiRun(reinterpret_cast<const uint8_t*>(s.data()), static_cast<int>(s.size()), 0),
        static_cast<int>(s.size()));
    write(viaChars, U"abcdefghijklmn");
    EXPECT_EQ(allLines(viaRun), allLines(viaChars));
    EXPECT_EQ(viaRun.x(), viaChars.x());
    EXPECT_EQ(viaRun.y(), viaChars.y());
    EXPECT_EQ(viaRun.yBase(), viaChars.yBase());
    for (int i = 1; i < viaRun.lineCount(); ++i)
        EXPECT_EQ(viaRun.line(LineIndex(i)).isWrapped(), viaChars.line(LineIndex(i)).isWrapped());
}

TEST(BufferTest, AsciiRunsOfEveryLengthWriteExactlyTheirCells) {
    // The bulk writers work in groups of four and eight cells, the last group overlapping;
    // every length and start must write its own cells and leave the neighbours alone.
    const std::string letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    for (int start = 0; start < 9; ++start) {
        for (int length = 1; start + length <= 48; ++length) {
            Buffer b(48, 2, 8, 0, {});
            const std::string before(48, '.');
            b.modes().curAttr = 3;
            b.insertAsciiRun(reinterpret_cast<const uint8_t*>(before.data()), 48, 0);
            b.setCursor(Col(start), ScreenRow(0));
            b.modes().curAttr = 7;
            b.setSemanticContent(2);
            const std::string run = letters.substr(0, static_cast<size_t>(length));
            ASSERT_EQ(b.insertAsciiRun(reinterpret_cast<const uint8_t*>(run.data()), length, 5), length);
            const BufferLine& line = b.line(LineIndex(0));
            for (int col = 0; col < 48; ++col) {
                const bool inside = col >= start && col < start + length;
                const CharData expected{inside ? run[col - start] : '.', inside ? 7u : 3u,
                                        static_cast<uint16_t>(inside ? 5 : 0), 1,
                                        static_cast<uint8_t>(inside ? 2 : 0)};
                ASSERT_EQ(line[col], expected) << "start " << start << " length " << length << " col " << col;
            }
            EXPECT_EQ(b.x(), Col(start + length));
        }
    }
}

TEST(BufferTest, AsciiRunLeavesInsertModeToTheGeneralPath) {
    Buffer b(4, 3, 8, 10, {});
    b.modes().insertMode = true;
    const uint8_t s[] = {'a', 'b'};
    EXPECT_EQ(b.insertAsciiRun(s, 2, 0), 0);
}

TEST(BufferTest, ScrollWithLeftAndRightMarginsMovesOnlyTheCellsInside) {
    Buffer b(6, 3, 8, 10, {});
    write(b, U"abcdef");
    b.setCursor(Col(0), ScreenRow(1));
    write(b, U"ghijkl");
    b.setCursor(Col(0), ScreenRow(2));
    write(b, U"mnopqr");
    b.modes().marginMode = true;
    b.setMargins(Col(1), Col(3));
    b.scroll(false);
    EXPECT_EQ(screen(b), (Lines{"ahijef", "gnopkl", "m   qr"}));
    EXPECT_EQ(b.yBase(), LineIndex(0));
}

TEST(BufferTest, AttributeMarkingReportsEveryIdOnMaterialisedLines) {
    Buffer b(4, 2, 8, 0, {});
    b.modes().curAttr = 5;
    write(b, U"ab");
    b.modes().curAttr = 9;
    write(b, U"c");
    std::vector<AttributeId> seen;
    b.markAttributes([&](AttributeId id) { seen.push_back(id); });
    EXPECT_NE(std::find(seen.begin(), seen.end(), 5u), seen.end());
    EXPECT_NE(std::find(seen.begin(), seen.end(), 9u), seen.end());
}

} // namespace
} // namespace termkit
