#include "Termkit/process/HeadlessTerminal.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#include "Termkit/links/TerminalLinks.h"
#include "Termkit/process/PseudoTerminalHelpers.h"
#include "Termkit/process/RunLoop.h"
#include "Termkit/semantic/SemanticPrompts.h"
#include "TermkitTests/process/ProcessTestSupport.h"

namespace termkit {
namespace {

using namespace std::chrono_literals;
using testing::allLines;
using testing::hasLine;
using testing::kWait;

TerminalOptions sized(int cols, int rows) {
    TerminalOptions options;
    options.cols = cols;
    options.rows = rows;
    return options;
}

// A headless terminal on a loop driven by the test's thread, with its end recorded.
struct Fixture {
    explicit Fixture(TerminalOptions options = sized(80, 24))
        : headless(loop, std::move(options), [this](std::optional<int32_t> code) {
              ended = true;
              exitCode = code;
          }) {}
    bool waitFor(const std::function<bool()>& done) { return loop.runUntil(done, kWait); }
    bool waitForLine(const std::string& line) {
        return waitFor([&] { return hasLine(headless.terminal(), line); });
    }
    bool waitForEnd() {
        return waitFor([&] { return ended; });
    }
    // An interactive shell without a prompt, so that each output line stands alone.
    void startShell() {
        std::vector<std::string> env = Terminal::getEnvironmentVariables();
        env.push_back("PS1=");
        headless.process().startProcess("/bin/sh", {}, env);
    }

