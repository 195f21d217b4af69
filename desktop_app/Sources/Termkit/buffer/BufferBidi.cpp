// Keeping paragraphs from joining across the edges of a moving region of lines.

#include "Termkit/buffer/Buffer.h"

namespace termkit {

void Buffer::clearWrapAt(ScreenRow row) {
    if (row <= ScreenRow(0) || row > lastRow())
        return;
    BufferLine& line = screenLine(row);
    if (!line.isWrapped())
        return;
    line.setWrapped(false);
    markRow(row);
}

void Buffer::hardenBidiScrollBoundaries() {
    // A region starting at the top scrolls into the history, where its paragraphs go on.
    if (m_scrollTop != ScreenRow(0))
        clearWrapAt(m_scrollTop);
    clearWrapAt(m_scrollBottom + 1);
}

void Buffer::hardenBidiLineShiftBoundaries(ScreenRow row) {
    clearWrapAt(row);
    clearWrapAt(m_scrollBottom + 1);
}

} // namespace termkit
