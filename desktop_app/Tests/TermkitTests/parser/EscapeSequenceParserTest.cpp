#include "Termkit/parser/EscapeSequenceParser.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TermkitTests/fakes/RecordingParserDelegate.h"

namespace termkit {
namespace {

using testing::RecordingParserDelegate;
using Log = std::vector<std::string>;

std::span<const uint8_t> bytes(const std::string& s) {
    return {reinterpret_cast<const uint8_t*>(s.data()), s.size()};
}

class ParserTest : public ::testing::Test {
protected:
    RecordingParserDelegate target;
    EscapeSequenceParser parser{&target};
    std::vector<ParsingState> errors;

    void SetUp() override {
        parser.setErrorHandler([this](ParsingState s) {
            errors.push_back(s);
            return s;
        });
    }
    void feed(const std::string& s) { parser.parse(bytes(s)); }
};

TEST_F(ParserTest, PrintsRunsAndExecutesControls) {
    feed("ab\ncd\r");
    EXPECT_EQ(target.log, (Log{"print(ab)", "exec(10)", "print(cd)", "exec(13)"}));
}

TEST_F(ParserTest, TwentyFourParametersDispatchAndTwentyFiveAreSwallowed) {
    std::string seq = "\x1b[1";
    for (int i = 2; i <= 24; ++i)
        seq += ";" + std::to_string(i);
    feed(seq + "m");
    ASSERT_EQ(target.log.size(), 1u);
    EXPECT_EQ(target.lastPars.count, 24);
    EXPECT_EQ(target.lastPars.values[23], 24);
    target.log.clear();
    feed(seq + ";25m");
    EXPECT_TRUE(target.log.empty());
    // The machine is back in ground afterwards and prints again.
    feed("x");
    EXPECT_EQ(target.log, (Log{"print(x)"}));
}

TEST_F(ParserTest, ParametersSaturateAt65535) {
    feed("\x1b[99999m");
    EXPECT_EQ(target.log, (Log{"csi(,65535,m)"}));
    target.log.clear();
    feed("\x1b[65535;65536;6553m");
    EXPECT_EQ(target.log, (Log{"csi(,65535;65535;6553,m)"}));
}

TEST_F(ParserTest, ColonSeparatorsAreKeptInOrder) {
    // Six numbers, the empty colour space counting as 0, and five colons in the separators.
    feed("\x1b[38:2::10:20:30m");
    ASSERT_EQ(target.log, (Log{"csi(,38:2:0:10:20:30,m)"}));
    EXPECT_EQ(target.lastPars.count, 6);
    EXPECT_EQ(std::string(parser.parsTxt().begin(), parser.parsTxt().end()), ":::::");
    feed("\x1b[0;38:2::10:20:30m");
    EXPECT_EQ(target.lastPars.count, 7);
    EXPECT_EQ(std::string(parser.parsTxt().begin(), parser.parsTxt().end()), ";:::::");
    EXPECT_EQ(target.lastPars.values[4], 10);
}

TEST_F(ParserTest, ColonRightAfterCsiIsAParsingErrorAndTheFinalPrints) {
    feed("\x1b[:m");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].code, ':');
    EXPECT_EQ(errors[0].currentState, ParserState::csiEntry);
    EXPECT_EQ(errors[0].position, 2);
    EXPECT_TRUE(errors[0].parameters.empty());
    EXPECT_EQ(target.log, (Log{"print(m)"}));
}

TEST_F(ParserTest, OscEndedByCanAsFirstTerminatorDispatchesNothing) {
    feed("\x1b]0;title\x18");
    EXPECT_TRUE(target.log.empty());
    feed("\x1b]0;title\x1a");
    EXPECT_TRUE(target.log.empty());
}

TEST_F(ParserTest, OscWhoseBodyHasBegunSwallowsSubAndGoesOn) {
    feed("\x1b]2;ab\x1a"
         "cd\x07");
    EXPECT_EQ(target.log, (Log{"osc(2,abcd)"}));
}

TEST_F(ParserTest, OscKeepsUtf8AndEightBitStInsideTheBody) {
    feed("\x1b]2;caf\xc3\xa9 \x9c!\x07");
    EXPECT_EQ(target.log, (Log{"osc(2,caf\xc3\xa9 \x9c!)"}));
}