    RunLoop loop;
    bool ended = false;
    std::optional<int32_t> exitCode;
    HeadlessTerminal headless;
};

TEST(HeadlessTerminalTest, PixelSizeConstant) {
    EXPECT_EQ(HeadlessTerminal::kPixelsPerCell, 16);
}

TEST(HeadlessTerminalTest, EchoAndPrintfFromAShellLandInTheBuffer) {
    Fixture f;
    f.startShell();
    f.headless.send("echo hello-termkit\n");
    f.headless.send("printf 'a%sb\\tc\\n' X\n");
    f.headless.send("exit\n");
    ASSERT_TRUE(f.waitForEnd());
    EXPECT_EQ(f.exitCode, 0);
    Terminal& t = f.headless.terminal();
    EXPECT_TRUE(hasLine(t, "hello-termkit"));
    EXPECT_TRUE(hasLine(t, "aXb     c")); // the tab was the terminal's to expand
}

TEST(HeadlessTerminalTest, TheChildSeesTheTerminalsSizeAndItsChanges) {
    Fixture f;
    f.startShell();
    f.headless.send("stty size\n");
    ASSERT_TRUE(f.waitForLine("24 80"));
    f.headless.resize(100, 30);
    EXPECT_EQ(f.headless.terminal().cols(), 100);
    EXPECT_EQ(f.headless.terminal().rows(), 30);
    f.headless.send("stty size\n");
    ASSERT_TRUE(f.waitForLine("30 100"));
    f.headless.send("exit\n");
    ASSERT_TRUE(f.waitForEnd());
}

TEST(HeadlessTerminalTest, AResizeSignalsTheForegroundProgram) {
    Fixture f;
    f.headless.process().startProcess(
        "/bin/sh", {"-c", "trap 'stty size; exit 0' WINCH; echo armed; while :; do sleep 0.05; done"});
    ASSERT_TRUE(f.waitForLine("armed"));
    f.headless.resize(90, 20);
    ASSERT_TRUE(f.waitForEnd());
    EXPECT_TRUE(hasLine(f.headless.terminal(), "20 90"));
}

TEST(HeadlessTerminalTest, TheWindowSizeCarriesSixteenPixelsPerCell) {
    Fixture f(sized(120, 40));
    const auto size = f.headless.getWindowSize();
    ASSERT_TRUE(size);
    EXPECT_EQ(size->ws_col, 120);
    EXPECT_EQ(size->ws_row, 40);
    EXPECT_EQ(size->ws_xpixel, 16);
    EXPECT_EQ(size->ws_ypixel, 16);
    f.headless.process().startProcess("/bin/sleep", {"30"});
    const auto onPty = PseudoTerminalHelpers::getWinSize(f.headless.process().childfd());
    ASSERT_TRUE(onPty);
    EXPECT_EQ(onPty->ws_col, 120);
    EXPECT_EQ(onPty->ws_row, 40);
    EXPECT_EQ(onPty->ws_xpixel, 16);
    EXPECT_EQ(onPty->ws_ypixel, 16);
    f.headless.process().terminate();
}

TEST(HeadlessTerminalTest, TheTerminalsRepliesGoBackToTheChild) {
    Fixture f;
    // The child asks for a status report and reads the four-byte answer, ESC [ 0 n.
    f.headless.process().startProcess(
        "/bin/sh",
        {"-c", "stty -echo -icanon min 1; printf '\\033[5n'; r=$(dd bs=1 count=4 2>/dev/null | tail -c 3); "
               "echo \"got:$r\""});
    ASSERT_TRUE(f.waitForEnd());
    EXPECT_TRUE(hasLine(f.headless.terminal(), "got:[0n"));
}

TEST(HeadlessTerminalTest, AMissingExecutableEndsWith127) {
    Fixture f;
    f.headless.process().startProcess("/nonexistent/termkit-no-such-shell");
    ASSERT_TRUE(f.waitForEnd());
    EXPECT_EQ(f.exitCode, 127);
}

TEST(HeadlessTerminalTest, TheReportedDirectoryIsKept) {
    Fixture f;
    EXPECT_FALSE(f.headless.dir());
    f.headless.process().startProcess("/bin/sh",
                                      {"-c", "printf '\\033]7;file://localhost/tmp/termkit-dir\\007'"});
    ASSERT_TRUE(f.waitForEnd());
    ASSERT_TRUE(f.headless.dir());
    EXPECT_EQ(*f.headless.dir(), f.headless.terminal().hostCurrentDirectory());
    EXPECT_NE(f.headless.dir()->find("/tmp/termkit-dir"), std::string::npos);
}

TEST(HeadlessTerminalTest, ChangeScrollbackLimitsTheKeptLines) {
    Fixture f(sized(40, 10));
    f.headless.changeScrollback(5);
    f.headless.process().startProcess("/bin/sh", {"-c", "seq 1 200"});
    ASSERT_TRUE(f.waitForEnd());
    const auto lines = allLines(f.headless.terminal());
    EXPECT_EQ(lines.size(), 15u);
    EXPECT_TRUE(hasLine(lines, "200"));
    EXPECT_FALSE(hasLine(lines, "1"));
}

TEST(HeadlessTerminalTest, LsWithHyperlinksGivesExplicitLinksToTheFiles) {
    Fixture f(sized(80, 10));
    char folder[] = "/tmp/termkit-links-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string file = std::string(folder) + "/report.txt";
    FILE* out = fopen(file.c_str(), "w");
    ASSERT_NE(out, nullptr);
    fclose(out);
    f.headless.process().startProcess("/bin/ls", {"--hyperlink=always", folder});
    ASSERT_TRUE(f.waitForEnd());
    ASSERT_TRUE(hasLine(f.headless.terminal(), "report.txt"));
    const auto m =
        TerminalLinks::link(f.headless.terminal(), LinkLookupLocation::buffer({Col(2), LineIndex(0)}),
                            LinkLookupMode::explicitOnly);
    ASSERT_TRUE(m);
    EXPECT_TRUE(m->isExplicit);
    // ls names the file with its host: file://HOST/path.
    EXPECT_EQ(m->text.rfind("file://", 0), 0u);
    EXPECT_EQ(m->text.substr(m->text.size() - file.size()), file);
    EXPECT_EQ(m->range, std::pair(0, 10));
    std::remove(file.c_str());
    rmdir(folder);
}

// bash on a pseudo-terminal with prompts that emit OSC 133 marks: PS1 marks the prompt's
// start and the input's, PS2 says it is a continuation prompt (so it joins the command's
// group), PS0 marks output as the command runs, PROMPT_COMMAND ends the command.
struct MarkedBash {
    RunLoop loop;
    SemanticPrompts semantic;
    bool ended = false;
    HeadlessTerminal headless{loop, sized(60, 10), [this](std::optional<int32_t>) { ended = true; }, nullptr,
                              &semantic};

