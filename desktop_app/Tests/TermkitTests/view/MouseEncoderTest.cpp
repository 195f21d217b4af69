// Pointer reports in the five encodings and four tracking modes.

#include <gtest/gtest.h>

#include "Termkit/view/input/MouseEncoder.h"

namespace termkit {
namespace {

InputModes modes(MouseMode mode, MouseProtocolEncoding encoding) {
    InputModes m;
    m.mouseMode = mode;
    m.mouseProtocol = encoding;
    return m;
}

MouseEvent at(MouseAction action, MouseButton button, int col, int row, KeyModifiers mods = {}) {
    return MouseEvent{action, button, mods, col, row, col * 10 + 3, row * 20 + 7};
}

std::string encode(const MouseEvent& e, const InputModes& m) {
    return MouseEncoder::encode(e, m).value_or("<none>");
}

TEST(MouseEncoderTest, ButtonFlags) {
    using enum MouseButton;
    const auto x10 = MouseProtocolEncoding::x10;
    const auto sgr = MouseProtocolEncoding::sgr;
    EXPECT_EQ(MouseEncoder::encodeButton(left, MouseAction::press, {}, x10), 0);
    EXPECT_EQ(MouseEncoder::encodeButton(middle, MouseAction::press, {}, x10), 1);
    EXPECT_EQ(MouseEncoder::encodeButton(right, MouseAction::press, {}, x10), 2);
    EXPECT_EQ(MouseEncoder::encodeButton(left, MouseAction::press, {.shift = true}, x10), 4);
    EXPECT_EQ(MouseEncoder::encodeButton(left, MouseAction::press, {.alt = true}, x10), 8);
    EXPECT_EQ(MouseEncoder::encodeButton(left, MouseAction::press, {.control = true}, x10), 16);
    EXPECT_EQ(MouseEncoder::encodeButton(left, MouseAction::motion, {}, x10), 32);
    EXPECT_EQ(MouseEncoder::encodeButton(none, MouseAction::motion, {}, x10), 35);
    EXPECT_EQ(MouseEncoder::encodeButton(wheelUp, MouseAction::press, {}, x10), 64);
    EXPECT_EQ(MouseEncoder::encodeButton(wheelDown, MouseAction::press, {.control = true}, x10), 81);
    // Releases are 3 except in the SGR encodings, which name the button.
    EXPECT_EQ(MouseEncoder::encodeButton(right, MouseAction::release, {}, x10), 3);
    EXPECT_EQ(MouseEncoder::encodeButton(right, MouseAction::release, {}, MouseProtocolEncoding::urxvt), 3);
    EXPECT_EQ(MouseEncoder::encodeButton(right, MouseAction::release, {}, sgr), 2);
    EXPECT_EQ(MouseEncoder::encodeButton(right, MouseAction::release, {}, MouseProtocolEncoding::sgrPixel),
              2);
}

TEST(MouseEncoderTest, FiveEncodings) {
    const auto press = at(MouseAction::press, MouseButton::left, 4, 9);
    EXPECT_EQ(encode(press, modes(MouseMode::vt200, MouseProtocolEncoding::x10)), "\x1b[M\x20\x25\x2a");
    EXPECT_EQ(encode(press, modes(MouseMode::vt200, MouseProtocolEncoding::utf8)), "\x1b[M\x20\x25\x2a");
    EXPECT_EQ(encode(press, modes(MouseMode::vt200, MouseProtocolEncoding::sgr)), "\x1b[<0;5;10M");
    EXPECT_EQ(encode(press, modes(MouseMode::vt200, MouseProtocolEncoding::urxvt)), "\x1b[32;5;10M");
    EXPECT_EQ(encode(press, modes(MouseMode::vt200, MouseProtocolEncoding::sgrPixel)), "\x1b[<0;44;188M");
    const auto release = at(MouseAction::release, MouseButton::left, 4, 9);
    EXPECT_EQ(encode(release, modes(MouseMode::vt200, MouseProtocolEncoding::sgr)), "\x1b[<0;5;10m");
    EXPECT_EQ(encode(release, modes(MouseMode::vt200, MouseProtocolEncoding::x10)), "\x1b[M\x23\x25\x2a");
    EXPECT_EQ(encode(release, modes(MouseMode::vt200, MouseProtocolEncoding::sgrPixel)), "\x1b[<0;44;188m");
}

TEST(MouseEncoderTest, Utf8EncodingCarriesLargeCoordinates) {
    // Column 300: 301 + 32 = 333, two bytes of UTF-8.
    const auto press = at(MouseAction::press, MouseButton::left, 300, 0);
    EXPECT_EQ(encode(press, modes(MouseMode::vt200, MouseProtocolEncoding::utf8)), "\x1b[M\x20\xC5\x8D\x21");
    EXPECT_EQ(MouseEncoder::encodeMouseUtf(1), "\x21");
    EXPECT_EQ(MouseEncoder::encodeMouseUtf(95), "\x7f");
    EXPECT_EQ(MouseEncoder::encodeMouseUtf(96), "\xC2\x80");
    // The X10 form cannot go past 223 and stops there.
    EXPECT_EQ(encode(press, modes(MouseMode::vt200, MouseProtocolEncoding::x10)), "\x1b[M\x20\xff\x21");
}

TEST(MouseEncoderTest, X10ModeReportsPressesOnlyAndNoModifiers) {
    const auto m = modes(MouseMode::x10, MouseProtocolEncoding::sgr);
    EXPECT_EQ(encode(at(MouseAction::press, MouseButton::left, 0, 0, {.control = true}), m), "\x1b[<0;1;1M");
    EXPECT_EQ(encode(at(MouseAction::release, MouseButton::left, 0, 0), m), "<none>");
    EXPECT_EQ(encode(at(MouseAction::motion, MouseButton::left, 1, 0), m), "<none>");
    EXPECT_EQ(encode(at(MouseAction::press, MouseButton::wheelUp, 0, 0), m), "<none>");
}

TEST(MouseEncoderTest, Vt200ReportsPressesAndReleasesNotMotion) {
    const auto m = modes(MouseMode::vt200, MouseProtocolEncoding::sgr);
    EXPECT_EQ(encode(at(MouseAction::press, MouseButton::right, 2, 3, {.shift = true}), m), "\x1b[<6;3;4M");
    EXPECT_EQ(encode(at(MouseAction::release, MouseButton::right, 2, 3), m), "\x1b[<2;3;4m");
    EXPECT_EQ(encode(at(MouseAction::motion, MouseButton::left, 2, 3), m), "<none>");
    EXPECT_EQ(encode(at(MouseAction::press, MouseButton::wheelDown, 2, 3), m), "\x1b[<65;3;4M");
}

TEST(MouseEncoderTest, ButtonEventTrackingReportsDragsOnly) {
    const auto m = modes(MouseMode::buttonEventTracking, MouseProtocolEncoding::sgr);
    EXPECT_EQ(encode(at(MouseAction::motion, MouseButton::left, 5, 1), m), "\x1b[<32;6;2M");
    EXPECT_EQ(encode(at(MouseAction::motion, MouseButton::none, 5, 1), m), "<none>");
}

TEST(MouseEncoderTest, AnyEventReportsAllMotion) {
    const auto m = modes(MouseMode::anyEvent, MouseProtocolEncoding::sgr);
    EXPECT_EQ(encode(at(MouseAction::motion, MouseButton::none, 5, 1), m), "\x1b[<35;6;2M");
    EXPECT_EQ(encode(at(MouseAction::motion, MouseButton::middle, 5, 1, {.alt = true}), m), "\x1b[<41;6;2M");
}

TEST(MouseEncoderTest, ReportingNeedsAModeThePermissionAndNoSelectionModifier) {
    InputModes off;
    const auto on = modes(MouseMode::vt200, MouseProtocolEncoding::sgr);
    EXPECT_FALSE(MouseEncoder::reportsMouse(off, true, {}));
    EXPECT_TRUE(MouseEncoder::reportsMouse(on, true, {}));
    EXPECT_FALSE(MouseEncoder::reportsMouse(on, false, {}));
    // Holding the selection modifier over a reporting program selects text instead.
    EXPECT_FALSE(MouseEncoder::reportsMouse(on, true, {.shift = true}));
    EXPECT_TRUE(MouseEncoder::reportsMouse(on, true, {.control = true}));
    EXPECT_EQ(encode(at(MouseAction::press, MouseButton::left, 0, 0), off), "<none>");
}

} // namespace
} // namespace termkit
