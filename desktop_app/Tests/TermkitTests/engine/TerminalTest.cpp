#include "Termkit/engine/Terminal.h"

#include <gtest/gtest.h>

#include "TermkitTests/IndexPrinters.h"

#include <cstdlib>

#include "Termkit/buffer/TinyAtom.h"
#include "Termkit/engine/ScreenText.h"
#include "TermkitTests/fakes/ManualScheduler.h"
#include "TermkitTests/fakes/RecordingParserDelegate.h"
#include "TermkitTests/fakes/RecordingTerminalDelegate.h"

namespace termkit {
namespace {

using testing::RecordingTerminalDelegate;

TerminalOptions sized(int cols, int rows, int scrollback = 100) {
    TerminalOptions o;
    o.cols = cols;
    o.rows = rows;
    o.scrollback = scrollback;
    return o;
}

TEST(TerminalOptionsTest, Defaults) {
    const TerminalOptions o = TerminalOptions::defaults();
    EXPECT_EQ(o.cols, 80);
    EXPECT_EQ(o.rows, 25);
    EXPECT_FALSE(o.convertEol);
    EXPECT_EQ(o.termName, "xterm-256color");
    EXPECT_EQ(o.cursorStyle, CursorStyle::blinkBlock);
    EXPECT_FALSE(o.screenReaderMode);
    EXPECT_EQ(o.scrollback, 500);
    EXPECT_EQ(o.tabStopWidth, 8);
    EXPECT_TRUE(o.enableSixelReported);
    EXPECT_EQ(o.kittyImageCacheLimitBytes, 335544320);
    EXPECT_EQ(o.ansi256PaletteStrategy, Ansi256PaletteStrategy::base16Lab);
    EXPECT_EQ(o.regionalIndicatorWidth, RegionalIndicatorWidth::wide);
    EXPECT_EQ(o.initialBidiState, BidiPresentationState{});
    EXPECT_EQ(o.initialBidiState.supportMode, BidiSupportMode::implicit);
    EXPECT_TRUE(o.initialBidiState.autodetectDirection);
    EXPECT_EQ(o.initialBidiState.fallbackDirection, BidiDirection::leftToRight);
    EXPECT_FALSE(o.initialBidiState.boxMirroring);
    EXPECT_EQ(o.maximumBidiParagraphRows, 500);
    EXPECT_FALSE(o.initialBidiArrowKeySwap);
    EXPECT_EQ(TerminalOptions::kMinimumCols, 2);
    EXPECT_EQ(TerminalOptions::kMinimumRows, 1);
}

TEST(TerminalOptionsTest, TimerAndIdentityConstants) {
    EXPECT_EQ(kSynchronizedOutputTimeout, std::chrono::seconds(1));
    EXPECT_EQ(kTermkitTag, "v1.20.0");
    EXPECT_EQ(kTermkitVersion, "v1.20.0");
    RecordingTerminalDelegate host;
    Terminal t(&host);
    EXPECT_EQ(t.synchronizedOutputTimeout(), kSynchronizedOutputTimeout);
}

TEST(TerminalTest, SizeIsRaisedToTheMinimum) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(0, 0));
    EXPECT_EQ(t.getDims(), std::pair(2, 1));
    t.resize(1, 0);
    EXPECT_EQ(t.getDims(), std::pair(2, 1));
}

TEST(TerminalTest, SynchronizedOutputTimeoutIsInjectable) {
    RecordingTerminalDelegate host;
    testing::ManualScheduler clock;
    Terminal t(&host, sized(10, 2), &clock);
    t.setSynchronizedOutputTimeout(std::chrono::milliseconds(20));
    t.feed("\x1b[?2026h");
    EXPECT_TRUE(t.synchronizedOutputActive());
    clock.advance(std::chrono::milliseconds(19));
    EXPECT_TRUE(t.synchronizedOutputActive());
    clock.advance(std::chrono::milliseconds(1));
    EXPECT_FALSE(t.synchronizedOutputActive());
    const auto range = t.getUpdateRange();
    ASSERT_TRUE(range.has_value());
    EXPECT_EQ(range->first, 0);
    EXPECT_EQ(range->second, 1);
}

