// Cursor movement, line feeds, tabs, and the saved cursor.

#include <algorithm>
#include <string>

#include "Termkit/buffer/Invariant.h"
#include "Termkit/engine/Terminal.h"

namespace termkit {

void Terminal::restrictCursor() {
    Buffer& b = *m_buffer;
    b.x = std::clamp(b.x, 0, b.cols() - 1);
    b.y = std::clamp(b.y, 0, b.rows() - 1);
}

void Terminal::moveToLineStart() {
    Buffer& b = *m_buffer;
    b.x = marginMode && b.x >= b.marginLeft ? b.marginLeft : 0;
}

void Terminal::setCursor(int col, int row) {
    Buffer& b = *m_buffer;
    if (originMode) {
        // Origin mode confines addressing to the scroll region and the margins.
        const int left = marginMode ? b.marginLeft : 0;
        const int right = marginMode ? b.marginRight : b.cols() - 1;
        b.x = std::clamp(col + left, left, right);
        b.y = std::clamp(row + b.scrollTop, b.scrollTop, b.scrollBottom);
    } else {
        b.x = std::clamp(col, 0, b.cols() - 1);
        b.y = std::clamp(row, 0, b.rows() - 1);
    }
}

void Terminal::cmdBackspace() {
    Buffer& b = *m_buffer;
    if (!reverseWraparound) {
        restrictCursor();
        if (b.x > 0)
            --b.x;
        return;
    }
    b.x = std::min(b.x, b.cols());
    if (b.x > 0) {
        --b.x;
        return;
    }
    // Reverse wraparound: from column 0 of a wrapped line back onto the line above.
    BufferLine& line = b.lines[b.yBase + b.y];
    if (b.y > b.scrollTop && b.y <= b.scrollBottom && line.isWrapped) {
        line.isWrapped = false;
        --b.y;
        b.x = b.cols() - 1;
        const BufferLine& above = b.lines[b.yBase + b.y];
        // The last cell may be the blank a wide character left when it wrapped.
        if (above[b.x].width == 1 && !above.hasContent(b.x) && b.x > 0)
            --b.x;
    }
}

void Terminal::cmdCarriageReturn() {
    moveToLineStart();
}

void Terminal::cmdIndex() {
    Buffer& b = *m_buffer;
    restrictCursor();
    if (b.y == b.scrollBottom) {
        b.scroll(false);
    } else if (b.y < b.rows() - 1) {
        ++b.y;
    }
    b.markRows(b.y, b.y);
}

void Terminal::cmdLineFeedBasic() {
    Buffer& b = *m_buffer;
    if (lineFeedMode)
        b.x = 0;
    if (b.y == b.scrollBottom) {
        b.scroll(false);
    } else if (b.y < b.rows() - 1) {
        ++b.y;
    }
    // A line feed never leaves the cursor in the pending-wrap column.
    if (b.x >= b.cols())
        b.x = b.cols() - 1;
    if (m_delegate)
        m_delegate->linefeed(*this);
}

void Terminal::cmdNextLine() {
    Buffer& b = *m_buffer;
    b.x = originMode && marginMode ? b.marginLeft : 0;
    cmdIndex();
}

void Terminal::reverseIndex() {
    Buffer& b = *m_buffer;
    restrictCursor();
    if (b.y != b.scrollTop) {
        if (b.y > 0)
            --b.y;
        return;
    }
    const int top = b.yBase + b.scrollTop;
    const int bottom = b.yBase + b.scrollBottom;
    TERMKIT_INVARIANT(top < b.lines.count(), "reverseIndex: start index " + std::to_string(top) +
                                                 " >= lines.count " + std::to_string(b.lines.count()) +
                                                 ", state:op=reverseIndex");
    TERMKIT_INVARIANT(bottom < b.lines.count(),
                      "Assertion on reverseIndex, state was: y=" + std::to_string(b.y) +
                          " yBase=" + std::to_string(b.yBase) + " scrollTop=" + std::to_string(b.scrollTop) +
                          " scrollBottom=" + std::to_string(b.scrollBottom));
    scrollDownOne();
}

void Terminal::cmdCursorUp(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    const int n = pars.atLeast1(0);
    const int limit = b.y >= b.scrollTop ? b.scrollTop : 0;
    b.y = std::max(b.y - n, limit);
    b.x = std::min(b.x, b.cols() - 1);
}

void Terminal::cmdCursorDown(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    const int n = pars.atLeast1(0);
    const int limit = b.y <= b.scrollBottom ? b.scrollBottom : b.rows() - 1;
    b.y = std::min(b.y + n, limit);
    b.x = std::min(b.x, b.cols() - 1);
}

void Terminal::cursorForward(int count) {
    Buffer& b = *m_buffer;
    b.x = std::min(b.x, b.cols() - 1);
    const int limit = marginMode && b.x <= b.marginRight ? b.marginRight : b.cols() - 1;
    b.x = std::min(b.x + std::max(count, 1), limit);
}

void Terminal::cursorBackward(int count) {
    Buffer& b = *m_buffer;
    b.x = std::min(b.x, b.cols() - 1);
    const int limit = marginMode && b.x >= b.marginLeft ? b.marginLeft : 0;
    b.x = std::max(b.x - std::max(count, 1), limit);
}

void Terminal::cmdCursorNextLine(const CsiParameters& pars, bool up) {
    if (up) {
        cmdCursorUp(pars);
    } else {
        cmdCursorDown(pars);
    }
    Buffer& b = *m_buffer;
    b.x = marginMode ? b.marginLeft : 0;
}

void Terminal::cmdCursorCharAbsolute(const CsiParameters& pars) {
    setCursor(pars.atLeast1(0) - 1, originMode ? m_buffer->y - m_buffer->scrollTop : m_buffer->y);
}

void Terminal::cmdCharPosAbsolute(const CsiParameters& pars) {
    cmdCursorCharAbsolute(pars);
}

void Terminal::cmdHPositionRelative(const CsiParameters& pars) {
    cursorForward(pars.atLeast1(0));
}

void Terminal::cmdCursorPosition(const CsiParameters& pars) {
    setCursor(pars.atLeast1(1) - 1, pars.atLeast1(0) - 1);
}

void Terminal::cmdHVPosition(const CsiParameters& pars) {
    cmdCursorPosition(pars);
}

void Terminal::cmdLinePosAbsolute(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    const int col = std::min(b.x, b.cols() - 1);
    const int row = pars.atLeast1(0) - 1;
    if (originMode) {
        b.y = std::clamp(row + b.scrollTop, b.scrollTop, b.scrollBottom);
    } else {
        b.y = std::clamp(row, 0, b.rows() - 1);
    }
    b.x = col;
}

void Terminal::cmdVPositionRelative(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    b.y = std::min(b.y + pars.atLeast1(0), b.rows() - 1);
    b.x = std::min(b.x, b.cols() - 1);
}

void Terminal::cmdTab(int count) {
    Buffer& b = *m_buffer;
    for (int i = 0; i < std::max(count, 1); ++i)
        b.x = b.nextTabStop(std::min(b.x, b.cols() - 1), marginMode);
}

void Terminal::cmdBackTab(int count) {
    Buffer& b = *m_buffer;
    // Nothing to do when the cursor is left of where the row starts.
    const int start = marginMode ? b.marginLeft : 0;
    if (b.x < start)
        return;
    b.x = std::min(b.x, b.cols() - 1);
    for (int i = 0; i < std::max(count, 1); ++i)
        b.x = std::max(b.previousTabStop(b.x), start);
}

void Terminal::cmdBackIndex() {
    Buffer& b = *m_buffer;
    restrictCursor();
    const int left = marginMode ? b.marginLeft : 0;
    if (b.x == left) {
        columnScroll(true, 1);
    } else {
        cursorBackward(1);
    }
}

void Terminal::cmdForwardIndex() {
    Buffer& b = *m_buffer;
    restrictCursor();
    const int right = marginMode ? b.marginRight : b.cols() - 1;
    if (b.x == right) {
        columnScroll(false, 1);
    } else {
        cursorForward(1);
    }
}

void Terminal::cmdSaveCursor() {
    Buffer& b = *m_buffer;
    b.savedX = b.x;
    b.savedY = b.y;
    b.savedAttr = curAttr;
    b.savedCharset = charset;
    b.savedOriginMode = originMode;
    b.savedMarginMode = marginMode;
    b.savedWraparound = wraparound;
    b.savedReverseWraparound = reverseWraparound;
}

void Terminal::cmdRestoreCursor() {
    Buffer& b = *m_buffer;
    b.x = std::min(b.savedX, b.cols() - 1);
    b.y = std::min(b.savedY, b.rows() - 1);
    curAttr = b.savedAttr;
    charset = b.savedCharset;
    originMode = b.savedOriginMode;
    marginMode = b.savedMarginMode;
    wraparound = b.savedWraparound;
    reverseWraparound = b.savedReverseWraparound;
    syncBufferModes();
    refreshAttributes();
}

} // namespace termkit
