// Rows copied for drawing in visual order, and the arrow-key swap, without a window.

#include <gtest/gtest.h>

#include "Termkit/view/TerminalCells.h"
#include "Termkit/view/input/BidiArrowKeys.h"

namespace termkit {
namespace {

class Quiet : public TerminalDelegate {
public:
    void send(Terminal&, std::span<const uint8_t>) override {}
};

TerminalOptions sized(int cols, int rows) {
    TerminalOptions o;
    o.cols = cols;
    o.rows = rows;
    return o;
}

TEST(BidiDisplayTest, RowsAreCopiedInVisualOrderWithShapedForms) {
    Quiet host;
    Terminal terminal(&host, sized(8, 3));
    // Arabic lam-alef then beh, then a Latin row.
    terminal.feed("\xd9\x84\xd8\xa7\xd8\xa8\r\nab");
    TerminalBidi bidi;
    TerminalRowSource source(terminal, ViewColors{}, &bidi);
    RowSnapshot row;
    source.copyRow(0, row);
    ASSERT_EQ(row.cells.size(), 8U);
    EXPECT_EQ(row.cells[7].code, 0xFEFBU); // the ligature in the lam's cell, at the right
    EXPECT_EQ(row.cells[6].code, 0U);      // the alef's cell left blank
    EXPECT_EQ(row.cells[5].code, 0xFE8FU); // beh alone after the ligature: isolated
    EXPECT_EQ(row.cells[0].code, 0U);
    EXPECT_NE(source.rowKey(0).bidiParagraphRevision, 0U);
    source.copyRow(1, row);
    EXPECT_EQ(row.cells[0].code, static_cast<uint32_t>('a'));
    EXPECT_EQ(source.rowKey(1).bidiParagraphRevision, 0U);
    // Without a layout engine (bidi off in the host) the row stays in logical order.
    TerminalRowSource logical(terminal, ViewColors{});
    logical.copyRow(0, row);
    EXPECT_EQ(row.cells[0].code, 0x644U);
    EXPECT_EQ(logical.rowKey(0).bidiParagraphRevision, 0U);
}

TEST(BidiDisplayTest, WideCharactersKeepTheirLeftHalfFirst) {
    Quiet host;
    Terminal terminal(&host, sized(6, 2));
    terminal.feed("\xd7\x90\xe4\xb8\xad");
    TerminalBidi bidi;
    TerminalRowSource source(terminal, ViewColors{}, &bidi);
    RowSnapshot row;
    source.copyRow(0, row);
    EXPECT_EQ(row.cells[5].code, 0x5D0U);
    EXPECT_EQ(row.cells[3].code, 0x4E2DU);
    EXPECT_EQ(row.cells[3].width, 2);
    EXPECT_EQ(row.cells[4].width, 0);
}

TEST(BidiDisplayTest, ArrowKeysSwapOnlyInRightToLeftParagraphsWithTheMode) {
    KeyPress left;
    left.key = Key::left;
    KeyPress up;
    up.key = Key::up;
    EXPECT_EQ(withBidiArrowKeySwap(left, true, BidiDirection::rightToLeft).key, Key::right);
    EXPECT_EQ(withBidiArrowKeySwap(left, false, BidiDirection::rightToLeft).key, Key::left);
    EXPECT_EQ(withBidiArrowKeySwap(left, true, BidiDirection::leftToRight).key, Key::left);
    EXPECT_EQ(withBidiArrowKeySwap(up, true, BidiDirection::rightToLeft).key, Key::up);
}

} // namespace
} // namespace termkit