TEST(TerminalTest, EnvironmentForAChild) {
    ::setenv("LOGNAME", "ann", 1);
    ::setenv("USER", "ann", 1);
    ::unsetenv("DISPLAY");
    ::setenv("LC_TYPE", "C", 1);
    ::setenv("HOME", "/home/ann", 1);
    const auto env = Terminal::getEnvironmentVariables("xterm-kitty", true);
    const std::vector<std::string> expected = {
        "TERM=xterm-kitty", "COLORTERM=truecolor", "LANG=en_US.UTF-8", "LOGNAME=ann",
        "USER=ann",         "LC_TYPE=C",           "USER=ann",         "HOME=/home/ann"};
    EXPECT_EQ(env, expected);
    const auto plain = Terminal::getEnvironmentVariables("", false);
    EXPECT_EQ(plain[0], "TERM=xterm-256color");
    EXPECT_EQ(plain[1], "LANG=en_US.UTF-8");
}

TEST(TerminalTest, SendResponseConcatenatesTextAndBytes) {
    RecordingTerminalDelegate host;
    Terminal t(&host);
    const uint8_t bytes[] = {0x1b, '[', '0'};
    t.sendResponse({std::span<const uint8_t>(bytes), std::string_view("n")});
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0], "\\e[0n");
}

TEST(TerminalTest, UpdateRangeCoversChangedRowsUntilCleared) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(10, 5));
    t.clearUpdateRange();
    EXPECT_FALSE(t.getUpdateRange());
    t.feed("\x1b[3;1Hab");
    EXPECT_EQ(t.getUpdateRange(), std::pair(2, 2));
    t.feed("\r\ncd");
    EXPECT_EQ(t.getUpdateRange(), std::pair(2, 3));
    t.clearUpdateRange();
    t.updateFullScreen();
    EXPECT_EQ(t.getUpdateRange(), std::pair(0, 4));
}

TEST(TerminalTest, TheDisplayScrollsWithinTheScrollbackAndGetLineReadsWhatItShows) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(10, 2));
    t.feed("a\r\nb\r\nc\r\nd\r\ne");
    ASSERT_EQ(t.buffer().yBase(), LineIndex(3));
    EXPECT_EQ(rowText(*t.getLine(ScreenRow(0)), t.tables().characters), "d");
    t.scrollDisplay(LineIndex(1));
    EXPECT_EQ(t.buffer().yDisp(), LineIndex(1));
    EXPECT_EQ(rowText(*t.getLine(ScreenRow(0)), t.tables().characters), "b");
    EXPECT_EQ(rowText(*t.getLine(ScreenRow(1)), t.tables().characters), "c");
    // The screen stays where the program writes: the cursor row is still the last one.
    EXPECT_EQ(t.getCursorLocation().second, ScreenRow(1));
    // Beyond either end the display stops at the end.
    t.scrollDisplay(LineIndex(9));
    EXPECT_EQ(t.buffer().yDisp(), LineIndex(3));
    t.scrollDisplay(LineIndex(-4));
    EXPECT_EQ(t.buffer().yDisp(), LineIndex(0));
}

TEST(TerminalTest, ScrollInvariantRowsSurviveRecycling) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(10, 2, 2));
    t.feed("a\r\nb\r\nc\r\nd\r\ne\r\nf");
    // "c" was the third line written: invariant row 2, although the ring has recycled.
    const BufferLine* line = t.getScrollInvariantLine(InvariantRow(2));
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(rowText(*line, t.tables().characters), "c");
    EXPECT_EQ(t.getScrollInvariantLine(InvariantRow(0)), nullptr);
    t.clearUpdateRange();
    t.feed("g");
    const auto range = t.getScrollInvariantUpdateRange();
    ASSERT_TRUE(range);
    EXPECT_EQ(range->first, 5);
}

TEST(TerminalTest, LinesAndCellsByScreenPosition) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(10, 3));
    t.feed("x\xe4\xb8\x96y");
    EXPECT_EQ(t.getCharacter(Col(1), ScreenRow(0)), "\xe4\xb8\x96");
    EXPECT_EQ(t.getCharacter(Col(5), ScreenRow(0)), " ");
    EXPECT_EQ(t.getCharData(Col(2), ScreenRow(0))->width, 0);
    EXPECT_FALSE(t.getCharData(Col(10), ScreenRow(0)));
    EXPECT_EQ(t.getCursorLocation(), std::pair(Col(4), ScreenRow(0)));
    ASSERT_NE(t.getLine(ScreenRow(0)), nullptr);
    EXPECT_EQ(t.getLine(ScreenRow(3)), nullptr);
}

