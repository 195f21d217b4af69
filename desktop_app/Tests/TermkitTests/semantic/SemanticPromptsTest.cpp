#include "Termkit/semantic/SemanticPrompts.h"

#include <gtest/gtest.h>

#include "Termkit/engine/Terminal.h"

namespace termkit {
namespace {

class Discard : public TerminalDelegate {
public:
    void send(Terminal&, std::span<const uint8_t>) override {}
};

TerminalOptions sized(int cols, int rows) {
    TerminalOptions o;
    o.cols = cols;
    o.rows = rows;
    return o;
}

void type(SemanticPrompts& s, std::string_view bytes) {
    s.sendUserInput(std::span(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
}

// What a click at a cell gives: the bytes, or `kNotTaken` when the prompt does not take it.
constexpr std::string_view kNotTaken = "(not taken)";
std::string click(const SemanticPrompts& s, const Terminal& t, int col, int row,
                  SemanticPromptClickModifiers modifiers = {}) {
    return s.handleSemanticPromptClick(t, {Col(col), LineIndex(row)}, modifiers)
        .value_or(std::string(kNotTaken));
}

// A key sequence `count` times.
std::string times(std::string_view key, int count) {
    std::string out;
    for (int i = 0; i < count; ++i)
        out += key;
    return out;
}

TEST(SemanticPromptsTest, APromptMarkAtColumnFiveStartsAFreshLine) {
    Discard host;
    SemanticPrompts semantic;
    Terminal t(&host, sized(20, 4), nullptr, &semantic);
    t.feed("12345\x1b]133;A\x07$ ");
    EXPECT_EQ(t.getCursorLocation(), std::pair(Col(2), ScreenRow(1)));
    EXPECT_EQ(semantic.inputState(), SemanticInputState::prompt);
}

TEST(SemanticPromptsTest, EnterSubmitsButNotInsideABracketedPaste) {
    Discard host;
    SemanticPrompts semantic;
    Terminal t(&host, sized(20, 4), nullptr, &semantic);
    t.feed("\x1b]133;A\x07$ \x1b]133;B\x07");
    type(semantic, "ls");
    EXPECT_EQ(semantic.inputState(), SemanticInputState::armed);
    type(semantic, "\x1b[200~one\rtwo\n\x1b[201~");
    EXPECT_EQ(semantic.inputState(), SemanticInputState::armed);
    type(semantic, "\r");
    EXPECT_EQ(semantic.inputState(), SemanticInputState::submitted);
    t.feed("\x1b]133;C\x07");
    EXPECT_EQ(semantic.inputState(), SemanticInputState::idle);
}

TEST(SemanticPromptsTest, AClickInTheCommandLineGivesCursorKeysByCharacters) {
    Discard host;
    SemanticPrompts semantic;
    Terminal t(&host, sized(30, 4), nullptr, &semantic);
    t.feed("\x1b]133;A\x07$ \x1b]133;B\x07"
           "echo \xe4\xb8\x96 abc");
    // The cursor is after "c" (column 13); "世" takes columns 7 and 8.
    EXPECT_EQ(click(semantic, t, 5, 0), times("\x1b[D", 7));
    // On the wide character's right half: to the character.
    EXPECT_EQ(click(semantic, t, 8, 0), times("\x1b[D", 5));
    // Past the end of the text: to its end, where the cursor is.
    EXPECT_EQ(click(semantic, t, 25, 0), "");
    // Inside the prompt itself: not the prompt's to take.
    EXPECT_EQ(click(semantic, t, 0, 0), kNotTaken);
    t.feed("\x1b[?1h");
    EXPECT_EQ(click(semantic, t, 12, 0), "\x1bOD");
}

TEST(SemanticPromptsTest, AClickOnALaterRowOfAMultiLineInputDoesNothingInLineMode) {
    Discard host;
    SemanticPrompts semantic;
    Terminal t(&host, sized(30, 4), nullptr, &semantic);
    t.feed("\x1b]133;A;cl=line\x07$ \x1b]133;B\x07"
           "first\r\n> second");
    EXPECT_EQ(semantic.clickMode(), SemanticPromptCursorClickMode::line);
    EXPECT_EQ(click(semantic, t, 3, 0), kNotTaken);
    EXPECT_NE(click(semantic, t, 3, 1), kNotTaken);
}

TEST(SemanticPromptsTest, NoPromptAfterOutputStartsOrOnTheAlternateScreen) {
    Discard host;
    SemanticPrompts semantic;
    Terminal t(&host, sized(30, 4), nullptr, &semantic);
    t.feed("\x1b]133;A\x07$ \x1b]133;B\x07"
           "vim");
    t.feed("\x1b[?1049h");
    EXPECT_EQ(click(semantic, t, 3, 0), kNotTaken);
    t.feed("\x1b[?1049l\x1b]133;C\x07");
    EXPECT_EQ(click(semantic, t, 3, 0), kNotTaken);
}

TEST(SemanticPromptsTest, OptionsSetTheKindAndABadValueVoidsTheCommand) {
    Discard host;
    SemanticPrompts semantic;
    Terminal t(&host, sized(30, 4), nullptr, &semantic);
    t.setSilentLog(true);
    t.feed("\x1b]133;A;k=s;junk;x=1\x07");
    EXPECT_EQ(semantic.promptKind(), SemanticPromptKind::secondary);
    t.feed("\x1b]133;D\x07\x1b]133;A;k=z\x07");
    EXPECT_EQ(semantic.inputState(), SemanticInputState::idle);
}

SemanticContent contentAt(const Terminal& t, int row, int col) {
    return SemanticPrompts::semanticContent(t, LineIndex(row), Col(col));
}

TEST(SemanticPromptsTest, CellsCarryTheirClassIntoTheScrollback) {
    Discard host;
    SemanticPrompts semantic;
    TerminalOptions o = sized(20, 3);
    o.scrollback = 100;
    Terminal t(&host, o, nullptr, &semantic);
    t.feed("\x1b]133;A\x07$ \x1b]133;B\x07ls\r\n\x1b]133;C\x07out\r\n\x1b]133;D\x07plain");
    EXPECT_EQ(contentAt(t, 0, 0), SemanticContent::prompt(SemanticPromptKind::initial));
    EXPECT_EQ(contentAt(t, 0, 1), SemanticContent::prompt(SemanticPromptKind::initial));
    EXPECT_EQ(contentAt(t, 0, 2), SemanticContent::input());
    EXPECT_EQ(contentAt(t, 0, 3), SemanticContent::input());
    EXPECT_EQ(contentAt(t, 1, 0), SemanticContent::output());
    EXPECT_EQ(contentAt(t, 1, 2), SemanticContent::output());
    EXPECT_EQ(contentAt(t, 2, 0), SemanticContent::none());
    // Cells nothing was written to have no class.
    EXPECT_EQ(contentAt(t, 0, 10), SemanticContent::none());
    // Scrolled out of the screen, the rows keep their classes and marks.
    t.feed("\r\n\r\n\r\n");
    ASSERT_GT(t.buffer().yBase().value, 0);
    EXPECT_EQ(contentAt(t, 0, 2), SemanticContent::input());
    EXPECT_EQ(contentAt(t, 1, 0), SemanticContent::output());
    const auto marks = SemanticPrompts::semanticPromptMarks(t);
    ASSERT_EQ(marks.size(), 1u);
    EXPECT_EQ(marks[0], (SemanticPromptAnchor{Position(Col(0), LineIndex(0)), SemanticPromptKind::initial}));
    // Every class round-trips through its one-byte code.
    for (const SemanticContent c :
         {SemanticContent::none(), SemanticContent::input(), SemanticContent::output(),
          SemanticContent::prompt(SemanticPromptKind::initial),
          SemanticContent::prompt(SemanticPromptKind::right),
          SemanticContent::prompt(SemanticPromptKind::continuation),
          SemanticContent::prompt(SemanticPromptKind::secondary)})
        EXPECT_EQ(SemanticContent::fromCode(c.code()), c);
}

TEST(SemanticPromptsTest, MarksRecordTheirGroupAndAContinuationPromptJoinsIt) {
    Discard host;
    SemanticPrompts semantic;
    Terminal t(&host, sized(30, 6), nullptr, &semantic);
    t.feed("\x1b]133;A\x07$ \x1b]133;B\x07");
    const uint64_t first = semantic.activeSemanticGroupID();
    EXPECT_NE(first, 0u);
    type(semantic, "echo \\\r");
    EXPECT_EQ(semantic.inputState(), SemanticInputState::submitted);
    // The shell asks for the rest of the command: same group, and the prompt is waiting again.
    t.feed("echo \\\r\n\x1b]133;A;k=c\x07> \x1b]133;B\x07");
    EXPECT_EQ(semantic.activeSemanticGroupID(), first);
    EXPECT_EQ(semantic.inputState(), SemanticInputState::prompt);
    EXPECT_EQ(contentAt(t, 1, 0), SemanticContent::prompt(SemanticPromptKind::continuation));
    EXPECT_EQ(SemanticPrompts::semanticRowKind(t, LineIndex(1)), SemanticPromptKind::continuation);
    EXPECT_EQ(t.buffer().line(LineIndex(1)).semanticHardContinuationGroup(), first);
    const auto& marks = t.buffer().line(LineIndex(1)).semanticMarks();
    ASSERT_EQ(marks.size(), 2u);
    EXPECT_EQ(marks[0],
              (SemanticMark{SemanticContent::prompt(SemanticPromptKind::continuation).code(), 0, first}));
    EXPECT_EQ(marks[1], (SemanticMark{SemanticContent::kInputCode, 2, first}));
    // Both rows are the group's input, each from its own first input column.
    const SemanticGroupGeometry geometry = semantic.semanticGroupGeometry(t);
    ASSERT_EQ(geometry.rows.size(), 2u);
    EXPECT_EQ(geometry.rows[0].row, LineIndex(0));
    EXPECT_EQ(geometry.rows[0].firstInputColumn, 2);
    EXPECT_EQ(geometry.rows[1].firstInputColumn, 2);
    EXPECT_EQ(semantic.activeSemanticPromptOrigin(t), Position(Col(0), LineIndex(0)));
    // After the command ran, a new prompt is a new group.
    t.feed("x\r\n\x1b]133;C\x07x\r\n\x1b]133;D\x07\x1b]133;A\x07$ ");
    EXPECT_EQ(semantic.activeSemanticGroupID(), first + 1);
    // A continuation prompt with no command pending opens a group of its own.
    t.feed("\x1b]133;D\x07\x1b]133;A;k=c\x07");
    EXPECT_EQ(semantic.activeSemanticGroupID(), first + 2);
}

TEST(SemanticPromptsTest, APromptPartAndARightPromptMarkTheirKind) {
    Discard host;
    SemanticPrompts semantic;
    Terminal t(&host, sized(30, 4), nullptr, &semantic);
    t.feed("\x1b]133;A\x07$ \x1b[20G\x1b]133;P;k=r\x07[12:00]\x1b[3G\x1b]133;B\x07ls");
    EXPECT_EQ(contentAt(t, 0, 0), SemanticContent::prompt(SemanticPromptKind::initial));
    EXPECT_EQ(contentAt(t, 0, 19), SemanticContent::prompt(SemanticPromptKind::right));
    EXPECT_EQ(contentAt(t, 0, 2), SemanticContent::input());
    EXPECT_EQ(semantic.promptKind(), SemanticPromptKind::right);
}

TEST(SemanticPromptsTest, NJoinsTheGroupItsRowStartedWithoutAFreshLine) {
    Discard host;
    SemanticPrompts semantic;
    Terminal t(&host, sized(30, 4), nullptr, &semantic);
    t.feed("\x1b]133;A\x07user \x1b]133;N;k=s\x07$ ");
    const uint64_t group = semantic.activeSemanticGroupID();
    EXPECT_EQ(t.getCursorLocation(), std::pair(Col(7), ScreenRow(0)));
    EXPECT_EQ(semantic.promptKind(), SemanticPromptKind::secondary);
    const auto& marks = t.buffer().line(LineIndex(0)).semanticMarks();
    ASSERT_EQ(marks.size(), 2u);
    EXPECT_EQ(marks[1].group, group);
    EXPECT_EQ(marks[1].column, 5);
    // On a row without a mark it behaves as A: a fresh line and a new group.
    t.feed("\x1b]133;D\x07out\x1b]133;N\x07");
    EXPECT_EQ(t.getCursorLocation(), std::pair(Col(0), ScreenRow(1)));
    EXPECT_EQ(semantic.activeSemanticGroupID(), group + 1);
}

TEST(SemanticPromptsTest, MultipleModeMovesByCharactersAcrossRows) {
    Discard host;
    SemanticPrompts semantic;
    Terminal t(&host, sized(30, 4), nullptr, &semantic);
    // A line editor with a two-row buffer (the shell drew the break itself).
    t.feed("\x1b]133;A;cl=m\x07$ \x1b]133;B\x07"
           "abc\r\n\x1b]133;A;k=c\x07> \x1b]133;B\x07"
           "de");
    EXPECT_EQ(semantic.clickMode(), SemanticPromptCursorClickMode::multiple);
    // From after "e" (row 1, col 4) to the "b" (row 0, col 3): e, d, the break, c, b.
    EXPECT_EQ(click(semantic, t, 3, 0), times("\x1b[D", 5));
    // On the continuation prompt itself: not the input.
    EXPECT_EQ(click(semantic, t, 0, 1), kNotTaken);
    // Past the end of the first row: to its end, before the break.
    EXPECT_EQ(click(semantic, t, 20, 0), times("\x1b[D", 3));
}

TEST(SemanticPromptsTest, WrappedInputCountsNoBreakAcrossTheWrap) {
    Discard host;
    SemanticPrompts semantic;
    Terminal t(&host, sized(10, 4), nullptr, &semantic);
    t.feed("\x1b]133;A;cl=m\x07$ \x1b]133;B\x07"
           "0123456789ab"); // wraps after "7"
    ASSERT_TRUE(t.buffer().line(LineIndex(1)).isWrapped());
    // From after "b" (row 1, col 4) to the "6" (row 0, col 8): b a 9 8 7 6.
    EXPECT_EQ(click(semantic, t, 8, 0), times("\x1b[D", 6));
}

TEST(SemanticPromptsTest, VerticalModesGoToTheRowStartThenUpThenAlong) {
    Discard host;
    SemanticPrompts semantic;
    Terminal t(&host, sized(30, 5), nullptr, &semantic);
    t.feed("\x1b]133;A;cl=v\x07$ \x1b]133;B\x07"
           "abcd\r\n\x1b]133;A;k=c\x07> \x1b]133;B\x07"
           "efg");
    EXPECT_EQ(semantic.clickMode(), SemanticPromptCursorClickMode::conservativeVertical);
    // Cursor after "g" (row 1, col 5); target "c" (row 0, col 4): 3 left, 1 up, 2 right.
    EXPECT_EQ(click(semantic, t, 4, 0), "\x1b[D\x1b[D\x1b[D\x1b[A\x1b[C\x1b[C");
    // The same row: by characters.
    EXPECT_EQ(click(semantic, t, 3, 1), times("\x1b[D", 2));
    t.feed("\x1b[?1h");
    EXPECT_EQ(click(semantic, t, 4, 0), "\x1bOD\x1bOD\x1bOD\x1bOA\x1bOC\x1bOC");
    // cl=w goes the same way; with the special keys the move is along the input instead.
    t.feed("\x1b[?1l\x1b]133;P;cl=w\x07");
    EXPECT_EQ(semantic.clickMode(), SemanticPromptCursorClickMode::smartVertical);
    t.feed("\x1b]133;P;special_key=1\x07");
    EXPECT_TRUE(semantic.semanticUsesSpecialCursorKeys());
    // From after "g": g f e, the break, d c.
    EXPECT_EQ(click(semantic, t, 4, 0), times("\x1b[1;1D", 6));
    // A new prompt starts with the defaults again.
    t.feed("\r\n\x1b]133;C\x07\x1b]133;D\x07\x1b]133;A\x07$ \x1b]133;B\x07");
    EXPECT_FALSE(semantic.semanticUsesSpecialCursorKeys());
    EXPECT_EQ(semantic.clickMode(), SemanticPromptCursorClickMode::line);
}

TEST(SemanticPromptsTest, ClickEventsAreReportedAtTheCellOrRelativeToThePrompt) {
    Discard host;
    SemanticPrompts semantic;
    Terminal t(&host, sized(30, 5), nullptr, &semantic);
    t.feed("\r\n\x1b]133;A;click_events=1\x07$ \x1b]133;B\x07hello");
    EXPECT_EQ(semantic.promptClickMode().type, SemanticPromptClickMode::Type::clickEventsAbsolute);
    EXPECT_EQ(click(semantic, t, 4, 1), "\x1b[<0;5;2M\x1b[<0;5;2m");
    t.feed("\x1b]133;P;click_events=2\x07");
    EXPECT_EQ(click(semantic, t, 4, 1), "\x1b[<0;5;1M\x1b[<0;5;1m");
    // Outside the group's rows the click is not the prompt's.
    EXPECT_EQ(click(semantic, t, 4, 0), kNotTaken);
    t.feed("\x1b]133;P;click_events=0\x07");
    EXPECT_EQ(semantic.promptClickMode().type, SemanticPromptClickMode::Type::none);
    EXPECT_EQ(click(semantic, t, 4, 1), kNotTaken);
    // A bad value voids the whole command, the good options in it included.
    t.setSilentLog(true);
    t.feed("\x1b]133;P;click_events=1;special_key=7\x07");
    EXPECT_EQ(semantic.promptClickMode().type, SemanticPromptClickMode::Type::none);
}

TEST(SemanticPromptsTest, TheClickBehaviourCanBeOffOrWantExactlyItsModifiers) {
    Discard host;
    SemanticPrompts semantic;
    Terminal t(&host, sized(30, 4), nullptr, &semantic);
    t.feed("\x1b]133;A\x07$ \x1b]133;B\x07"
           "abc");
    EXPECT_NE(click(semantic, t, 2, 0), kNotTaken);
    semantic.setSemanticPromptClickBehavior(SemanticPromptClickBehavior::disabled());
    EXPECT_EQ(click(semantic, t, 2, 0), kNotTaken);
    const SemanticPromptClickModifiers alt{SemanticPromptClickModifiers::alt};
    const SemanticPromptClickModifiers altShift{SemanticPromptClickModifiers::alt |
                                                SemanticPromptClickModifiers::shift};
    semantic.setSemanticPromptClickBehavior(SemanticPromptClickBehavior::requireModifier(alt));
    EXPECT_EQ(click(semantic, t, 2, 0), kNotTaken);
    EXPECT_EQ(click(semantic, t, 2, 0, altShift), kNotTaken);
    EXPECT_EQ(click(semantic, t, 2, 0, alt), times("\x1b[D", 3));
}

TEST(SemanticPromptsTest, OnlyASingleClickWithoutADragOnTheInputIsRouted) {
    SemanticPromptPointerSnapshot s;
    s.pressWasSemanticEligible = true;
    EXPECT_TRUE(SemanticPrompts::mightRouteSemanticPromptClick(s));
    s.didDrag = true;
    EXPECT_FALSE(SemanticPrompts::mightRouteSemanticPromptClick(s));
    s.didDrag = false;
    s.clickCount = 2;
    EXPECT_FALSE(SemanticPrompts::mightRouteSemanticPromptClick(s));
    s.clickCount = 1;
    s.pressWasSemanticEligible = false;
    EXPECT_FALSE(SemanticPrompts::mightRouteSemanticPromptClick(s));
}

TEST(SemanticPromptsTest, ThePromptIsFoundAgainAfterTheRingRecycledItsRows) {
    Discard host;
    SemanticPrompts semantic;
    TerminalOptions o = sized(20, 3);
    o.scrollback = 4;
    Terminal t(&host, o, nullptr, &semantic);
    t.feed("\x1b]133;A;cl=m\x07$ \x1b]133;B\x07");
    // A long command line the shell breaks itself: the prompt's row leaves the screen, then
    // the ring recycles, and the prompt's row moves to another index.
    for (int i = 0; i < 5; ++i)
        t.feed("ab\r\n");
    t.feed("cd");
    const std::optional<Position> origin = semantic.activeSemanticPromptOrigin(t);
    ASSERT_TRUE(origin);
    EXPECT_EQ(t.buffer().line(origin->row).semanticMarks().front().group, semantic.activeSemanticGroupID());
    EXPECT_EQ(SemanticPrompts::semanticContent(t, origin->row, Col(0)),
              SemanticContent::prompt(SemanticPromptKind::initial));
    // The group's rows run from there to the cursor's; a click on the screen's top row is taken.
    const SemanticGroupGeometry geometry = semantic.semanticGroupGeometry(t);
    EXPECT_EQ(geometry.rows.front().row, origin->row);
    EXPECT_EQ(geometry.rows.back().row, t.buffer().lineIndex(ScreenRow(2)));
    EXPECT_NE(click(semantic, t, 0, t.buffer().yBase().value), kNotTaken);
}

TEST(SemanticPromptsTest, TheIMarkMakesTheInputOneRow) {
    Discard host;
    SemanticPrompts semantic;
    Terminal t(&host, sized(30, 4), nullptr, &semantic);
    t.feed("\x1b]133;A;cl=m\x07$ \x1b]133;I\x07"
           "abc");
    const SemanticGroupGeometry geometry = semantic.semanticGroupGeometry(t);
    ASSERT_EQ(geometry.rows.size(), 1u);
    EXPECT_EQ(geometry.rows[0].firstInputColumn, 2);
    EXPECT_EQ(semantic.inputState(), SemanticInputState::prompt);
    EXPECT_EQ(click(semantic, t, 2, 0), times("\x1b[D", 3));
}

TEST(SemanticPromptsTest, LineFeedsCarryTheGroupAndTheEchoedEnterLeavesIt) {
    Discard host;
    SemanticPrompts semantic;
    Terminal t(&host, sized(30, 8), nullptr, &semantic);
    // bash: a command continued on the next row behind a continuation prompt it does not mark.
    t.feed("\x1b]133;A;cl=m\x07$ \x1b]133;B\x07"
           "echo a \\\r\n> b");
    const uint64_t group = semantic.activeSemanticGroupID();
    ASSERT_NE(group, 0u);
    EXPECT_TRUE(t.semanticLineAdvanceWanted());
    EXPECT_EQ(SemanticPrompts::semanticRow(t, LineIndex(0)), group);
    EXPECT_EQ(SemanticPrompts::semanticRow(t, LineIndex(1)), group);
    const SemanticGroupGeometry geometry = semantic.semanticGroupGeometry(t);
    ASSERT_EQ(geometry.rows.size(), 2u);
    EXPECT_EQ(geometry.rows[1].row, LineIndex(1));
    // From after "b" back over it, and up across the break to the end of "echo a \".
    EXPECT_EQ(click(semantic, t, 2, 1), "\x1b[D");
    EXPECT_EQ(click(semantic, t, 9, 0), times("\x1b[D", 5));
    // Enter: the shell echoes it, and the line feed carries the group on until output starts.
    type(semantic, "\r");
    t.feed("\r\n");
    EXPECT_EQ(SemanticPrompts::semanticRow(t, LineIndex(2)), group);
    t.feed("\x1b]133;C\x07");
    EXPECT_FALSE(SemanticPrompts::semanticRow(t, LineIndex(2)));
    t.feed("a b\r\n");
    EXPECT_FALSE(SemanticPrompts::semanticRow(t, LineIndex(2)));
    EXPECT_FALSE(SemanticPrompts::semanticRow(t, LineIndex(3)));
    EXPECT_EQ(SemanticPrompts::semanticRow(t, LineIndex(1)), group);
    EXPECT_FALSE(t.semanticLineAdvanceWanted());
    // The next prompt is a group of its own, from its own row.
    t.feed("\x1b]133;D\x07");
    EXPECT_FALSE(t.semanticLineAdvanceWanted());
    t.feed("\x1b]133;A\x07$ \x1b]133;B\x07");
    EXPECT_TRUE(t.semanticLineAdvanceWanted());
    const uint64_t next = semantic.activeSemanticGroupID();
    EXPECT_NE(next, group);
    EXPECT_EQ(SemanticPrompts::semanticRow(t, LineIndex(3)), next);
    EXPECT_EQ(semantic.semanticGroupGeometry(t).rows.size(), 1u);
}

TEST(SemanticPromptsTest, APromptOfTwoRowsIsOneGroupWithItsInputOnTheSecond) {
    Discard host;
    SemanticPrompts semantic;
    Terminal t(&host, sized(30, 6), nullptr, &semantic);
    t.feed("\x1b]133;A;cl=m\x07user@host ~/src\r\n$ \x1b]133;B\x07ls -l");
    const uint64_t group = semantic.activeSemanticGroupID();
    EXPECT_EQ(SemanticPrompts::semanticRow(t, LineIndex(1)), group);
    EXPECT_EQ(semantic.activeSemanticPromptOrigin(t), Position(Col(0), LineIndex(0)));
    ASSERT_EQ(semantic.semanticGroupGeometry(t).rows.size(), 2u);
    // The prompt's first row holds no input: a click there is not the input's.
    EXPECT_EQ(click(semantic, t, 3, 0), kNotTaken);
    EXPECT_EQ(click(semantic, t, 3, 1), times("\x1b[D", 4));
}

TEST(SemanticPromptsTest, TheInputOfAnIMarkEndsWithItsRow) {
    Discard host;
    SemanticPrompts semantic;
    Terminal t(&host, sized(30, 6), nullptr, &semantic);
    t.feed("\x1b]133;A\x07"
           "Continue? \x1b]133;I\x07"
           "yes");
    EXPECT_TRUE(t.semanticLineAdvanceWanted());
    t.feed("\r\nfine, going on");
    EXPECT_EQ(SemanticPrompts::semanticContent(t, LineIndex(0), Col(10)), SemanticContent::input());
    EXPECT_EQ(SemanticPrompts::semanticContent(t, LineIndex(1), Col(0)), SemanticContent::output());
    EXPECT_FALSE(t.semanticLineAdvanceWanted());
    // The row after it did not join the group.
    EXPECT_FALSE(SemanticPrompts::semanticRow(t, LineIndex(1)));
}

// The marks of the row a text starts on, as (column, kind) pairs.
std::vector<std::pair<int, uint8_t>> marksOfRowStarting(const Terminal& t, std::string_view text) {
    const Buffer& b = t.buffer();
    for (int r = 0; r < b.lineCount(); ++r) {
        const BufferLine& line = b.line(LineIndex(r));
        if (line.translateToString(t.tables().characters).starts_with(text)) {
            std::vector<std::pair<int, uint8_t>> out;
            for (const SemanticMark& m : line.semanticMarks())
                out.emplace_back(m.column, m.kind);
            return out;
        }
    }
    return {{-1, 0}};
}

TEST(SemanticPromptsTest, ReflowMovesMarksWithTheirCells) {
    Discard host;
    SemanticPrompts semantic;
    Terminal t(&host, sized(10, 6), nullptr, &semantic);
    // "$ 01234567" and, wrapped, "89AB", with a right-prompt mark after the "89".
    t.feed("\x1b]133;A\x07$ \x1b]133;B\x07"
           "0123456789\x1b]133;P;k=r\x07"
           "AB\x1b]133;C\x07\r\nout");
    const uint8_t prompt = SemanticContent::prompt(SemanticPromptKind::initial).code();
    const uint8_t input = SemanticContent::input().code();
    const uint8_t right = SemanticContent::prompt(SemanticPromptKind::right).code();
    const uint8_t output = SemanticContent::output().code();
    ASSERT_EQ(marksOfRowStarting(t, "$ 0"), (std::vector<std::pair<int, uint8_t>>{{0, prompt}, {2, input}}));
    // Wider: the wrapped row joins the first, and its mark moves along with its cells.
    t.resize(20, 6);
    EXPECT_EQ(marksOfRowStarting(t, "$ 0"),
              (std::vector<std::pair<int, uint8_t>>{{0, prompt}, {2, input}, {12, right}, {14, output}}));
    // Narrower: each mark lands on the row its cell went to.
    t.resize(5, 6);
    EXPECT_EQ(marksOfRowStarting(t, "$ 0"), (std::vector<std::pair<int, uint8_t>>{{0, prompt}, {2, input}}));
    EXPECT_EQ(marksOfRowStarting(t, "89AB"), (std::vector<std::pair<int, uint8_t>>{{2, right}, {4, output}}));
}

TEST(SemanticPromptsTest, ErasingTheScreenDropsTheMarksOfTheRowsItEmpties) {
    Discard host;
    SemanticPrompts semantic;
    Terminal t(&host, sized(30, 4), nullptr, &semantic);
    t.feed("\x1b]133;A\x07$ \x1b]133;B\x07ls\r\n\x1b]133;A;k=c\x07> ");
    ASSERT_EQ(SemanticPrompts::semanticPromptMarks(t).size(), 2u);
    // Erasing below the first row empties the second: its mark goes, the first row's stays.
    t.feed("\x1b[1;3H\x1b[J");
    ASSERT_EQ(SemanticPrompts::semanticPromptMarks(t).size(), 1u);
    EXPECT_FALSE(SemanticPrompts::semanticRow(t, LineIndex(1)));
    t.feed("\x1b[2J");
    EXPECT_TRUE(SemanticPrompts::semanticPromptMarks(t).empty());
    EXPECT_FALSE(SemanticPrompts::semanticRow(t, LineIndex(0)));
    // With its rows gone, the prompt takes no click; the next prompt starts afresh.
    EXPECT_EQ(click(semantic, t, 2, 0), kNotTaken);
    t.feed("\x1b[H\x1b]133;A\x07$ \x1b]133;B\x07");
    EXPECT_EQ(SemanticPrompts::semanticPromptMarks(t).size(), 1u);
}

TEST(SemanticPromptsTest, ResettingTheStateCanClearTheScreensMarks) {
    Discard host;
    SemanticPrompts semantic;
    Terminal t(&host, sized(30, 4), nullptr, &semantic);
    t.feed("\x1b]133;A\x07$ \x1b]133;B\x07ls");
    semantic.resetSemanticPromptState(t, false);
    EXPECT_EQ(semantic.inputState(), SemanticInputState::idle);
    EXPECT_FALSE(t.buffer().line(LineIndex(0)).semanticMarks().empty());
    t.feed("x");
    EXPECT_EQ(contentAt(t, 0, 4), SemanticContent::none());
    semantic.resetSemanticPromptState(t, true);
    EXPECT_TRUE(t.buffer().line(LineIndex(0)).semanticMarks().empty());
    // A half-read escape sequence in the typing is forgotten too.
    t.feed("\x1b]133;A\x07$ \x1b]133;B\x07");
    type(semantic, "\x1b[200~");
    semantic.resetUserInputScanner();
    type(semantic, "\r");
    EXPECT_EQ(semantic.inputState(), SemanticInputState::submitted);
    // A full reset writes cells without a class again.
    t.feed("\x1b]133;C\x07\x1b"
           "cz");
    EXPECT_EQ(contentAt(t, 0, 0), SemanticContent::none());
    EXPECT_EQ(semantic.activeSemanticGroupID(), 0u);
}

TEST(SemanticPromptsTest, TheAlternateScreenWritesCellsWithoutAClass) {
    Discard host;
    SemanticPrompts semantic;
    Terminal t(&host, sized(30, 4), nullptr, &semantic);
    t.feed("\x1b]133;A\x07$ \x1b]133;B\x07vim\r\n\x1b]133;C\x07\x1b[?1049hfull");
    EXPECT_EQ(contentAt(t, 0, 0), SemanticContent::none());
    t.feed("\x1b[?1049lback");
    EXPECT_EQ(contentAt(t, 1, 0), SemanticContent::output());
}

} // namespace
} // namespace termkit
