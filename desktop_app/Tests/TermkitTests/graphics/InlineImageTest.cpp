#include "Termkit/graphics/TerminalGraphics.h"

#include <gtest/gtest.h>

#include "TermkitTests/graphics/GraphicsTestSupport.h"

namespace termkit {
namespace {

using testing::base64;
using testing::gradient;
using testing::GraphicsTerminal;

// A 20x40 picture: two by two cells of 10x20 pixels at its natural size.
std::string osc(const std::string& arguments, const std::string& payload) {
    return "\x1b]1337;File=" + arguments + ":" + payload + "\x07";
}

std::string picture() {
    return base64(encodePng(gradient(20, 40)));
}

std::array<int, 4> placed(const GraphicsTerminal& t) {
    const auto all = t.placements();
    if (all.size() != 1)
        return {-1, -1, -1, -1};
    return {all[0].row, all[0].col, all[0].slice->cols, all[0].slice->rows};
}

TEST(InlineImageTest, NaturalSizeAtTheCursorThenTextBelow) {
    GraphicsTerminal t;
    t.feed("abc");
    t.feed(osc("name=eA==;size=10;inline=1", picture()));
    EXPECT_EQ(placed(t), (std::array<int, 4>{0, 3, 2, 2}));
    EXPECT_EQ(t.placements()[0].slice->source, ImageSource::inlineImage);
    EXPECT_EQ(t.terminal->buffer().y().value, 2);
    EXPECT_EQ(t.terminal->buffer().x().value, 3);
}

TEST(InlineImageTest, SizeRequests) {
    const std::vector<std::pair<std::string, std::array<int, 4>>> cases = {
        {"inline=1;width=4", {0, 0, 4, 4}},     // cells, aspect kept
        {"inline=1;width=40px", {0, 0, 4, 4}},  // pixels
        {"inline=1;width=50%", {0, 0, 10, 10}}, // of 20 columns
        {"inline=1;height=1", {0, 0, 1, 1}},    // half a column wide
        {"inline=1;width=6;height=1;preserveAspectRatio=0", {0, 0, 6, 1}},
        {"inline=1;width=6;height=2", {0, 0, 2, 2}}, // fitted in the box
        {"inline=1;width=auto;height=auto", {0, 0, 2, 2}},
    };
    for (const auto& [arguments, expected] : cases) {
        GraphicsTerminal t(20, 30);
        t.feed(osc(arguments, picture()));
        EXPECT_EQ(placed(t), expected) << arguments;
    }
}

TEST(InlineImageTest, OtherBodiesStillReachTheHost) {
    GraphicsTerminal t;
    t.feed("\x1b]1337;SetMark\x07");
    t.feed(osc("inline=0", picture()));
    EXPECT_EQ(t.host.iTermBodies.size(), 2u);
    EXPECT_TRUE(t.placements().empty());
    t.feed(osc("inline=1", "not base64!"));
    t.feed(osc("inline=1", base64(std::string_view("GIF89a not decoded here"))));
    EXPECT_TRUE(t.placements().empty());
}

TEST(InlineImageTest, CellsForRequests) {
    const std::pair<int, int> cell{10, 20};
    using K = ImageSizeRequest::Kind;
    EXPECT_EQ(inlineImageCells({}, {}, true, 30, 40, cell, 80, 24), std::make_pair(3.0, 2.0));
    EXPECT_EQ(inlineImageCells({K::cells, 6}, {}, true, 30, 40, cell, 80, 24), std::make_pair(6.0, 4.0));
    EXPECT_EQ(inlineImageCells({K::cells, 6}, {}, false, 30, 40, cell, 80, 24), std::make_pair(6.0, 2.0));
    EXPECT_EQ(inlineImageCells({}, {K::percent, 50}, true, 30, 40, cell, 80, 24), std::make_pair(18.0, 12.0));
}

} // namespace
} // namespace termkit

namespace termkit {
namespace {

// Records what reaches the extension after the graphics.
class RecordingExtensions : public TerminalExtensions {
public:
    std::vector<std::string> calls;
    void oscSemanticPrompt(Terminal&, std::span<const uint8_t> data) override {
        calls.push_back("133:" + std::string(data.begin(), data.end()));
    }
    void semanticNoteAlternateScreenSwitch(Terminal&) override { calls.push_back("alt"); }
    void reset(Terminal&, bool hard) override { calls.push_back(hard ? "hard" : "soft"); }
};

TEST(TerminalGraphicsTest, WhatIsNotAboutPicturesGoesOn) {
    RecordingExtensions next;
    testing::GraphicsHost host;
    TerminalGraphics graphics(&next);
    Terminal terminal(&host, {}, nullptr, &graphics);
    graphics.attach(terminal);
    next.calls.clear();
    terminal.feed("\x1b]133;A\x07\x1b[?1049h\x1b[!p\x1b"
                  "c");
    EXPECT_EQ(next.calls, (std::vector<std::string>{"133:A", "alt", "soft", "hard"}));
}

} // namespace
} // namespace termkit