TEST(TerminalTest, TextOfARangeJoinsWrappedLines) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(5, 4));
    t.feed("abcdefg\r\nxyz");
    EXPECT_EQ(t.getText(Position(Col(0), LineIndex(0)), Position(Col(3), LineIndex(2))), "abcdefg\nxyz");
    EXPECT_EQ(t.getText(Position(Col(2), LineIndex(0)), Position(Col(1), LineIndex(1))), "cdef");
    const auto all = t.getBufferAsData();
    EXPECT_EQ(std::string(all.begin(), all.end()), "abcde\nfg\nxyz\n");
}

TEST(TerminalTest, AttributeTableStaysBoundedUnderEndlessTrueColour) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(20, 5, 10));
    std::string out;
    for (int i = 0; i < 200000; ++i) {
        out += "\x1b[38;2;" + std::to_string(i & 255) + ";" + std::to_string((i >> 8) & 255) + ";" +
               std::to_string((i >> 16) & 255) + "mx";
        if (i % 20 == 19)
            out += "\r\n";
        if (out.size() > 65536) {
            t.feed(out);
            out.clear();
        }
    }
    out += "\x1b[38;2;1;2;3mZ";
    t.feed(out);
    EXPECT_LT(t.tables().attributes.capacity(), 2 * AttributeTable::kInitialCollectThreshold);
    // Cells still on screen kept their own colours through the collections.
    const auto last = t.getCharData(Col(0), ScreenRow(4));
    ASSERT_TRUE(last);
    EXPECT_EQ(t.attribute(*last).fg, Attribute::Color::trueColor(1, 2, 3));
    const auto earlier = t.getCharData(Col(19), ScreenRow(3));
    ASSERT_TRUE(earlier);
    const int i = 199999;
    EXPECT_EQ(t.attribute(*earlier).fg,
              Attribute::Color::trueColor(static_cast<uint8_t>(i & 255), static_cast<uint8_t>((i >> 8) & 255),
                                          static_cast<uint8_t>((i >> 16) & 255)));
}

TEST(TerminalTest, PayloadHandlesNoLineUsesAreFreed) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(10, 2, 0));
    t.feed("\x1b]8;;one\x07"
           "a\x1b]8;;\x07");
    ASSERT_EQ(t.payloadCodes().size(), 1u);
    const uint16_t code = *t.payloadCodes().begin();
    EXPECT_EQ(t.getCharData(Col(0), ScreenRow(0))->payload, code);
    t.garbageCollectPayload();
    EXPECT_EQ(t.payloadCodes().size(), 1u);
    t.feed("\x1b[2J");
    t.garbageCollectPayload();
    EXPECT_TRUE(t.payloadCodes().empty());
    EXPECT_FALSE(t.tables().payloads.target(code).has_value());
}

TEST(TerminalTest, DefaultDelegateStoresColoursAndRebuildsThePalette) {
    struct Host : TerminalDelegate {
        void send(Terminal&, std::span<const uint8_t>) override {}
    } host;
    Terminal t(&host, sized(10, 2));
    const Color before = t.palette()[16];
    // A light foreground on the white background becomes the dark end of the cube.
    t.feed("\x1b]10;#e0e0e0\x07");
    EXPECT_EQ(t.foregroundColor(), Color::from8bit(0xE0, 0xE0, 0xE0));
    EXPECT_NE(t.palette()[16], before);
    EXPECT_EQ(t.palette()[16], Color::from8bit(0xE0, 0xE0, 0xE0));
    t.feed("\x1b]11;#202020\x07");
    EXPECT_EQ(t.backgroundColor(), Color::from8bit(0x20, 0x20, 0x20));
    EXPECT_EQ(t.palette()[16], Color::from8bit(0x20, 0x20, 0x20));
    t.feed("\x1b]12;#010203\x07");
    EXPECT_EQ(t.cursorColor(), Color::from8bit(1, 2, 3));
    t.feed("\x1b]112\x07");
    EXPECT_FALSE(t.cursorColor());
}

TEST(TerminalTest, SettingAColourTellsTheDelegateOnce) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(10, 2));
    t.setForegroundColor(Color::from8bit(1, 1, 1));
    ASSERT_EQ(host.events.size(), 1u);
    EXPECT_EQ(host.events[0], "foreground rgb:0101/0101/0101");
    EXPECT_EQ(t.foregroundColor(), Color::from8bit(1, 1, 1));
}

