// Cursor movement, line feeds, tabs, and the saved cursor.

#include <algorithm>
#include <string>

#include "Termkit/buffer/Invariant.h"
#include "Termkit/engine/Terminal.h"

namespace termkit {

void Terminal::restrictCursor() {
    Buffer& b = *m_buffer;
    b.setCursor(std::clamp(b.x(), Col(0), b.lastCol()), std::clamp(b.y(), ScreenRow(0), b.lastRow()));
}

void Terminal::moveToLineStart() {
    Buffer& b = *m_buffer;
    b.setX(m_modes.marginMode && b.x() >= b.marginLeft() ? b.marginLeft() : Col(0));
}

void Terminal::setCursor(Col col, ScreenRow row) {
    Buffer& b = *m_buffer;
    if (m_originMode) {
        // Origin mode confines addressing to the scroll region and the margins.
        const Col left = leftLimit();
        b.setCursor(std::clamp(col + left.value, left, rightLimit()),
                    std::clamp(row + b.scrollTop().value, b.scrollTop(), b.scrollBottom()));
    } else {
        b.setCursor(std::clamp(col, Col(0), b.lastCol()), std::clamp(row, ScreenRow(0), b.lastRow()));
    }
}

void Terminal::cmdBackspace() {
    Buffer& b = *m_buffer;
    if (!m_reverseWraparound) {
        restrictCursor();
        if (b.x() > Col(0))
            b.setX(b.x() - 1);
        return;
    }
    b.setX(std::min(b.x(), Col(b.cols())));
    if (b.x() > Col(0)) {
        b.setX(b.x() - 1);
        return;
    }
    // Reverse wraparound: from column 0 of a wrapped line back onto the line above.
    BufferLine& line = b.screenLine(b.y());
    if (b.y() > b.scrollTop() && b.y() <= b.scrollBottom() && line.isWrapped()) {
        line.setWrapped(false);
        b.setCursor(b.lastCol(), b.y() - 1);
        const BufferLine& above = b.screenLine(b.y());
        // The last cell may be the blank a wide character left when it wrapped.
        const int x = b.x().value;
        if (above[x].width == 1 && !above.hasContent(x) && x > 0)
            b.setX(b.x() - 1);
    }
}

void Terminal::cmdCarriageReturn() {
    moveToLineStart();
}

void Terminal::cmdIndex() {
    Buffer& b = *m_buffer;
    restrictCursor();
    if (b.y() == b.scrollBottom()) {
        b.scroll(false);
    } else if (b.y() < b.lastRow()) {
        b.setY(b.y() + 1);
    }
    b.markRow(b.y());
}

void Terminal::cmdLineFeedBasic() {
    Buffer& b = *m_buffer;
    if (m_lineFeedMode)
        b.setX(Col(0));
    if (b.y() == b.scrollBottom()) {
        b.scroll(false);
    } else if (b.y() < b.lastRow()) {
        b.setY(b.y() + 1);
    }
    // A line feed never leaves the cursor in the pending-wrap column.
    if (b.x() > b.lastCol())
        b.setX(b.lastCol());
    if (m_semanticLineAdvanceWanted) [[unlikely]]
        m_extensions->finishSemanticLineAdvance(*this);
    if (m_delegate)
        m_delegate->linefeed(*this);
}

void Terminal::cmdNextLine() {
    Buffer& b = *m_buffer;
    b.setX(m_originMode && m_modes.marginMode ? b.marginLeft() : Col(0));
    cmdIndex();
}

void Terminal::reverseIndex() {
    Buffer& b = *m_buffer;
    restrictCursor();
    if (b.y() != b.scrollTop()) {
        if (b.y() > ScreenRow(0))
            b.setY(b.y() - 1);
        return;
    }
    const LineIndex top = b.lineIndex(b.scrollTop());
    const LineIndex bottom = b.lineIndex(b.scrollBottom());
    TERMKIT_INVARIANT(top.value < b.lineCount(), "reverseIndex: start index " + std::to_string(top.value) +
                                                     " >= lines.count " + std::to_string(b.lineCount()) +
                                                     ", state:op=reverseIndex");
    TERMKIT_INVARIANT(bottom.value < b.lineCount(),
                      "Assertion on reverseIndex, state was: y=" + std::to_string(b.y().value) +
                          " yBase=" + std::to_string(b.yBase().value) +
                          " scrollTop=" + std::to_string(b.scrollTop().value) +
                          " scrollBottom=" + std::to_string(b.scrollBottom().value));
    scrollDownOne();
}

void Terminal::cmdCursorUp(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    const int n = pars.atLeast1(0);
    const ScreenRow limit = b.y() >= b.scrollTop() ? b.scrollTop() : ScreenRow(0);
    b.setCursor(cursorCol(), std::max(b.y() - n, limit));
}

void Terminal::cmdCursorDown(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    const int n = pars.atLeast1(0);
    const ScreenRow limit = b.y() <= b.scrollBottom() ? b.scrollBottom() : b.lastRow();
    b.setCursor(cursorCol(), std::min(b.y() + n, limit));
}

void Terminal::cursorForward(int count) {
    Buffer& b = *m_buffer;
    const Col x = cursorCol();
    const Col limit = m_modes.marginMode && x <= b.marginRight() ? b.marginRight() : b.lastCol();
    b.setX(std::min(x + std::max(count, 1), limit));
}

void Terminal::cursorBackward(int count) {
    Buffer& b = *m_buffer;
    const Col x = cursorCol();
    const Col limit = m_modes.marginMode && x >= b.marginLeft() ? b.marginLeft() : Col(0);
    b.setX(std::max(x - std::max(count, 1), limit));
}

void Terminal::cmdCursorNextLine(const CsiParameters& pars, bool up) {
    if (up) {
        cmdCursorUp(pars);
    } else {
        cmdCursorDown(pars);
    }
    m_buffer->setX(leftLimit());
}

void Terminal::cmdCursorCharAbsolute(const CsiParameters& pars) {
    const Buffer& b = *m_buffer;
    const ScreenRow row = m_originMode ? ScreenRow(b.y() - b.scrollTop()) : b.y();
    setCursor(Col(pars.atLeast1(0) - 1), row);
}

void Terminal::cmdCharPosAbsolute(const CsiParameters& pars) {
    cmdCursorCharAbsolute(pars);
}

void Terminal::cmdHPositionRelative(const CsiParameters& pars) {
    cursorForward(pars.atLeast1(0));
}

void Terminal::cmdCursorPosition(const CsiParameters& pars) {
    setCursor(Col(pars.atLeast1(1) - 1), ScreenRow(pars.atLeast1(0) - 1));
}

void Terminal::cmdHVPosition(const CsiParameters& pars) {
    cmdCursorPosition(pars);
}

void Terminal::cmdLinePosAbsolute(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    const ScreenRow row(pars.atLeast1(0) - 1);
    if (m_originMode) {
        b.setCursor(cursorCol(), std::clamp(row + b.scrollTop().value, b.scrollTop(), b.scrollBottom()));
    } else {
        b.setCursor(cursorCol(), std::clamp(row, ScreenRow(0), b.lastRow()));
    }
}

void Terminal::cmdVPositionRelative(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    b.setCursor(cursorCol(), std::min(b.y() + pars.atLeast1(0), b.lastRow()));
}

void Terminal::cmdTab(int count) {
    Buffer& b = *m_buffer;
    for (int i = 0; i < std::max(count, 1); ++i)
        b.setX(b.nextTabStop(cursorCol(), m_modes.marginMode));
}

void Terminal::cmdBackTab(int count) {
    Buffer& b = *m_buffer;
    // Nothing to do when the cursor is left of where the row starts.
    const Col start = leftLimit();
    if (b.x() < start)
        return;
    b.setX(cursorCol());
    for (int i = 0; i < std::max(count, 1); ++i)
        b.setX(std::max(b.previousTabStop(b.x()), start));
}

void Terminal::cmdTabSet() {
    m_buffer->tabSet(cursorCol());
}

void Terminal::cmdBackIndex() {
    restrictCursor();
    if (m_buffer->x() == leftLimit()) {
        columnScroll(true, 1);
    } else {
        cursorBackward(1);
    }
}

void Terminal::cmdForwardIndex() {
    restrictCursor();
    if (m_buffer->x() == rightLimit()) {
        columnScroll(false, 1);
    } else {
        cursorForward(1);
    }
}

void Terminal::cmdSaveCursor() {
    Buffer& b = *m_buffer;
    b.saveCursor(SavedCursor{b.x(), b.y(), m_curAttr, m_charset, m_originMode, m_modes.marginMode,
                             m_modes.wraparound, m_reverseWraparound});
}

void Terminal::cmdRestoreCursor() {
    Buffer& b = *m_buffer;
    const SavedCursor& saved = b.savedCursor();
    b.setCursor(std::min(saved.x, b.lastCol()), std::min(saved.y, b.lastRow()));
    m_curAttr = saved.attr;
    m_charset = saved.charset;
    m_originMode = saved.originMode;
    m_modes.marginMode = saved.marginMode;
    m_modes.wraparound = saved.wraparound;
    m_reverseWraparound = saved.reverseWraparound;
    refreshAttributes();
}

} // namespace termkit
