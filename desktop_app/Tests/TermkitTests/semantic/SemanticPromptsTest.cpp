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
    EXPECT_EQ(semantic.handleSemanticPromptClick(t, {Col(5), LineIndex(0)}).value_or("?"),
              "\x1b[D\x1b[D\x1b[D\x1b[D\x1b[D\x1b[D\x1b[D");
    // On the wide character's right half: to the character.
    EXPECT_EQ(semantic.handleSemanticPromptClick(t, {Col(8), LineIndex(0)}).value_or("?"),
              "\x1b[D\x1b[D\x1b[D\x1b[D\x1b[D");
    // Past the end of the text: to its end, where the cursor is.
    EXPECT_EQ(semantic.handleSemanticPromptClick(t, {Col(25), LineIndex(0)}).value_or("?"), "");
    // Inside the prompt itself: not the prompt's to take.
    EXPECT_FALSE(semantic.handleSemanticPromptClick(t, {Col(0), LineIndex(0)}));
    t.feed("\x1b[?1h");
    EXPECT_EQ(semantic.handleSemanticPromptClick(t, {Col(12), LineIndex(0)}).value_or("?"), "\x1bOD");
}

TEST(SemanticPromptsTest, AClickOnALaterRowOfAMultiLineInputDoesNothingInLineMode) {
    Discard host;
    SemanticPrompts semantic;
    Terminal t(&host, sized(30, 4), nullptr, &semantic);
    t.feed("\x1b]133;A;cl=line\x07$ \x1b]133;B\x07"
           "first\r\n> second");
    EXPECT_EQ(semantic.clickMode(), SemanticPromptCursorClickMode::line);
    EXPECT_FALSE(semantic.handleSemanticPromptClick(t, {Col(3), LineIndex(0)}));
    EXPECT_TRUE(semantic.handleSemanticPromptClick(t, {Col(3), LineIndex(1)}));
}

TEST(SemanticPromptsTest, NoPromptAfterOutputStartsOrOnTheAlternateScreen) {
    Discard host;
    SemanticPrompts semantic;
    Terminal t(&host, sized(30, 4), nullptr, &semantic);
    t.feed("\x1b]133;A\x07$ \x1b]133;B\x07"
           "vim");
    t.feed("\x1b[?1049h");
    EXPECT_FALSE(semantic.handleSemanticPromptClick(t, {Col(3), LineIndex(0)}));
    t.feed("\x1b[?1049l\x1b]133;C\x07");
    EXPECT_FALSE(semantic.handleSemanticPromptClick(t, {Col(3), LineIndex(0)}));
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

} // namespace
} // namespace termkit