TEST_F(ParserTest, EscBackslashAfterOscEndsTheStringAndIsItsOwnSequence) {
    feed("\x1b]0;hi\x1b\\after");
    EXPECT_EQ(target.log, (Log{"osc(0,hi)", "esc(,\\)", "print(after)"}));
}

TEST_F(ParserTest, BelEndsOscButIsExecutedInsideCsiParameters) {
    feed("\x1b]1;x\x07y");
    EXPECT_EQ(target.log, (Log{"osc(1,x)", "print(y)"}));
    target.log.clear();
    feed("\x1b[1\x07;2H");
    EXPECT_EQ(target.log, (Log{"exec(7)", "csi(,1;2,H)"}));
}

TEST_F(ParserTest, OscWithoutADecimalCodeIsDroppedSilently) {
    feed("\x1b]x;1\x07\x1b]\x07\x1b];a\x07");
    EXPECT_TRUE(target.log.empty());
    EXPECT_TRUE(errors.empty());
    feed("\x1b]52\x07");
    EXPECT_EQ(target.log, (Log{"osc(52,)"}));
}

TEST_F(ParserTest, RegisteredOscHandlersWinAndTheLastOneCounts) {
    std::string seen;
    parser.registerOscHandler(
        7, [&](std::span<const uint8_t> d) { seen = "first:" + std::string(d.begin(), d.end()); });
    parser.registerOscHandler(
        7, [&](std::span<const uint8_t> d) { seen = "second:" + std::string(d.begin(), d.end()); });
    feed("\x1b]7;file:///tmp\x07");
    EXPECT_EQ(seen, "second:file:///tmp");
    EXPECT_TRUE(target.log.empty());
}

TEST_F(ParserTest, DcsSplitOverThreeChunksPutsInEachChunkBeforeUnhook) {
    feed("\x1bP$qab");
    feed("cd");
    feed("ef\x1b\\");
    EXPECT_EQ(target.log, (Log{"decrqss.hook($,0,q)", "decrqss.put(ab)", "decrqss.put(cd)", "decrqss.put(ef)",
                               "decrqss.unhook", "esc(,\\)"}));
}

TEST_F(ParserTest, DcsHandlersAreChosenByCollectAndFinal) {
    feed("\x1bP1;2q#0\x9c");
    EXPECT_EQ(target.log, (Log{"sixel.hook(,1;2,q)", "sixel.put(#0)", "sixel.unhook"}));
    target.log.clear();
    feed("\x1bP+qabc\x1b\\");
    EXPECT_EQ(target.log, (Log{"esc(,\\)"}));
}

TEST_F(ParserTest, DcsWithTooManyParametersHasNoHandler) {
    std::string seq = "\x1bP";
    for (int i = 0; i < 25; ++i)
        seq += "1;";
    feed(seq + "qdata\x1b\\");
    EXPECT_EQ(target.log, (Log{"esc(,\\)"}));
}

TEST_F(ParserTest, DelInsideDcsFlushesTheSpanAndIsDropped) {
    feed("\x1bP$qab\x7f"
         "cd\x1b\\");
    EXPECT_EQ(target.log, (Log{"decrqss.hook($,0,q)", "decrqss.put(ab)", "decrqss.put(cd)", "decrqss.unhook",
                               "esc(,\\)"}));
}

TEST_F(ParserTest, HighBytesInDcsPassthroughAreData) {
    feed("\x1bP$q\xc3\xa9\x1b\\");
    EXPECT_EQ(target.log,
              (Log{"decrqss.hook($,0,q)", "decrqss.put(\xc3\xa9)", "decrqss.unhook", "esc(,\\)"}));
}

TEST_F(ParserTest, C1CsiPrintsInGroundButOpensCsiInsideEscape) {
    feed("a\x9b"
         "1m");
    EXPECT_EQ(target.log, (Log{"print(a\x9b"
                               "1m)"}));
    target.log.clear();
    feed("\x1b\x9b"
         "1m");
    EXPECT_EQ(target.log, (Log{"csi(,1,m)"}));
}

