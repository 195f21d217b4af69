// The view's side of right-to-left text: rows, caret, selection and pointer through the
// bidi layout, and the arrow-key swap.

#include <algorithm>
#include <cmath>

#include "Termkit/view/TerminalView.h"
#include "Termkit/view/input/BidiArrowKeys.h"

namespace termkit {

KeyPress withBidiArrowKeySwap(KeyPress press, bool swapMode, BidiDirection paragraphDirection) {
    if (!swapMode || paragraphDirection != BidiDirection::rightToLeft)
        return press;
    if (press.key == Key::left)
        press.key = Key::right;
    else if (press.key == Key::right)
        press.key = Key::left;
    return press;
}

TerminalBidi* TerminalView::bidiForDisplay() const {
    return m_settings.bidiHostPolicy == BidiHostPolicy::legacyLeftToRight ? nullptr : &m_bidi;
}

std::optional<BidiRowLayout> TerminalView::displayLayout(LineIndex line) const {
    TerminalBidi* bidi = bidiForDisplay();
    const Buffer& buffer = m_terminal->buffer();
    if (bidi == nullptr || line.value < 0 || line.value >= buffer.lineCount() ||
        !bidi->rowNeedsLayout(line, buffer))
        return std::nullopt;
    return bidi->layout(line, buffer);
}

int TerminalView::visualColumn(LineIndex line, int logicalCol) const {
    const std::optional<BidiRowLayout> layout = displayLayout(line);
    if (!layout || logicalCol < 0 || logicalCol >= static_cast<int>(layout->logicalToVisualCol.size()))
        return logicalCol;
    return layout->logicalToVisualCol[static_cast<size_t>(logicalCol)];
}

int TerminalView::logicalColumn(LineIndex line, int visualCol) const {
    const std::optional<BidiRowLayout> layout = displayLayout(line);
    if (!layout || visualCol < 0 || visualCol >= static_cast<int>(layout->visualToLogicalCol.size()))
        return visualCol;
    return layout->visualToLogicalCol[static_cast<size_t>(visualCol)];
}

int TerminalView::logicalBoundary(LineIndex line, double visualPosition) const {
    const std::optional<BidiRowLayout> layout = displayLayout(line);
    const int cols = layout ? static_cast<int>(layout->visualToLogicalCol.size()) : 0;
    if (!layout || cols == 0)
        return static_cast<int>(visualPosition + 0.5);
    // The cell under the pointer, and the side of it that comes first in reading order:
    // in a right-to-left run the left half of a cell is its logical end.
    const int visualCol = std::clamp(static_cast<int>(std::floor(visualPosition)), 0, cols - 1);
    const int logical = layout->visualToLogicalCol[static_cast<size_t>(visualCol)];
    const bool leftHalf = visualPosition - visualCol < 0.5;
    const bool rtl = TerminalBidi::isRightToLeftAt(*layout, logical);
    return logical + ((rtl ? leftHalf : !leftHalf) ? 1 : 0);
}

BidiDirection TerminalView::cursorParagraphDirection() const {
    TerminalBidi* bidi = bidiForDisplay();
    if (bidi == nullptr)
        return BidiDirection::leftToRight;
    const Buffer& buffer = m_terminal->buffer();
    return bidi->paragraphDirection(buffer.lineIndex(buffer.y()), buffer);
}

} // namespace termkit
