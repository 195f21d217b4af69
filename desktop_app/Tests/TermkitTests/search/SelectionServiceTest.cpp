#include "Termkit/selection/SelectionService.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "Termkit/engine/Terminal.h"

namespace termkit {
namespace {

class Discard : public TerminalDelegate {
public:
    void send(Terminal&, std::span<const uint8_t>) override {}
};

TerminalOptions sized(int cols, int rows, int scrollback = 1000) {
    TerminalOptions o;
    o.cols = cols;
    o.rows = rows;
    o.scrollback = scrollback;
    return o;
}

Position at(int col, int row) {
    return {Col(col), LineIndex(row)};
}

TEST(SelectionServiceTest, DoubleClickOnAnOpeningBracketSelectsTheWholeGroup) {
    Discard host;
    Terminal t(&host, sized(20, 3));
    t.feed("x (a(b)c) y");
    SelectionService s(t);
    s.selectWordOrExpression(at(2, 0));
    EXPECT_TRUE(s.active());
    EXPECT_EQ(s.getSelectedText(), "(a(b)c)");
    EXPECT_EQ(s.selectionMode(), SelectionMode::word);
    // From the closing one, backward.
    s.selectWordOrExpression(at(8, 0));
    EXPECT_EQ(s.getSelectedText(), "(a(b)c)");
    s.selectWordOrExpression(at(4, 0));
    EXPECT_EQ(s.getSelectedText(), "(b)");
}

TEST(SelectionServiceTest, UnmatchedBracketSelectsNothing) {
    Discard host;
    Terminal t(&host, sized(20, 3));
    t.feed("x (a(b c");
    SelectionService s(t);
    s.selectWordOrExpression(at(2, 0));
    EXPECT_FALSE(s.active());
}

TEST(SelectionServiceTest, DoubleClickTakesAFileNameAndStopsAtTheSlash) {
    Discard host;
    Terminal t(&host, sized(40, 3));
    t.feed("cat src/foo-bar_baz.txt now");
    SelectionService s(t);
    s.selectWordOrExpression(at(12, 0));
    EXPECT_EQ(s.getSelectedText(), "foo-bar_baz.txt");
    EXPECT_TRUE(s.hasSelectionRange());
}

TEST(SelectionServiceTest, SpacesAndRunsOfOneCharacter) {
    Discard host;
    Terminal t(&host, sized(30, 3));
    t.feed("a    b ==== c");
    SelectionService s(t);
    s.selectWordOrExpression(at(2, 0));
    EXPECT_EQ(s.start(), at(1, 0));
    EXPECT_EQ(s.end(), at(5, 0));
    s.selectWordOrExpression(at(8, 0));
    EXPECT_EQ(s.getSelectedText(), "====");
}

TEST(SelectionServiceTest, AWordBrokenByAWrapIsSelectedWhole) {
    Discard host;
    Terminal t(&host, sized(10, 4));
    t.feed("abc wrapped_word end");
    SelectionService s(t);
    s.selectWordOrExpression(at(1, 1)); // "ped_word" is on the second row
    EXPECT_EQ(s.getSelectedText(), "wrapped_word");
    EXPECT_EQ(s.start(), at(4, 0));
    EXPECT_EQ(s.end(), at(6, 1));
}

TEST(SelectionServiceTest, TextJoinsWrappedRowsAndDropsTrailingBlanksOfLogicalLines) {
    Discard host;
    Terminal t(&host, sized(10, 5));
    t.feed("0123456789abcde   \r\nsecond   \r\n\r\nfourth");
    SelectionService s(t);
    s.selectAll();
    EXPECT_EQ(s.getSelectedText(), "0123456789abcde\nsecond\n\nfourth");
}

TEST(SelectionServiceTest, BlanksAtAWrapAreKept) {
    Discard host;
    Terminal t(&host, sized(5, 3));
    t.feed("abcd efgh");
    SelectionService s(t);
    s.selectRow(at(0, 0));
    EXPECT_EQ(s.getSelectedText(), "abcd efgh");
    t.feed("\r\nabcd");
    t.feed(" ");
    t.feed("x");
    s.selectRow(at(0, 3));
    EXPECT_EQ(s.getSelectedText(), "abcd x");
}

TEST(SelectionServiceTest, WideCharactersAreSelectedWholeFromEitherHalf) {
    Discard host;
    Terminal t(&host, sized(20, 3));
    t.feed("ab \xe4\xb8\x96\xe7\x95\x8c cd"); // ab 世界 cd
    SelectionService s(t);
    s.selectWordOrExpression(at(4, 0)); // right half of 世
    EXPECT_EQ(s.getSelectedText(), "\xe4\xb8\x96\xe7\x95\x8c");
    EXPECT_EQ(s.start(), at(3, 0));
    EXPECT_EQ(s.end(), at(7, 0));
}

TEST(SelectionServiceTest, DragInWordModeKeepsTheAnchorWordAndExtendsByWords) {
    Discard host;
    Terminal t(&host, sized(40, 3));
    t.feed("one two three four");
    SelectionService s(t);
    s.selectWordOrExpression(at(5, 0));
    s.dragExtend(at(15, 0));
    EXPECT_EQ(s.getSelectedText(), "two three four");
    s.dragExtend(at(1, 0));
    EXPECT_EQ(s.getSelectedText(), "one two");
}

TEST(SelectionServiceTest, DragInRowModeTakesWholeRows) {
    Discard host;
    Terminal t(&host, sized(10, 4));
    t.feed("first\r\nsecond\r\nthird");
    SelectionService s(t);
    s.selectRow(at(3, 1));
    s.dragExtend(at(1, 2));
    EXPECT_EQ(s.getSelectedText(), "second\nthird");
    s.dragExtend(at(1, 0));
    EXPECT_EQ(s.getSelectedText(), "first\nsecond");
}

TEST(SelectionServiceTest, CharacterDragAndShiftAndPivotExtension) {
    Discard host;
    Terminal t(&host, sized(20, 3));
    t.feed("hello world");
    SelectionService s(t);
    int changes = 0;
    s.selectionChanged = [&] { ++changes; };
    s.startSelection(LineIndex(0), Col(2));
    EXPECT_FALSE(s.hasSelectionRange());
    s.dragExtend(at(8, 0));
    EXPECT_EQ(s.getSelectedText(), "llo wo");
    // Shift-click near the start moves the start; the end stays.
    s.shiftExtend(at(0, 0));
    EXPECT_EQ(s.getSelectedText(), "hello wo");
    s.shiftExtend(at(11, 0));
    EXPECT_EQ(s.getSelectedText(), "hello world");
    s.pivotExtend(at(3, 0));
    EXPECT_EQ(s.getSelectedText(), "hel");
    EXPECT_GT(changes, 3);
    s.selectNone();
    EXPECT_FALSE(s.active());
    EXPECT_EQ(s.getSelectedText(), "");
}

TEST(SelectionServiceTest, InPlaceScrollMovesTheSelectionUpAndDropsItAtTheTop) {
    Discard host;
    Terminal t(&host, sized(10, 3, 0));
    t.feed("a\r\nb\r\nc");
    SelectionService s(t);
    s.setSelection(at(0, 1), at(1, 2));
    s.adjustForInPlaceScroll(LineIndex(0), LineIndex(2), 1);
    EXPECT_EQ(s.start(), at(0, 0));
    EXPECT_EQ(s.end(), at(1, 1));
    s.adjustForInPlaceScroll(LineIndex(0), LineIndex(2), 2);
    EXPECT_FALSE(s.active());
}

// --- Over recorded sessions ------------------------------------------------------------------

std::vector<uint8_t> session(const std::string& name) {
    std::ifstream in(std::string(TERMKIT_TEST_DATA) + "/sessions/" + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST(SelectionServiceTest, AWrappedUrlAfterARecordedSessionCopiesWhole) {
    Discard host;
    Terminal t(&host, sized(100, 30));
    const std::vector<uint8_t> bytes = session("git-log-graph-100x30.bin");
    ASSERT_FALSE(bytes.empty());
    t.feed(bytes);
    const std::string url = "https://example.org/quillmere/termkit/commits/6a81273?tab=files&view=split#"
                            "diff-attribute-interning-and-recent-attribute-cache";
    t.feed("\r\nsee " + url + " for the change\r\n");
    // Find the row the URL starts on, then select it as the person would: a press at its
    // first character and a drag to its last.
    const Buffer& b = t.buffer();
    int row = -1;
    for (int r = 0; r < b.lineCount(); ++r)
        if (b.line(LineIndex(r)).translateToString(t.tables().characters).rfind("see https://", 0) == 0)
            row = r;
    ASSERT_GE(row, 0);
    ASSERT_TRUE(b.line(LineIndex(row + 1)).isWrapped());
    SelectionService s(t);
    s.startSelection(LineIndex(row), Col(4));
    const int endLinear = 4 + static_cast<int>(url.size());
    s.dragExtend(at(endLinear % 100, row + endLinear / 100));
    EXPECT_EQ(s.getSelectedText(), url);
    // A triple click takes the whole logical line, wrap and all, with no newline inside.
    s.selectRow(at(3, row + 1));
    EXPECT_EQ(s.getSelectedText(), "see " + url + " for the change");
}

TEST(SelectionServiceTest, SelectAllOfARecordedSessionMatchesItsRows) {
    Discard host;
    Terminal t(&host, sized(60, 20));
    t.feed(session("jq-color-60x20.bin"));
    SelectionService s(t);
    s.selectAll();
    const std::string text = s.getSelectedText();
    EXPECT_NE(text.find("    \"\xe4\xb8\x96\xe7\x95\x8c\"\n"), std::string::npos);
    EXPECT_NE(text.find("\"emoji\": \"\xf0\x9f\x9a\x80\xe2\x9c\x85\""), std::string::npos);
}

} // namespace
} // namespace termkit