TEST(TerminalTest, InstallingColoursReplacesTheFirstSixteenAndNotifies) {
    RecordingTerminalDelegate host;
    TerminalOptions o = sized(10, 2);
    o.ansi256PaletteStrategy = Ansi256PaletteStrategy::xterm;
    Terminal t(&host, o);
    std::vector<Color> colors(16, Color::from8bit(9, 9, 9));
    t.installColors(colors);
    EXPECT_EQ(t.palette()[3], Color::from8bit(9, 9, 9));
    EXPECT_EQ(t.palette()[16], Color::from8bit(0, 0, 0));
    EXPECT_EQ(host.events.back(), "colorChanged all");
}

class RecordingExtensions : public TerminalExtensions {
public:
    std::vector<std::string> log;
    std::vector<std::string> dcs;
    testing::RecordingDcsHandler sixel{dcs, "sixel"};
    void handleKittyGraphics(Terminal&, std::span<const uint8_t> data) override {
        log.push_back("graphics " + std::string(data.begin(), data.end()));
    }
    DcsHandler* sixelDcsHandler(Terminal&) override { return &sixel; }
    void oscSemanticPrompt(Terminal&, std::span<const uint8_t> data) override {
        log.push_back("prompt " + std::string(data.begin(), data.end()));
    }
    void applyCurrentBidiStateAtParagraphStart(Terminal&, unsigned properties) override {
        log.push_back("bidi " + std::to_string(properties));
    }
    void semanticNoteAlternateScreenSwitch(Terminal&) override { log.push_back("switch"); }
};

TEST(TerminalTest, ExtensionPointsReceiveTheirSequences) {
    RecordingTerminalDelegate host;
    RecordingExtensions ext;
    Terminal t(&host, sized(10, 2), nullptr, &ext);
    t.feed("\x1b_Ga=T;QUFB\x1b\\\x1bP1q#0!3~\x1b\\\x1b]133;A\x07\x1b[?2500h\x1b[1 k\x1b[?1049h");
    const std::vector<std::string> expected = {"graphics a=T;QUFB", "prompt A", "bidi 8", "bidi 4", "switch"};
    EXPECT_EQ(ext.log, expected);
    EXPECT_EQ(ext.dcs, (std::vector<std::string>{"sixel.hook(,1,q)", "sixel.put(#0!3~)", "sixel.unhook"}));
    EXPECT_EQ(t.currentBidiState().fallbackDirection, BidiDirection::leftToRight);
}

TEST(TerminalTest, CsiUWithoutCollectRestoresTheCursor) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(10, 3));
    t.feed("\x1b[2;3H\x1b[s\x1b[H\x1b[u");
    EXPECT_EQ(t.getCursorLocation(), std::pair(Col(2), ScreenRow(1)));
    // The keyboard protocol's query is answered, never taken as a restore.
    t.feed("\x1b[H\x1b[?u");
    EXPECT_EQ(t.getCursorLocation(), std::pair(Col(0), ScreenRow(0)));
    EXPECT_EQ(host.replies.back(), "\\e[?0u");
}

TEST(TerminalTest, RegisteredOscHandlerWinsOverTheBuiltIn) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(10, 2));
    std::string seen;
    t.registerOscHandler(2, [&](std::span<const uint8_t> d) { seen.assign(d.begin(), d.end()); });
    t.feed("\x1b]2;mine\x07");
    EXPECT_EQ(seen, "mine");
    EXPECT_TRUE(host.events.empty());
    EXPECT_TRUE(t.terminalTitle().empty());
}

// The attribute of the cell at a column of the first row.
Attribute cellAttribute(const Terminal& t, int col) {
    const auto cell = t.getCharData(Col(col), ScreenRow(0));
    return cell ? t.attribute(*cell) : Attribute{};
}

Attribute boldRed() {
    Attribute a;
    a.style.insert(CharacterStyle::bold);
    a.fg = Attribute::Color::ansi256(1);
    return a;
}

