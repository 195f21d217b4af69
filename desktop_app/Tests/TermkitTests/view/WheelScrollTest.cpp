// The wheel's three roads, and pastes.

#include <gtest/gtest.h>

#include "Termkit/view/input/WheelScroll.h"

namespace termkit {
namespace {

WheelEvent notches(double n) {
    WheelEvent e;
    e.notches = n;
    e.col = 2;
    e.row = 1;
    return e;
}

TEST(WheelScrollTest, AlternateScreenWithAlternateScrollModeSendsArrows) {
    InputModes m;
    m.alternateBufferActive = true;
    m.alternateScrollMode = true;
    ScrollAccumulator acc;
    const WheelOutcome up = WheelScroll::handle(notches(1), m, true, 1.0, acc);
    EXPECT_EQ(up.kind, WheelOutcome::Kind::arrowKeys);
    EXPECT_EQ(up.bytes, "\x1b[A\x1b[A\x1b[A");
    m.applicationCursor = true;
    const WheelOutcome down = WheelScroll::handle(notches(-1), m, true, 1.0, acc);
    EXPECT_EQ(down.bytes, "\x1bOB\x1bOB\x1bOB");
}

TEST(WheelScrollTest, WithoutAlternateScrollModeTheViewScrolls) {
    InputModes m;
    m.alternateBufferActive = true;
    ScrollAccumulator acc;
    const WheelOutcome o = WheelScroll::handle(notches(1), m, true, 1.0, acc);
    EXPECT_EQ(o.kind, WheelOutcome::Kind::scrollView);
    EXPECT_EQ(o.lines, 3);
    EXPECT_TRUE(o.bytes.empty());
}

TEST(WheelScrollTest, MouseReportingTakesTheWheelAtThePointer) {
    InputModes m;
    m.mouseMode = MouseMode::vt200;
    m.mouseProtocol = MouseProtocolEncoding::sgr;
    m.alternateBufferActive = true;
    m.alternateScrollMode = true;
    ScrollAccumulator acc;
    const WheelOutcome o = WheelScroll::handle(notches(2), m, true, 1.0, acc);
    EXPECT_EQ(o.kind, WheelOutcome::Kind::report);
    EXPECT_EQ(o.bytes, "\x1b[<64;3;2M\x1b[<64;3;2M");
    // With reporting not allowed by the host, the wheel goes back to the arrows.
    const WheelOutcome arrows = WheelScroll::handle(notches(-1), m, false, 1.0, acc);
    EXPECT_EQ(arrows.kind, WheelOutcome::Kind::scrollView); // mouse mode is on: no arrows either
}

TEST(WheelScrollTest, SensitivityAndFractionsAccumulate) {
    InputModes m;
    ScrollAccumulator acc;
    EXPECT_EQ(WheelScroll::handle(notches(0.25), m, true, 1.0, acc).kind, WheelOutcome::Kind::none);
    const WheelOutcome o = WheelScroll::handle(notches(0.25), m, true, 1.0, acc);
    EXPECT_EQ(o.lines, 1);
    EXPECT_DOUBLE_EQ(acc.pending(), 0.5);
    EXPECT_EQ(WheelScroll::handle(notches(-1), m, true, 2.0, acc).lines, -6);
}

TEST(ScrollAccumulatorTest, DirectionChangeForgetsTheRemainder) {
    ScrollAccumulator acc;
    EXPECT_EQ(acc.add(0.75), 0);
    EXPECT_EQ(acc.add(-0.5), 0);
    EXPECT_DOUBLE_EQ(acc.pending(), -0.5);
}

TEST(PasteEncoderTest, BracketedPasteIsOneBlockWithNewlinesInside) {
    const std::string bytes = PasteEncoder::encode("ls\necho two\r\nthree", true);
    EXPECT_EQ(bytes, "\x1b[200~ls\recho two\rthree\x1b[201~");
}

TEST(PasteEncoderTest, PlainPasteHasNoBrackets) {
    EXPECT_EQ(PasteEncoder::encode("a\nb", false), "a\rb");
}

TEST(PasteEncoderTest, APasteCannotCloseItsOwnBracket) {
    EXPECT_EQ(PasteEncoder::encode("x\x1b[201~rm -rf ~\n", true), "\x1b[200~xrm -rf ~\r\x1b[201~");
}

} // namespace
} // namespace termkit
