#pragma once
// Small helpers to drive a Buffer without a terminal.

#include <string>
#include <vector>

#include "Termkit/buffer/Buffer.h"
#include "TermkitTests/IndexPrinters.h"

namespace termkit::testing {

/// Writes text at the cursor; characters from U+1100 up are taken as wide for brevity.
inline void write(Buffer& buffer, const std::u32string& text) {
    for (char32_t c : text) {
        const int width = c >= 0x1100 ? 2 : 1;
        buffer.insertCharacter(buffer.tables().characters.code(c), width, 0);
    }
}

/// Carriage return and line feed.
inline void newline(Buffer& buffer) {
    buffer.setX(Col(0));
    if (buffer.y() == buffer.scrollBottom()) {
        buffer.scroll(false);
    } else if (buffer.y() < buffer.lastRow()) {
        buffer.setY(buffer.y() + 1);
    }
}

/// Text of a line, right halves of wide characters left out, trailing blanks trimmed.
inline std::string text(const Buffer& buffer, LineIndex lineIndex) {
    return buffer.line(lineIndex).translateToString(buffer.tables().characters);
}

/// Every line of the buffer as text.
inline std::vector<std::string> allLines(const Buffer& buffer) {
    std::vector<std::string> out;
    for (LineIndex i(0); i.value < buffer.lineCount(); ++i)
        out.push_back(text(buffer, i));
    return out;
}

/// The screen rows as text.
inline std::vector<std::string> screen(const Buffer& buffer) {
    std::vector<std::string> out;
    for (ScreenRow r(0); r <= buffer.lastRow(); ++r)
        out.push_back(text(buffer, buffer.lineIndex(r)));
    return out;
}

} // namespace termkit::testing