TEST(TerminalTest, ARepeatedSgrSequenceGivesTheSameAttributeFromEachStart) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(20, 2));
    // The same sequences, in the same order, from different attributes and several times.
    t.feed(
        "\x1b[1;31mA\x1b[0mB\x1b[1;31mC\x1b[4m\x1b[1;31mD\x1b[0m\x1b[1;31mE\x1b[mF\x1b[1;31mG\x1b[7;1;31mH");
    Attribute underlined = boldRed();
    underlined.style.insert(CharacterStyle::underline);
    underlined.underlineStyle = UnderlineStyle::single;
    Attribute inverse = boldRed();
    inverse.style.insert(CharacterStyle::inverse);
    const Attribute expected[] = {boldRed(), Attribute{}, boldRed(), underlined,
                                  boldRed(), Attribute{}, boldRed(), inverse};
    for (int col = 0; col < 8; ++col)
        EXPECT_EQ(cellAttribute(t, col), expected[col]) << col;
    // Erasing uses the background of the sequence's outcome.
    t.feed("\x1b[0m\x1b[1;44m\x1b[K");
    const auto erased = t.getCharData(Col(10), ScreenRow(0));
    ASSERT_TRUE(erased);
    EXPECT_EQ(t.attribute(*erased).bg, Attribute::Color::ansi256(4));
    EXPECT_FALSE(t.attribute(*erased).style.contains(CharacterStyle::bold));
}

TEST(TerminalTest, ASequenceBetweenSaveAndRestoreLeavesTheRestoredAttribute) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(20, 2));
    const std::string save = "\x1b"
                             "7";
    const std::string restore = "\x1b"
                                "8";
    t.feed(save + "\x1b[1;31m" + restore + "A\x1b[1;31mB\x1b[0m" + save + "\x1b[1;31m" + restore +
           "C\x1b[1;31mD");
    EXPECT_EQ(cellAttribute(t, 0), Attribute{});
    EXPECT_EQ(cellAttribute(t, 1), boldRed());
    EXPECT_EQ(cellAttribute(t, 2), Attribute{});
    EXPECT_EQ(cellAttribute(t, 3), boldRed());
}

TEST(TerminalTest, ARepeatedSgrSequenceStaysRightAcrossAttributeCollections) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(20, 5, 10));
    t.feed("\x1b[1;31mA\x1b[0m");
    std::string out;
    for (int i = 0; i < 3 * static_cast<int>(AttributeTable::kInitialCollectThreshold); ++i) {
        // The colon form, which the memo leaves alone, so that the entry above stays in it.
        out += "\x1b[48:2::" + std::to_string(i & 255) + ":" + std::to_string((i >> 8) & 255) + ":7mx\x1b[0m";
        if (i % 20 == 19)
            out += "\r\n";
    }
    t.feed(out);
    ASSERT_GT(t.tables().attributes.collections(), 0u);
    t.feed("\x1b[2J\x1b[H\x1b[1;31mB");
    EXPECT_EQ(cellAttribute(t, 0), boldRed());
}

TEST(TerminalTest, SgrSequencesOverATrueColourBackgroundGiveTheSameOutcomeEveryTime) {
    // Diff lines: a true-colour background under changing foregrounds, line after line, so
    // that later lines repeat what earlier ones did from the same attributes.
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(20, 6));
    const std::string line =
        "\x1b[48;2;0;64;0m+\x1b[38;5;205mab\x1b[39mc\x1b[38;2;1;2;3md\x1b[38;5;205me\x1b[0mf";
    for (int i = 0; i < 5; ++i)
        t.feed(line + "\r\n");
    const auto green = Attribute::Color::trueColor(0, 64, 0);
    Attribute plainOnGreen;
    plainOnGreen.bg = green;
    Attribute pinkOnGreen = plainOnGreen;
    pinkOnGreen.fg = Attribute::Color::ansi256(205);
    Attribute rgbOnGreen = plainOnGreen;
    rgbOnGreen.fg = Attribute::Color::trueColor(1, 2, 3);
    const Attribute expected[] = {plainOnGreen, pinkOnGreen, pinkOnGreen, plainOnGreen,
                                  rgbOnGreen,   pinkOnGreen, Attribute{}};
    for (int row = 0; row < 5; ++row) {
        for (int col = 0; col < 7; ++col) {
            const auto cell = t.getCharData(Col(col), ScreenRow(row));
            ASSERT_TRUE(cell);
            EXPECT_EQ(t.attribute(*cell), expected[col]) << "row " << row << " col " << col;
        }
    }
}

