// Writing a changed bidi state back to the lines of the paragraph the cursor is in.

#include "Termkit/bidi/TerminalBidi.h"
#include "Termkit/engine/Terminal.h"

namespace termkit {

void Terminal::applyCurrentBidiStateAtParagraphStart(unsigned properties) {
    Buffer& b = *m_buffer;
    const LineIndex cursorLine = b.lineIndex(b.y());
    const TerminalBidi::ParagraphBounds bounds =
        TerminalBidi::paragraphBounds(cursorLine, b, m_options.maximumBidiParagraphRows);
    // At the start of a paragraph, or on an empty line, the change is meant for the
    // paragraph about to be written; in the middle of one, the text already written keeps
    // how it was shown and only the lines after the cursor's take the change.
    const bool atStart = cursorLine == bounds.first && b.x() <= leftLimit();
    const bool empty = !b.line(cursorLine).hasAnyContent();
    const LineIndex from = atStart || empty ? bounds.first : cursorLine + 1;
    for (LineIndex row = from; row <= bounds.last; ++row) {
        BufferLine& line = b.line(row);
        line.setBidiState(mergeBidiProperties(line.bidiState(), currentBidiState(), properties));
        line.touch();
    }
}

} // namespace termkit