TEST_F(ParserTest, ApcGoesToKittyGraphicsOrToTheFallback) {
    std::string fallback;
    parser.setApcFallback([&](uint8_t cmd, std::span<const uint8_t> d) {
        fallback = std::string(1, static_cast<char>(cmd)) + ":" + std::string(d.begin(), d.end());
    });
    feed("\x1b_Ga=T,f=100;AAAA\x1b\\");
    EXPECT_EQ(target.log, (Log{"kitty(a=T,f=100;AAAA)", "esc(,\\)"}));
    feed("\x1b_Xyz\x07");
    EXPECT_EQ(fallback, "X:yz");
    target.log.clear();
    feed("\x1b_Gabc\x18");
    EXPECT_TRUE(target.log.empty());
}

TEST_F(ParserTest, SosAndPmStringsAreDiscarded) {
    feed("\x1bXignored\x9c"
         "a\x1b^pm\x9c"
         "b");
    EXPECT_EQ(target.log, (Log{"print(a)", "print(b)"}));
}

TEST_F(ParserTest, EscapeSequencesWithIntermediates) {
    feed("\x1b(0\x1b#8\x1b"
         "7");
    EXPECT_EQ(target.log, (Log{"esc((,0)", "esc(#,8)", "esc(,7)"}));
}

TEST_F(ParserTest, HighByteInsideCsiReturnsToGroundThroughTheErrorHandler) {
    feed("\x1b[1\xc3m");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].currentState, ParserState::csiParam);
    EXPECT_EQ(target.log, (Log{"print(m)"}));
}

TEST_F(ParserTest, HighBytesInCsiIgnoreStayIgnored) {
    feed("\x1b[1?\xc3"
         "2m"
         "x");
    EXPECT_TRUE(errors.empty());
    EXPECT_EQ(target.log, (Log{"print(x)"}));
}

TEST_F(ParserTest, AbortingErrorHandlerLeavesTheStoredStateAsBeforeTheChunk) {
    feed("\x1b[12");
    parser.setErrorHandler([](ParsingState s) {
        s.abort = true;
        return s;
    });
    feed(";3\x1b[5\x19");
    EXPECT_EQ(parser.currentState(), ParserState::csiParam);
    parser.setErrorHandler(nullptr);
    feed("H");
    EXPECT_EQ(target.log, (Log{"csi(,12,H)"}));
}

TEST_F(ParserTest, SequencesCutAtEveryPositionGiveTheSameCalls) {
    const std::string input =
        "ab\x1b[1;2Hcd\x1b]0;t\xc3\xa9tle\x07\x1bP$qm\x1b\\\x1b(0x\x1b_Gk=v\x1b\\\x1b[38:2::1:2:3mz\r\n";
    RecordingParserDelegate whole;
    EscapeSequenceParser reference(&whole);
    reference.parse(bytes(input));
    auto normalise = [](const Log& log) {
        // Print runs and DCS puts may be split differently; join neighbours of the same kind.
        Log out;
        for (const std::string& line : log) {
            const bool joinable = line.rfind("print(", 0) == 0 || line.rfind("decrqss.put(", 0) == 0;
            if (joinable && !out.empty() &&
                out.back().substr(0, out.back().find('(')) == line.substr(0, line.find('('))) {
                out.back() = out.back().substr(0, out.back().size() - 1) + line.substr(line.find('(') + 1);
            } else {
                out.push_back(line);
            }
        }
        return out;
    };
    for (size_t cut1 = 0; cut1 <= input.size(); ++cut1) {
        for (size_t cut2 = cut1; cut2 <= input.size(); cut2 += 3) {
            RecordingParserDelegate split;
            EscapeSequenceParser p(&split);
            p.parse(bytes(input.substr(0, cut1)));
            p.parse(bytes(input.substr(cut1, cut2 - cut1)));
            p.parse(bytes(input.substr(cut2)));
            EXPECT_EQ(normalise(split.log), normalise(whole.log)) << "cuts " << cut1 << "," << cut2;
        }
    }
}