TEST(TerminalTest, AnUnknownSgrAttributeIsLoggedEveryTime) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(10, 2));
    std::vector<std::string> lines;
    t.setLogSink([&](std::string_view l) { lines.emplace_back(l); });
    t.feed("\x1b[1;77mx\x1b[0m\x1b[1;77my");
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], lines[1]);
    EXPECT_EQ(cellAttribute(t, 1).style.bits, CharacterStyle::bold);
}

TEST(TerminalTest, ParserLogsGoThroughTheTerminalUnlessSilent) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(10, 2));
    std::vector<std::string> lines;
    t.setLogSink([&](std::string_view l) { lines.emplace_back(l); });
    t.feed("\x1b[:m\x1b#9");
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "Info: Termkit: Parsing error, state: csiEntry");
    EXPECT_EQ(lines[1], "Info: Termkit: Unknown ESC Code: ESC + 9 txt=#");
    t.setSilentLog(true);
    t.feed("\x1b[:m\x1b#9");
    EXPECT_EQ(lines.size(), 2u);
}

// The cluster in the first cell of the cursor row.
std::string firstCellCluster(const Terminal& t) {
    const Buffer& b = t.buffer();
    return t.character(b.screenLine(b.y()).cells()[0].code);
}

TEST(TerminalTest, MarksThatArriveTogetherStoreOnlyTheWholeCluster) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(10, 2));
    const size_t before = t.tables().characters.size();
    t.feed("a\xcc\x81\xcc\x82\xcc\x83");
    EXPECT_EQ(firstCellCluster(t), "a\xcc\x81\xcc\x82\xcc\x83");
    EXPECT_EQ(t.buffer().x(), Col(1));
    // The steps to it ("a" with one and with two marks) were never shown, so never stored.
    EXPECT_EQ(t.tables().characters.size(), before + 1);
}

TEST(TerminalTest, MarksSplitAcrossChunksJoinTheSameCluster) {
    const std::string marks = "e\xcc\x81\xcc\x82\xe2\x83\x90\xcc\x83"; // U+0301 U+0302 U+20D0 U+0303
    RecordingTerminalDelegate wholeHost;
    Terminal whole(&wholeHost, sized(10, 2));
    whole.feed(marks);
    for (size_t step = 1; step < marks.size(); ++step) {
        RecordingTerminalDelegate host;
        Terminal t(&host, sized(10, 2));
        for (size_t at = 0; at < marks.size(); at += step)
            t.feed(std::string_view(marks).substr(at, step));
        ASSERT_EQ(firstCellCluster(t), firstCellCluster(whole)) << "step " << step;
        ASSERT_EQ(t.buffer().x(), Col(1));
    }
    EXPECT_EQ(firstCellCluster(whole), marks);
}

TEST(TerminalTest, ARunOfMarksLongerThanTheBuildBufferStillJoinsWhole) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(10, 2));
    std::string cluster = "o";
    for (int k = 0; k < 60; ++k)
        cluster += "\xcd\x93"; // U+0353, sixty times: 121 bytes
    t.feed(cluster + "x");
    EXPECT_EQ(firstCellCluster(t), cluster);
    EXPECT_EQ(screenText(t)[0], cluster + "x");
}

TEST(TerminalTest, AMarkRunStopsAtASelectorAndAJoiner) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(10, 2));
    // A selector after a mark on a base that takes none is ignored; the joiner joins, but an
    // ideograph after it forms no cluster with a letter and takes a cell of its own.
    t.feed("a\xcc\x81\xcc\x82\xef\xb8\x8f\xcc\x83\xe2\x80\x8d\xe4\xb8\x96");
    EXPECT_EQ(firstCellCluster(t), "a\xcc\x81\xcc\x82\xcc\x83\xe2\x80\x8d");
    EXPECT_EQ(screenText(t)[0], "a\xcc\x81\xcc\x82\xcc\x83\xe2\x80\x8d\xe4\xb8\x96");
    EXPECT_EQ(t.buffer().x(), Col(3));
}

