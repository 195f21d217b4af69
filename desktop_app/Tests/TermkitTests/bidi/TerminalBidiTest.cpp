#include "Termkit/bidi/TerminalBidi.h"

#include <gtest/gtest.h>

#include "TermkitTests/IndexPrinters.h"

#include <string>

#include "Termkit/bidi/ArabicShaping.h"
#include "Termkit/bidi/BidiCharacters.h"
#include "Termkit/engine/Terminal.h"
#include "TermkitTests/fakes/RecordingTerminalDelegate.h"

namespace termkit {
namespace {

using testing::RecordingTerminalDelegate;

// A terminal of a given size with a layout engine beside it, as a view has.
struct Screen {
    RecordingTerminalDelegate host;
    Terminal terminal;
    TerminalBidi bidi;

    Screen(int cols, int rows, int scrollback = 100) : terminal(&host, options(cols, rows, scrollback)) {}

    static TerminalOptions options(int cols, int rows, int scrollback) {
        TerminalOptions o;
        o.cols = cols;
        o.rows = rows;
        o.scrollback = scrollback;
        return o;
    }
    LineIndex line(int screenRow) const { return terminal.buffer().lineIndex(ScreenRow(screenRow)); }
    BidiRowLayout layout(int screenRow) { return bidi.layout(line(screenRow), terminal.buffer()); }
    std::string visual(int screenRow, bool trimRight = true) {
        return TerminalBidi::visualText(layout(screenRow), terminal.buffer().line(line(screenRow)),
                                        terminal.tables().characters, trimRight);
    }
    const BufferLine& bufferLine(int screenRow) const { return terminal.buffer().line(line(screenRow)); }
};

std::vector<int> identity(int n) {
    std::vector<int> v(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i)
        v[static_cast<size_t>(i)] = i;
    return v;
}

// --- The state and the sequences that set it --------------------------------------------------

TEST(BidiStateTest, SequencesSetEveryField) {
    Screen s(20, 4);
    Terminal& t = s.terminal;
    EXPECT_EQ(presentationModeOf(t.currentBidiState()), BidiPresentationMode::implicitAutoLeftToRight);
    t.feed("\x1b[8l");
    EXPECT_EQ(t.currentBidiState().supportMode, BidiSupportMode::explicit_);
    EXPECT_EQ(presentationModeOf(t.currentBidiState()), BidiPresentationMode::explicitLeftToRight);
    t.feed("\x1b[8h\x1b[?2500h\x1b[?2501l");
    EXPECT_EQ(t.currentBidiState().supportMode, BidiSupportMode::implicit);
    EXPECT_TRUE(t.currentBidiState().boxMirroring);
    EXPECT_FALSE(t.currentBidiState().autodetectDirection);
    t.feed("\x1b[2 k");
    EXPECT_EQ(t.currentBidiState().fallbackDirection, BidiDirection::rightToLeft);
    EXPECT_EQ(presentationModeOf(t.currentBidiState()), BidiPresentationMode::implicitRightToLeft);
    t.feed("\x1b[0 k");
    EXPECT_EQ(t.currentBidiState().fallbackDirection, BidiDirection::leftToRight);
    t.feed("\x1b[3 S");
    EXPECT_EQ(t.currentBidiState().fallbackDirection, BidiDirection::rightToLeft);
    t.feed("\x1b[0 S\x1b[?2501h");
    EXPECT_EQ(presentationModeOf(t.currentBidiState()), BidiPresentationMode::implicitAutoLeftToRight);
    t.feed("\x1b[?1243h");
    EXPECT_TRUE(t.bidiArrowKeySwap());
    // Both buffers give new lines the state now in force.
    EXPECT_EQ(t.normalBuffer().defaultBidiState(), t.currentBidiState());
    EXPECT_EQ(t.altBuffer().defaultBidiState(), t.currentBidiState());
}

TEST(BidiStateTest, PresentationModesCoverTheSixCombinations) {
    BidiPresentationState s;
    s.fallbackDirection = BidiDirection::rightToLeft;
    EXPECT_EQ(presentationModeOf(s), BidiPresentationMode::implicitAutoRightToLeft);
    s.supportMode = BidiSupportMode::explicit_;
    EXPECT_EQ(presentationModeOf(s), BidiPresentationMode::explicitRightToLeft);
    s.autodetectDirection = false;
    EXPECT_EQ(presentationModeOf(s), BidiPresentationMode::explicitRightToLeft);
    s.supportMode = BidiSupportMode::implicit;
    s.fallbackDirection = BidiDirection::leftToRight;
    EXPECT_EQ(presentationModeOf(s), BidiPresentationMode::implicitLeftToRight);
}

TEST(BidiStateTest, AChangeAtTheParagraphStartReachesItsLines) {
    Screen s(10, 4);
    // Two wrapped rows of text, then the cursor back at the paragraph's start.
    s.terminal.feed("abcdefghijklm\x1b[H\x1b[2 k");
    EXPECT_EQ(s.bufferLine(0).bidiState().fallbackDirection, BidiDirection::rightToLeft);
    EXPECT_EQ(s.bufferLine(1).bidiState().fallbackDirection, BidiDirection::rightToLeft);
}

TEST(BidiStateTest, AChangeInTheMiddleOfAParagraphStartsAfterTheCursorLine) {
    Screen s(10, 4);
    s.terminal.feed("abcdefghijklmnopqrstuvw\x1b[1;5H\x1b[2 k");
    EXPECT_EQ(s.bufferLine(0).bidiState().fallbackDirection, BidiDirection::leftToRight);
    EXPECT_EQ(s.bufferLine(1).bidiState().fallbackDirection, BidiDirection::rightToLeft);
    EXPECT_EQ(s.bufferLine(2).bidiState().fallbackDirection, BidiDirection::rightToLeft);
    // A line of its own that is empty takes the change at once.
    s.terminal.feed("\x1b[4;3H\x1b[?2500h");
    EXPECT_TRUE(s.bufferLine(3).bidiState().boxMirroring);
}

TEST(BidiStateTest, OnlyTheNamedPropertiesChange) {
    Screen s(10, 3);
    s.terminal.feed("\x1b[?2500h\x1b[2 k");
    BufferLine line = s.bufferLine(0);
    EXPECT_TRUE(line.bidiState().boxMirroring);
    EXPECT_EQ(line.bidiState().fallbackDirection, BidiDirection::rightToLeft);
    // Mirroring off leaves the direction of the line as it was.
    s.terminal.feed("\x1b[?2500l");
    EXPECT_FALSE(s.bufferLine(0).bidiState().boxMirroring);
    EXPECT_EQ(s.bufferLine(0).bidiState().fallbackDirection, BidiDirection::rightToLeft);
    const BidiPresentationState merged = mergeBidiProperties(
        BidiPresentationState{},
        BidiPresentationState{BidiSupportMode::explicit_, false, BidiDirection::rightToLeft, true},
        kBidiAutodetect);
    EXPECT_FALSE(merged.autodetectDirection);
    EXPECT_EQ(merged.supportMode, BidiSupportMode::implicit);
    EXPECT_EQ(merged.fallbackDirection, BidiDirection::leftToRight);
    EXPECT_FALSE(merged.boxMirroring);
}

TEST(BidiStateTest, WrappedLinesTakeTheStateOfTheLineAbove) {
    Screen s(10, 4);
    s.terminal.feed("\x1b[2 kabcdefghij");
    // The state changes after the first row is written; the wrap still continues its paragraph.
    s.terminal.feed("\x1b[0 k");
    s.terminal.feed("klm");
    EXPECT_TRUE(s.bufferLine(1).isWrapped());
    EXPECT_EQ(s.bufferLine(1).bidiState().fallbackDirection, BidiDirection::rightToLeft);
    // An erased line takes the state now in force.
    s.terminal.feed("\x1b[2J");
    EXPECT_EQ(s.bufferLine(1).bidiState().fallbackDirection, BidiDirection::leftToRight);
}

// --- The gate -------------------------------------------------------------------------------

TEST(TerminalBidiTest, MayNeedBidiLooksForRightToLeftScalars) {
    Screen s(20, 5);
    s.terminal.feed("plain ascii \xc3\xa9\r\n"); // Latin only
    s.terminal.feed("\xd7\xa9\xd7\x9c\r\n");     // Hebrew
    s.terminal.feed("a\xd6\x91"
                    "b\r\n");                // a Hebrew accent in the cluster of a
    s.terminal.feed("\xf0\x9e\xa4\x80\r\n"); // Adlam, beyond the basic plane
    const CharacterTable& table = s.terminal.tables().characters;
    EXPECT_FALSE(TerminalBidi::mayNeedBidi(s.bufferLine(0), table));
    EXPECT_TRUE(TerminalBidi::mayNeedBidi(s.bufferLine(1), table));
    EXPECT_TRUE(TerminalBidi::mayNeedBidi(s.bufferLine(2), table));
    EXPECT_TRUE(TerminalBidi::mayNeedBidi(s.bufferLine(3), table));
    EXPECT_FALSE(TerminalBidi::mayNeedBidi(s.bufferLine(4), table));
    EXPECT_TRUE(bidi::isRightToLeftTrigger(0x202E));
    EXPECT_FALSE(bidi::isRightToLeftTrigger(0x202A));
    EXPECT_FALSE(bidi::isRightToLeftTrigger(0xFE00));
    EXPECT_TRUE(bidi::isRightToLeftTrigger(0xFEFC));
}

// --- Edge cases -----------------------------------------------------------------------------

TEST(TerminalBidiTest, AllLatinRowIsIdentityWhateverTheState) {
    // Every state in which the direction is found from the text, or is left-to-right: a Latin
    // row's first strong letter makes it left-to-right. (With autodetection off and a
    // right-to-left fallback, or in the explicit right-to-left mode, a row is right-aligned by
    // request; the next tests cover those.)
    for (int bits = 0; bits < 16; ++bits) {
        BidiPresentationState state;
        state.supportMode = (bits & 1) ? BidiSupportMode::explicit_ : BidiSupportMode::implicit;
        state.autodetectDirection = (bits & 2) != 0;
        state.fallbackDirection = (bits & 4) ? BidiDirection::rightToLeft : BidiDirection::leftToRight;
        state.boxMirroring = (bits & 8) != 0;
        if (state.fallbackDirection == BidiDirection::rightToLeft &&
            (!state.autodetectDirection || state.supportMode == BidiSupportMode::explicit_))
            continue;
        Screen s(16, 2);
        s.terminal.feed("Hello, (world) \xe2\x94\x8c");
        const BidiRowLayout layout = s.bidi.layout(s.line(0), s.terminal.buffer(), state);
        SCOPED_TRACE(bits);
        EXPECT_TRUE(layout.isIdentity());
        EXPECT_EQ(layout.visualToLogicalCol, identity(16));
        EXPECT_EQ(layout.logicalToVisualCol, identity(16));
        EXPECT_EQ(layout.baseDirection, BidiDirection::leftToRight);
        EXPECT_FALSE(s.bidi.rowNeedsLayout(s.line(0), s.terminal.buffer()));
    }
}

TEST(TerminalBidiTest, HebrewWordInALatinParagraphIsReversedInPlace) {
    Screen s(20, 2);
    s.terminal.feed("abc \xd7\xa9\xd7\x9c\xd7\x95\xd7\x9d def");
    const BidiRowLayout layout = s.layout(0);
    EXPECT_EQ(layout.baseDirection, BidiDirection::leftToRight);
    EXPECT_EQ(s.visual(0), "abc \xd7\x9d\xd7\x95\xd7\x9c\xd7\xa9 def");
    // The word's four columns are mirrored within themselves; the rest stays.
    EXPECT_EQ(layout.logicalToVisualCol[4], 7);
    EXPECT_EQ(layout.logicalToVisualCol[7], 4);
    EXPECT_EQ(layout.logicalToVisualCol[0], 0);
    EXPECT_EQ(layout.logicalToVisualCol[9], 9);
    for (int col = 0; col < 20; ++col)
        EXPECT_EQ(
            layout
                .visualToLogicalCol[static_cast<size_t>(layout.logicalToVisualCol[static_cast<size_t>(col)])],
            col);
}

TEST(TerminalBidiTest, WrappedArabicParagraphIsOrderedAsOne) {
    Screen s(8, 3);
    // Eight Arabic letters fill the first row; the Latin word wraps onto the second.
    s.terminal.feed("\xd8\xa8\xd8\xa8\xd8\xa8\xd8\xa8 \xd8\xb3\xd8\xb3\xd8\xb3 abc");
    ASSERT_TRUE(s.bufferLine(1).isWrapped());
    const BidiRowLayout first = s.layout(0);
    const BidiRowLayout second = s.layout(1);
    EXPECT_EQ(first.baseDirection, BidiDirection::rightToLeft);
    // The second row alone would be left-to-right; in its paragraph it is right-aligned.
    EXPECT_EQ(second.baseDirection, BidiDirection::rightToLeft);
    // Its leading space sits between right-to-left text and Latin, so it goes to the right;
    // the empty cells after the text go to the left.
    EXPECT_EQ(second.visualToLogicalCol[7], 0);
    EXPECT_EQ(second.visualToLogicalCol[4], 1);
    EXPECT_EQ(second.visualToLogicalCol[6], 3);
    EXPECT_EQ(s.visual(1, false), "    abc ");
    // The first row holds the logically first text: its rightmost cell is logical column 0.
    EXPECT_EQ(first.visualToLogicalCol[7], 0);
    EXPECT_EQ(first.visualToLogicalCol[0], 7);
    // Each word is shaped, read from the right: initial, medial..., final.
    EXPECT_EQ(s.visual(0),
              "\xef\xba\xb2\xef\xba\xb4\xef\xba\xb3 \xef\xba\x90\xef\xba\x92\xef\xba\x92\xef\xba\x91");
    EXPECT_EQ(s.layout(1).paragraphRevision, first.paragraphRevision);
}

TEST(TerminalBidiTest, JoiningGoesOnAcrossAWrappedRowEnd) {
    Screen s(4, 3);
    // Six behs: the fourth, last on the first row, joins the fifth on the next row.
    s.terminal.feed("\xd8\xa8\xd8\xa8\xd8\xa8\xd8\xa8\xd8\xa8\xd8\xa8");
    EXPECT_EQ(s.visual(0), "\xef\xba\x92\xef\xba\x92\xef\xba\x92\xef\xba\x91");
    EXPECT_EQ(s.visual(1, false), "  \xef\xba\x90\xef\xba\x92");
}

TEST(TerminalBidiTest, ParagraphOverFiveHundredRowsHasNoError) {
    constexpr int kRows = 620;
    Screen s(10, 24, 1000);
    std::string text;
    for (int i = 0; i < kRows * 5; ++i)
        text += "\xd7\x90\xd7\x91";
    s.terminal.feed(text);
    const Buffer& b = s.terminal.buffer();
    ASSERT_GT(b.lineCount(), TerminalBidi::kMaximumBidiParagraphRows);
    const LineIndex last(b.lineCount() - 1);
    const TerminalBidi::ParagraphBounds bounds = TerminalBidi::paragraphBounds(last, b);
    EXPECT_EQ(bounds.last - bounds.first + 1, TerminalBidi::kMaximumBidiParagraphRows);
    const BidiRowLayout layout = s.bidi.layout(last, b);
    EXPECT_EQ(layout.baseDirection, BidiDirection::rightToLeft);
    EXPECT_EQ(layout.visualToLogicalCol.size(), 10U);
    const BidiRowLayout early = s.bidi.layout(LineIndex(3), b);
    EXPECT_EQ(early.visualToLogicalCol[9], 0);
    EXPECT_EQ(TerminalBidi::paragraphBounds(LineIndex(3), b).first, LineIndex(0));
}

TEST(TerminalBidiTest, FallbackRightToLeftWithoutAutodetectRightAlignsLatin) {
    Screen s(10, 2);
    s.terminal.feed("\x1b[?2501l\x1b[2 kabc");
    const BidiRowLayout layout = s.layout(0);
    EXPECT_EQ(layout.baseDirection, BidiDirection::rightToLeft);
    EXPECT_EQ(s.visual(0, false), "       abc");
    EXPECT_EQ(layout.visualToLogicalCol[7], 0);
    EXPECT_EQ(layout.visualToLogicalCol[8], 1);
    EXPECT_EQ(layout.visualToLogicalCol[9], 2);
    EXPECT_TRUE(s.bidi.rowNeedsLayout(s.line(0), s.terminal.buffer()));
}

TEST(TerminalBidiTest, ScrollRegionCuttingAParagraphSeparatesIt) {
    Screen s(5, 10);
    // A paragraph over rows 2 to 5, then a region over rows 4 to 8 scrolled up.
    s.terminal.feed("\x1b[3H\xd7\x90\xd7\x91\xd7\x92\xd7\x93\xd7\x94"
                    "abcdefghijklmno");
    ASSERT_TRUE(s.bufferLine(3).isWrapped());
    ASSERT_TRUE(s.bufferLine(4).isWrapped());
    ASSERT_TRUE(s.bufferLine(5).isWrapped());
    s.terminal.feed("\x1b[5;9r\x1b[S");
    EXPECT_FALSE(s.bufferLine(4).isWrapped());
    EXPECT_TRUE(s.bufferLine(3).isWrapped());
    const TerminalBidi::ParagraphBounds above = TerminalBidi::paragraphBounds(s.line(3), s.terminal.buffer());
    EXPECT_EQ(above.first, s.line(2));
    EXPECT_EQ(above.last, s.line(3));
    // The row inside no longer takes the Hebrew paragraph's direction.
    EXPECT_EQ(s.layout(4).baseDirection, BidiDirection::leftToRight);
    EXPECT_EQ(s.layout(3).baseDirection, BidiDirection::rightToLeft);
}

TEST(TerminalBidiTest, LineFeedsScrollingARegionCutTheParagraphAcrossItsEdges) {
    // A region from the top (its lines go into the history) and one below the top, each
    // scrolled by line feeds at its bottom while a paragraph runs over its lower edge.
    for (const char* region : {"\x1b[1;5r", "\x1b[2;5r"}) {
        SCOPED_TRACE(region);
        Screen s(5, 8, 0);
        s.terminal.feed("\x1b[4Habcdefghijklmnopqrst");
        ASSERT_TRUE(s.bufferLine(5).isWrapped());
        s.terminal.feed(region);
        s.terminal.feed("\x1b[5H\n");
        EXPECT_FALSE(s.bufferLine(5).isWrapped());
        EXPECT_TRUE(s.bufferLine(6).isWrapped());
        EXPECT_EQ(TerminalBidi::paragraphBounds(s.line(5), s.terminal.buffer()).first, s.line(5));
    }
    // The same with a full history ring, where the line leaving the top is recycled.
    Screen full(5, 8, 2);
    full.terminal.feed(
        "\r\n\r\n\r\n\r\n\r\n\r\n\r\n\r\n\r\n\r\n\x1b[4Habcdefghijklmnopqrst\x1b[1;5r\x1b[5H\n");
    EXPECT_FALSE(full.bufferLine(5).isWrapped());
}

TEST(TerminalBidiTest, InsertingAndDeletingLinesCutsParagraphsAtTheEdges) {
    Screen s(5, 8);
    // A paragraph over rows 3 to 6, and a region over rows 0 to 5 that cuts it.
    s.terminal.feed("\x1b[4Habcdefghijklmnopqrst\x1b[1;6r");
    ASSERT_TRUE(s.bufferLine(6).isWrapped());
    // Deleting the line at row 4 moves row 5 up; row 6, outside, must not join it.
    s.terminal.feed("\x1b[5H\x1b[M");
    EXPECT_FALSE(s.bufferLine(6).isWrapped());
    EXPECT_FALSE(s.bufferLine(4).isWrapped());
    EXPECT_TRUE(s.terminal.buffer().line(s.line(4)).hasAnyContent());
    EXPECT_EQ(TerminalBidi::paragraphBounds(s.line(3), s.terminal.buffer()).last, s.line(3));

    Screen t(5, 8);
    t.terminal.feed("\x1b[4Habcdefghijklmnopqrst\x1b[1;6r\x1b[5H\x1b[L");
    // The inserted blank line ends the paragraph above; the lines pushed down no longer
    // join the one left outside the region.
    EXPECT_FALSE(t.bufferLine(4).isWrapped());
    EXPECT_FALSE(t.bufferLine(5).isWrapped());
    EXPECT_FALSE(t.bufferLine(6).isWrapped());
}

TEST(TerminalBidiTest, LamAlefTakesOneCellAndLeavesTheNextEmpty) {
    Screen s(10, 2);
    s.terminal.feed("\xd9\x84\xd8\xa7");
    const BidiRowLayout layout = s.layout(0);
    ASSERT_EQ(layout.visualToLogicalCol[9], 0);
    ASSERT_EQ(layout.visualToLogicalCol[8], 1);
    const BidiCell& lam = layout.visualCells[9];
    const BidiCell& alef = layout.visualCells[8];
    EXPECT_EQ(lam.logicalCol, 0);
    EXPECT_EQ(lam.display, std::optional<std::string>("\xef\xbb\xbb")); // U+FEFB, isolated ligature
    EXPECT_EQ(alef.logicalCol, 1);
    EXPECT_EQ(alef.display, std::optional<std::string>(""));
    // After a joining letter the ligature takes its final form.
    Screen t(10, 2);
    t.terminal.feed("\xd8\xb3\xd9\x84\xd8\xa7\xd9\x85");
    EXPECT_EQ(t.visual(0), "      \xef\xbb\xa1 \xef\xbb\xbc\xef\xba\xb3");
}

// --- Shaping and mirroring ----------------------------------------------------------------------

TEST(TerminalBidiTest, ArabicLettersTakeTheirJoiningForms) {
    // beh, yeh, teh: initial, medial, final.
    const std::vector<char32_t> word = {0x628, 0x64A, 0x62A};
    EXPECT_EQ(bidi::shapeArabic(word), (std::vector<char32_t>{0xFE91, 0xFEF4, 0xFE96}));
    // A right-joining letter (dal) breaks the word after it.
    const std::vector<char32_t> broken = {0x628, 0x62F, 0x628};
    EXPECT_EQ(bidi::shapeArabic(broken), (std::vector<char32_t>{0xFE91, 0xFEAA, 0xFE8F}));
    // A transparent mark in a cell of its own does not break joining.
    const std::vector<char32_t> marked = {0x628, 0x64E, 0x628};
    EXPECT_EQ(bidi::shapeArabic(marked), (std::vector<char32_t>{0xFE91, 0x64E, 0xFE90}));
    EXPECT_EQ(bidi::joiningOf(0x628), bidi::Joining::dual);
    EXPECT_EQ(bidi::joiningOf(0x627), bidi::Joining::right);
    EXPECT_EQ(bidi::joiningOf(0x640), bidi::Joining::causing);
    EXPECT_EQ(bidi::joiningOf(0x64E), bidi::Joining::transparent);
    EXPECT_EQ(bidi::joiningOf('a'), bidi::Joining::none);
}

TEST(TerminalBidiTest, MarksStayWithTheirBaseAndKeepJoining) {
    Screen s(10, 2);
    // beh with fatha (one cell), then beh.
    s.terminal.feed("\xd8\xa8\xd9\x8e\xd8\xa8");
    const BidiRowLayout layout = s.layout(0);
    EXPECT_EQ(layout.visualCells[9].logicalCol, 0);
    EXPECT_EQ(layout.visualCells[9].display, std::optional<std::string>("\xef\xba\x91\xd9\x8e"));
    EXPECT_EQ(layout.visualCells[8].display, std::optional<std::string>("\xef\xba\x90"));
}

TEST(TerminalBidiTest, BracketsMirrorInRightToLeftRunsAndBoxesOnlyWhenAsked) {
    Screen s(12, 3);
    s.terminal.feed("\xd7\x90(\xd7\x91) \xe2\x94\x8c\xe2\x94\x80\r\n");
    EXPECT_EQ(s.visual(0, false), "     \xe2\x94\x80\xe2\x94\x8c (\xd7\x91)\xd7\x90");
    s.terminal.feed("\x1b[?2500h\x1b[1;1H\x1b[?2500h");
    s.bidi.clearCache();
    EXPECT_TRUE(s.bufferLine(0).bidiState().boxMirroring);
    EXPECT_EQ(s.visual(0, false), "     \xe2\x94\x80\xe2\x94\x90 (\xd7\x91)\xd7\x90");
    EXPECT_EQ(bidi::boxMirror(0x251C), 0x2524U); // ├ and ┤
    EXPECT_EQ(bidi::boxMirror(0x256D), 0x256EU); // ╭ and ╮
    EXPECT_EQ(bidi::boxMirror(0x2500), 0x2500U);
    EXPECT_EQ(bidi::boxMirror(0x258C), 0x2590U); // left and right half blocks
}

TEST(TerminalBidiTest, ExplicitModeLeavesTheApplicationsOrderAlone) {
    Screen s(10, 3);
    s.terminal.feed("\x1b[8l\xd7\xa9\xd7\x9c\xd7\x95\xd7\x9d abc");
    const BidiRowLayout layout = s.layout(0);
    EXPECT_EQ(layout.visualToLogicalCol, identity(10));
    EXPECT_EQ(s.visual(0), "\xd7\xa9\xd7\x9c\xd7\x95\xd7\x9d abc");
    // With a right-to-left direction the row is only mirrored as a whole.
    s.terminal.feed("\r\n\x1b[2 kab(c");
    const BidiRowLayout mirrored = s.layout(1);
    EXPECT_EQ(mirrored.baseDirection, BidiDirection::rightToLeft);
    EXPECT_EQ(mirrored.visualToLogicalCol[9], 0);
    EXPECT_EQ(s.visual(1, false), "      c)ba");
}

TEST(TerminalBidiTest, WideCharactersMoveAsOneUnit) {
    Screen s(10, 2);
    s.terminal.feed("\xd7\x90\xe4\xb8\xad\xd7\x91");
    const BidiRowLayout layout = s.layout(0);
    // Right to left: alef at 9, the wide character at 7 and 8 (left half first), bet at 6.
    EXPECT_EQ(layout.logicalToVisualCol[0], 9);
    EXPECT_EQ(layout.logicalToVisualCol[1], 7);
    EXPECT_EQ(layout.logicalToVisualCol[2], 8);
    EXPECT_EQ(layout.logicalToVisualCol[3], 6);
    EXPECT_EQ(s.visual(0, false), "      \xd7\x91\xe4\xb8\xad\xd7\x90");
}

TEST(TerminalBidiTest, NumbersKeepTheirOrderInARightToLeftParagraph) {
    Screen s(16, 2);
    s.terminal.feed("\xd7\x90\xd7\x91 123 cd");
    EXPECT_EQ(s.visual(0, false), "       cd 123 \xd7\x91\xd7\x90");
}

// --- Caching -------------------------------------------------------------------------------

TEST(TerminalBidiTest, ResultsAreReusedUntilTheParagraphChanges) {
    Screen s(10, 4);
    s.terminal.feed("\xd7\x90\xd7\x91\xd7\x92");
    const uint64_t revision = s.bidi.layoutRevision(s.line(0), s.terminal.buffer());
    s.layout(0);
    EXPECT_EQ(s.bidi.builds(), 1U);
    EXPECT_EQ(s.bidi.layoutRevision(s.line(0), s.terminal.buffer()), revision);
    s.terminal.feed("x");
    EXPECT_NE(s.bidi.layoutRevision(s.line(0), s.terminal.buffer()), revision);
    EXPECT_EQ(s.bidi.builds(), 2U);
    EXPECT_EQ(s.bidi.paragraphRevision(), s.bidi.layoutRevision(s.line(0), s.terminal.buffer()));
}

TEST(TerminalBidiTest, ScrolledParagraphsAreFoundAgain) {
    Screen s(10, 3, 0);
    s.terminal.feed("\xd7\x90\xd7\x91\xd7\x92\r\n");
    const LineIndex before = s.line(0);
    const BidiRowLayout first = s.bidi.layout(before, s.terminal.buffer());
    // Scrolling moves the line to another row: the result is the same and not built again.
    s.terminal.feed("\r\n\r\n\r\n");
    const uint64_t builds = s.bidi.builds();
    (void)first;
    Screen t(10, 3, 10);
    t.terminal.feed("\xd7\x90\xd7\x91\xd7\x92\r\n");
    const BidiRowLayout atTop = t.bidi.layout(t.line(0), t.terminal.buffer());
    t.terminal.feed("\r\n\r\n");
    const LineIndex moved = t.line(-2);
    const BidiRowLayout scrolled = t.bidi.layout(moved, t.terminal.buffer());
    EXPECT_EQ(scrolled.paragraphRevision, atTop.paragraphRevision);
    EXPECT_EQ(t.bidi.builds(), 1U);
    EXPECT_EQ(s.bidi.builds(), builds);
}

TEST(TerminalBidiTest, EveryLineHasAnIdentityOfItsOwn) {
    // The cache tells a line apart from one made later at the same address by this.
    const BufferLine a(4, CharData::Null);
    const BufferLine b(4, CharData::Null);
    const BufferLine copy(a);
    EXPECT_NE(a.identity(), b.identity());
    EXPECT_NE(copy.identity(), a.identity());
    EXPECT_NE(a.identity(), 0U);
}

TEST(TerminalBidiTest, RenderingDependencyRangeWidensToParagraphs) {
    Screen s(5, 8);
    s.terminal.feed("\x1b[2Habcdefghijkl\r\n\r\nxy");
    const Buffer& b = s.terminal.buffer();
    const auto range = TerminalBidi::renderingDependencyRange({s.line(2), s.line(2)}, b);
    EXPECT_EQ(range.first, s.line(1));
    EXPECT_EQ(range.second, s.line(3));
    const auto alone = TerminalBidi::renderingDependencyRange({s.line(5), s.line(5)}, b);
    EXPECT_EQ(alone.first, s.line(5));
    EXPECT_EQ(alone.second, s.line(5));
}

} // namespace
} // namespace termkit