TEST_F(ParserTest, ResetDropsCollectedStateAndCallsPrintStateReset) {
    feed("\x1b[12;");
    const int before = target.printResets;
    parser.reset();
    EXPECT_EQ(parser.currentState(), ParserState::ground);
    EXPECT_EQ(target.printResets, before + 1);
    feed("m");
    EXPECT_EQ(target.log, (Log{"print(m)"}));
}

TEST_F(ParserTest, SequenceStartsResetThePrintState) {
    feed("a");
    const int before = target.printResets;
    // ESC and then `[` each clear the collected state.
    feed("\x1b[m");
    EXPECT_EQ(target.printResets, before + 2);
}

TEST_F(ParserTest, RunsOfPrintableAsciiAreToldAsSuch) {
    feed("plain text\r\nwith DEL\x7f\nand \xc3\xa9t\xc3\xa9\n\x1b[1mbold\x1b[0m");
    EXPECT_EQ(target.log,
              (Log{"print(plain text)", "exec(13)", "exec(10)", "print(with DEL\x7f)", "exec(10)",
                   "print(and \xc3\xa9t\xc3\xa9)", "exec(10)", "csi(,1,m)", "print(bold)", "csi(,0,m)"}));
    EXPECT_EQ(target.asciiRuns, (std::vector<std::string>{"plain text", "bold"}));
}

TEST_F(ParserTest, CommonCsiShapesMatchTheByteByByteMachine) {
    // Whole sequences take the direct reading; fed one byte at a time they go through the
    // table. Both must agree on every shape, the unusual ones included.
    const std::vector<std::string> sequences = {
        "\x1b[m",        "\x1b[0m",         "\x1b[1;31m",      "\x1b[;5H",          "\x1b[5;m",
        "\x1b[;;m",      "\x1b[0001;0002H", "\x1b[123456789m", "\x1b[65535;65536m", "\x1b[38;2;1;2;3m",
        "\x1b[4:3m",     "\x1b[?25l",       "\x1b[>0c",        "\x1b[1 q",          "\x1b[2$p",
        "\x1b[1;2\x07m", "\x1b[1\x7fm",     "\x1b[1;2\xc3m",   "\x1b[1:2;3m",
    };
    std::string many = "\x1b[1";
    for (int i = 2; i <= 24; ++i)
        many += ";" + std::to_string(i);
    const std::vector<std::string> extra = {many + "m", many + ";25m", many + ";25;26m"};
    std::vector<std::string> all = sequences;
    all.insert(all.end(), extra.begin(), extra.end());
    for (const std::string& seq : all) {
        const std::string input = "a" + seq + "b";
        RecordingParserDelegate whole;
        EscapeSequenceParser direct(&whole);
        direct.parse(bytes(input));
        RecordingParserDelegate split;
        EscapeSequenceParser bytewise(&split);
        for (char c : input)
            bytewise.parse(bytes(std::string(1, c)));
        // Print runs may be cut in different places (by chunks, by a swallowed sequence).
        auto joinPrints = [](const Log& log) {
            Log joined;
            for (const std::string& line : log) {
                if (line.rfind("print(", 0) == 0 && !joined.empty() &&
                    joined.back().rfind("print(", 0) == 0) {
                    joined.back() = joined.back().substr(0, joined.back().size() - 1) + line.substr(6);
                } else {
                    joined.push_back(line);
                }
            }
            return joined;
        };
        EXPECT_EQ(joinPrints(whole.log), joinPrints(split.log)) << "sequence " << seq.substr(1);
        EXPECT_EQ(whole.printResets, split.printResets) << "sequence " << seq.substr(1);
    }
}

TEST(ParseDecimalTest, ReadsDigitsAndRejectsTheRest) {
    auto of = [](const std::string& s) { return parseDecimal(bytes(s)); };
    EXPECT_EQ(of("0"), 0);
    EXPECT_EQ(of("1337"), 1337);
    EXPECT_EQ(of("9223372036854775807"), INT64_MAX);
    EXPECT_FALSE(of("9223372036854775808"));
    EXPECT_FALSE(of(""));
    EXPECT_FALSE(of("12a"));
    EXPECT_FALSE(of("-1"));
}

} // namespace
} // namespace termkit