TEST(TerminalTest, AJoinerInTheMiddleOfARunCallsTheNextScalarIntoItsCell) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(10, 2));
    // Woman, ZWJ, laptop: one wide cell even though both emoji take the plain write path.
    t.feed("x\xf0\x9f\x91\xa9\xe2\x80\x8d\xf0\x9f\x92\xbby");
    const Buffer& b = t.buffer();
    const CharData* cells = b.screenLine(ScreenRow(0)).cells();
    EXPECT_EQ(t.character(cells[1].code), "\xf0\x9f\x91\xa9\xe2\x80\x8d\xf0\x9f\x92\xbb");
    EXPECT_EQ(cells[1].width, 2);
    EXPECT_EQ(t.character(cells[3].code), "y");
    EXPECT_EQ(b.x(), Col(4));
}

TEST(TerminalTest, AWordOfPlainScalarsFillsTheRowAndWrapsAWideOneWhole) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(6, 3));
    // Bold "a", then four ideographs: the third no longer fits and wraps whole, leaving the
    // last cell of the first row empty; a DEL inside the word is skipped, and a mark after
    // the word joins its last ideograph.
    t.feed("\x1b[1ma\xe4\xb8\x96\xe7\x95\x8c\x7f\xe4\xbd\xa0\xe5\xa5\xbd\xcc\x81");
    const Buffer& b = t.buffer();
    const CharData* first = b.screenLine(ScreenRow(0)).cells();
    const CharData* second = b.screenLine(ScreenRow(1)).cells();
    EXPECT_EQ(first[0].code, 'a');
    EXPECT_EQ(first[1].code, 0x4E16);
    EXPECT_EQ(first[1].width, 2);
    EXPECT_EQ(first[2].code, 0);
    EXPECT_EQ(first[2].width, 0);
    EXPECT_EQ(first[3].code, 0x754C);
    EXPECT_EQ(first[5].code, 0);
    EXPECT_EQ(first[5].width, 1);
    EXPECT_EQ(second[0].code, 0x4F60);
    EXPECT_EQ(t.character(second[2].code), "\xe5\xa5\xbd\xcc\x81");
    EXPECT_EQ(second[2].width, 2);
    EXPECT_TRUE(b.screenLine(ScreenRow(1)).isWrapped());
    EXPECT_EQ(b.x(), Col(4));
    EXPECT_EQ(b.y(), ScreenRow(1));
    // Every written cell, right halves included, carries the bold attribute.
    const AttributeId bold = first[0].attribute;
    EXPECT_NE(bold, AttributeTable::kEmpty);
    for (int col : {1, 2, 3, 4})
        EXPECT_EQ(first[col].attribute, bold) << col;
    EXPECT_EQ(second[1].attribute, bold);
}

TEST(TerminalTest, RepeatAfterAWordOfPlainScalarsRepeatsItsLastScalar) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(10, 2));
    t.feed("\xd0\x96\xd0\xb8 \xce\xb1\xce\xb2\x1b[2b");
    EXPECT_EQ(screenText(t)[0], "\xd0\x96\xd0\xb8 \xce\xb1\xce\xb2\xce\xb2\xce\xb2");
    EXPECT_EQ(t.buffer().x(), Col(7));
}

TEST(TerminalTest, AWordOfPlainScalarsInInsertModeShiftsWhatFollows) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(10, 2));
    t.feed("xyz\r\x1b[4h\xd0\x96\xd0\xb8\xe4\xb8\x96");
    EXPECT_EQ(screenText(t)[0], "\xd0\x96\xd0\xb8\xe4\xb8\x96xyz");
    EXPECT_EQ(t.buffer().x(), Col(4));
}

TEST(TerminalTest, TextAfterAMarkedLetterGoesOnInTheSameWord) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(12, 3));
    // Bold: a letter with a mark, ASCII, a Cyrillic letter, an ideograph with a mark, ASCII,
    // then REP, which repeats the last scalar written.
    t.feed("\x1b[1ma\xcc\x81"
           "bc\xd0\x96\xe4\xb8\x96\xcc\x82"
           "d\x1b[b");
    const Buffer& b = t.buffer();
    const CharData* cells = b.screenLine(ScreenRow(0)).cells();
    EXPECT_EQ(t.character(cells[0].code), "a\xcc\x81");
    EXPECT_EQ(cells[1].code, 'b');
    EXPECT_EQ(cells[2].code, 'c');
    EXPECT_EQ(cells[3].code, 0x0416);
    EXPECT_EQ(t.character(cells[4].code), "\xe4\xb8\x96\xcc\x82");
    EXPECT_EQ(cells[4].width, 2);
    EXPECT_EQ(cells[5].code, 0);
    EXPECT_EQ(cells[5].width, 0);
    EXPECT_EQ(cells[6].code, 'd');
    EXPECT_EQ(cells[7].code, 'd');
    EXPECT_EQ(b.x(), Col(8));
    const AttributeId bold = cells[0].attribute;
    EXPECT_NE(bold, AttributeTable::kEmpty);
    for (int col = 0; col < 8; ++col)
        EXPECT_EQ(cells[col].attribute, bold) << col;
}