    bool start() {
        std::vector<std::string> env = Terminal::getEnvironmentVariables();
        env.push_back("PS1=\\[\\e]133;A\\a\\]$ \\[\\e]133;B\\a\\]");
        env.push_back("PS2=\\[\\e]133;A;k=c\\a\\]> \\[\\e]133;B\\a\\]");
        env.push_back("PS0=\\e]133;C\\a");
        env.push_back("PROMPT_COMMAND=printf '\\e]133;D\\a'");
        headless.process().startProcess("/bin/bash", {"--norc", "--noprofile", "-i"}, env);
        return waitFor([&] { return semantic.inputState() == SemanticInputState::prompt; });
    }
    bool waitFor(const std::function<bool()>& done) { return loop.runUntil(done, kWait); }
    // What the person types goes through the input scanner on its way to bash.
    void typed(std::string_view text) {
        semantic.sendUserInput(std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
        headless.send(text);
    }
    const Terminal& terminal() { return headless.terminal(); }
};

TEST(HeadlessTerminalTest, AClickInsideBashsTypedCommandMovesItsCursorThere) {
    MarkedBash bash;
    ASSERT_TRUE(bash.start());
    bash.typed("echo abcdef");
    ASSERT_TRUE(bash.waitFor([&] { return hasLine(bash.terminal(), "$ echo abcdef"); }));
    EXPECT_EQ(bash.semantic.inputState(), SemanticInputState::armed);
    // Click on the "c": the cursor keys go to bash, and what is typed next lands there.
    const auto [col, row] = bash.terminal().getCursorLocation();
    const LineIndex line = bash.terminal().buffer().lineIndex(row);
    const auto keys = bash.semantic.handleSemanticPromptClick(bash.terminal(), {Col(col.value - 4), line});
    ASSERT_TRUE(keys);
    EXPECT_EQ(*keys, "\x1b[D\x1b[D\x1b[D\x1b[D");
    bash.headless.send(*keys);
    ASSERT_TRUE(
        bash.waitFor([&] { return bash.terminal().getCursorLocation().first == Col(col.value - 4); }));
    bash.typed("X\r");
    EXPECT_EQ(bash.semantic.inputState(), SemanticInputState::submitted);
    ASSERT_TRUE(bash.waitFor([&] { return hasLine(bash.terminal(), "abXcdef"); }));
    bash.typed("exit\r");
    EXPECT_TRUE(bash.waitFor([&] { return bash.ended; }));
}

// The row of the screen whose text starts with `prefix`.
std::optional<LineIndex> rowStartingWith(const Terminal& t, std::string_view prefix) {
    const Buffer& b = t.buffer();
    for (int r = 0; r < t.rows(); ++r) {
        const LineIndex row = b.lineIndex(ScreenRow(r));
        if (b.line(row).translateToString(t.tables().characters).rfind(prefix, 0) == 0)
            return row;
    }
    return std::nullopt;
}

TEST(HeadlessTerminalTest, BashsPromptInputContinuationAndOutputCellsAreMarked) {
    MarkedBash bash;
    ASSERT_TRUE(bash.start());
    SemanticPrompts& semantic = bash.semantic;
    const uint64_t group = semantic.activeSemanticGroupID();
    const Terminal& t = bash.terminal();
    bash.typed("echo one \\\r");
    ASSERT_TRUE(bash.waitFor(
        [&] { return rowStartingWith(t, "> ") && semantic.inputState() == SemanticInputState::prompt; }));
    EXPECT_EQ(semantic.activeSemanticGroupID(), group);
    bash.typed("two");
    ASSERT_TRUE(bash.waitFor([&] { return hasLine(t, "> two"); }));
    const LineIndex first = *rowStartingWith(t, "$ echo one");
    const LineIndex second = *rowStartingWith(t, "> two");
    EXPECT_EQ(SemanticPrompts::semanticContent(t, first, Col(0)),
              SemanticContent::prompt(SemanticPromptKind::initial));
    EXPECT_EQ(SemanticPrompts::semanticContent(t, first, Col(2)), SemanticContent::input());
    EXPECT_EQ(SemanticPrompts::semanticContent(t, second, Col(0)),
              SemanticContent::prompt(SemanticPromptKind::continuation));
    EXPECT_EQ(SemanticPrompts::semanticContent(t, second, Col(2)), SemanticContent::input());
    const SemanticGroupGeometry geometry = semantic.semanticGroupGeometry(t);
    ASSERT_EQ(geometry.rows.size(), 2u);
    EXPECT_EQ(geometry.rows[1].row, second);
    EXPECT_EQ(geometry.rows[1].firstInputColumn, 2);
    // In mode "line" the earlier row is out of reach; on the continuation row the cursor moves.
    EXPECT_FALSE(semantic.handleSemanticPromptClick(t, {Col(6), first}));
    const auto keys = semantic.handleSemanticPromptClick(t, {Col(2), second});
    ASSERT_TRUE(keys);
    EXPECT_EQ(*keys, "\x1b[D\x1b[D\x1b[D");
    bash.headless.send(*keys);
    ASSERT_TRUE(bash.waitFor([&] { return t.getCursorLocation().first == Col(2); }));
    bash.typed("X\r");
    ASSERT_TRUE(bash.waitFor([&] { return rowStartingWith(t, "one Xtwo").has_value(); }));
    const LineIndex output = *rowStartingWith(t, "one Xtwo");
    EXPECT_EQ(SemanticPrompts::semanticContent(t, output, Col(0)), SemanticContent::output());
    // The next prompt is a group of its own.
    ASSERT_TRUE(bash.waitFor([&] { return semantic.inputState() == SemanticInputState::prompt; }));
    EXPECT_GT(semantic.activeSemanticGroupID(), group);
    bash.typed("exit\r");
    EXPECT_TRUE(bash.waitFor([&] { return bash.ended; }));
}

TEST(HeadlessTerminalTest, BitmapsAreKeptForTheHost) {
    Fixture f;
    TerminalDelegate& asTerminalHost = f.headless;
    asTerminalHost.createImageFromBitmap(f.headless.terminal(), {1, 2, 3, 4}, 1, 1);
    ASSERT_EQ(f.headless.images().size(), 1u);
    EXPECT_EQ(f.headless.images()[0].bytes, (std::vector<uint8_t>{1, 2, 3, 4}));
    EXPECT_EQ(f.headless.images()[0].width, 1);
    EXPECT_EQ(f.headless.images()[0].height, 1);
}

TEST(HeadlessTerminalTest, AFloodIsRenderedWhole) {
    Fixture f(sized(80, 24));
    f.headless.process().startProcess("/bin/sh", {"-c", "seq 1 300000; echo end-of-flood"});
    ASSERT_TRUE(f.waitForEnd());
    const auto lines = allLines(f.headless.terminal());
    EXPECT_TRUE(hasLine(lines, "300000"));
    EXPECT_TRUE(hasLine(lines, "end-of-flood"));
    EXPECT_LE(f.headless.process().pendingStatus().peakPendingBytes,
              LocalProcess::kPendingHighWaterBytes + LocalProcess::kReadSize);
}

} // namespace
} // namespace termkit