TEST(TerminalTest, MarksInsideAWordJoinTheirLettersAndTheWordGoesOn) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(12, 3));
    // A Cyrillic letter with a mark, an ASCII letter with two, a joiner that leaves its
    // cluster calling for more (a letter after it still takes a cell of its own), then REP,
    // which repeats the last scalar written: the letter, not the cluster it became.
    t.feed("\xd0\x96\xcc\x81"
           "a\xcc\x82\xcc\x83"
           "b\xe2\x80\x8d"
           "c\xd0\xb8\xcc\x81\x1b[b");
    const CharData* cells = t.buffer().screenLine(ScreenRow(0)).cells();
    EXPECT_EQ(t.character(cells[0].code), "\xd0\x96\xcc\x81");
    EXPECT_EQ(t.character(cells[1].code), "a\xcc\x82\xcc\x83");
    EXPECT_EQ(t.character(cells[2].code), "b\xe2\x80\x8d");
    EXPECT_EQ(cells[3].code, 'c');
    EXPECT_EQ(t.character(cells[4].code), "\xd0\xb8\xcc\x81");
    EXPECT_EQ(cells[5].code, 0x0438);
    EXPECT_EQ(t.buffer().x(), Col(6));
    for (int col = 0; col < 6; ++col)
        EXPECT_EQ(cells[col].width, 1) << col;
}

TEST(TerminalTest, RepeatAfterAWideScalarInAWordRepeatsTheWideScalar) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(10, 2));
    t.feed("\xd0\x96\xe4\xb8\x96\x1b[b");
    EXPECT_EQ(screenText(t)[0], "\xd0\x96\xe4\xb8\x96\xe4\xb8\x96");
    EXPECT_EQ(t.buffer().x(), Col(5));
}

TEST(TerminalTest, FourByteSequencesOutsideUnicodeOrOverlongAreDropped) {
    RecordingTerminalDelegate host;
    Terminal t(&host, sized(10, 2));
    // Beyond U+10FFFF, an overlong form, a lead no sequence may start with, then an emoji.
    t.feed("a\xf4\x90\x80\x80"
           "b\xf0\x80\x80\x80"
           "c\xf5\x80\x80\x80"
           "d\xf0\x9f\x98\x80"
           "e");
    EXPECT_EQ(screenText(t)[0], "abcd\xf0\x9f\x98\x80"
                                "e");
    EXPECT_EQ(t.buffer().x(), Col(7));
}

TEST(TerminalTest, ChunkingNeverChangesTheResult) {
    const std::string input =
        "\x1b[1;31mhello \xe4\xb8\x96\xe7\x95\x8c\x1b[0m e\xcc\x81 \xf0\x9f\x87\xa9\xf0\x9f\x87\xaa\r\n"
        "\x1b]0;title\x07\x1b[2;5H\x1b[K\xe2\x9d\xa4\xef\xb8\x8f\x1b(0lqk\x1b(B\x1b[?2004h\x1bP$qm\x1b\\\x1b["
        "6n";
    RecordingTerminalDelegate wholeHost;
    Terminal whole(&wholeHost, sized(12, 4));
    whole.feed(input);
    const std::string expected = dumpScreen(whole, true);
    for (size_t cut = 1; cut < input.size(); ++cut) {
        for (size_t step : {size_t(1), size_t(3), input.size()}) {
            RecordingTerminalDelegate host;
            Terminal t(&host, sized(12, 4));
            t.feed(std::string_view(input).substr(0, cut));
            for (size_t at = cut; at < input.size(); at += step)
                t.feed(std::string_view(input).substr(at, step));
            ASSERT_EQ(dumpScreen(t, true), expected) << "cut " << cut << " step " << step;
            ASSERT_EQ(host.replies, wholeHost.replies);
        }
    }
}

} // namespace
} // namespace termkit
