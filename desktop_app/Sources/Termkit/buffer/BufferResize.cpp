#include <algorithm>
#include <string>

#include "Termkit/buffer/Buffer.h"
#include "Termkit/buffer/Invariant.h"

namespace termkit {

namespace {

int cappedLength(long long length) {
    return static_cast<int>(std::min<long long>(length, Buffer::kMaxLines));
}

} // namespace

void Buffer::resizeAllLines(int newCols) {
    for (int i = 0; i < lines.count(); ++i) {
        if (BufferLine* line = lines.peek(i))
            line->resize(newCols, CharData::Null);
    }
}

void Buffer::checkLineSizes(int newCols) {
    for (int i = 0; i < lines.count(); ++i) {
        const BufferLine* line = lines.peek(i);
        TERMKIT_INVARIANT(line == nullptr || line->count() == newCols,
                          "stop here newCols=" + std::to_string(newCols) +
                              " but the element has: " + std::to_string(line ? line->count() : 0));
    }
}

void Buffer::resizeRows(int newCols, int newRows, int newMaxLength) {
    int pulledDown = 0;
    if (newRows < m_rows) {
        for (int r = m_rows; r > newRows; --r) {
            if (lines.count() <= newRows + yBase)
                continue;
            if (lines.count() > yBase + y + 1) {
                // A row below the cursor: drop it rather than scroll the content away.
                lines.pop();
            } else {
                ++yBase;
                ++yDisp;
            }
        }
    } else if (newRows > m_rows) {
        for (int r = m_rows; r < newRows; ++r) {
            if (lines.count() >= newRows + yBase)
                continue;
            if (yBase > 0) {
                // History above the screen comes back into view instead of a blank row below.
                --yBase;
                ++pulledDown;
                if (yDisp > 0)
                    --yDisp;
            } else {
                lines.push(nullptr);
            }
        }
    }
    if (newMaxLength < lines.maxLength()) {
        const int trim = lines.count() - newMaxLength;
        if (trim > 0) {
            lines.trimStart(trim);
            linesTop += trim;
            yBase = std::max(yBase - trim, 0);
            yDisp = std::max(yDisp - trim, 0);
        }
        lines.setMaxLength(newMaxLength);
    }
    x = std::min(x, newCols - 1);
    y = std::min(y, newRows - 1) + pulledDown;
    y = std::min(y, newRows - 1);
    scrollTop = 0;
    scrollBottom = newRows - 1;
    savedX = std::min(savedX, newCols - 1);
    savedY = std::min(savedY, newRows - 1);
}

void Buffer::resize(int newCols, int newRows) {
    const int oldCols = m_cols;
    marginRight = std::min(marginRight, newCols - 1);
    marginLeft = std::min(marginLeft, marginRight);
    const int newMaxLength =
        hasScrollback ? cappedLength(static_cast<long long>(newRows) + scrollback.value_or(0)) : newRows;
    if (newMaxLength > lines.maxLength())
        lines.setMaxLength(newMaxLength);

    if (lines.count() > 0) {
        if (newCols > oldCols)
            resizeAllLines(newCols);
        resizeRows(newCols, newRows, newMaxLength);
    }

    tabStops.resize(static_cast<size_t>(newCols), 0);
    if (newCols > oldCols) {
        m_cols = newCols;
        setupTabStops(oldCols);
    }

    if (hasScrollback && newCols != oldCols) {
        m_cols = oldCols;
        reflow(newCols, newRows);
        recalculateImageCount();
    }
    if (newCols < oldCols)
        resizeAllLines(newCols);
    checkLineSizes(newCols);
    m_cols = newCols;
    m_rows = newRows;
    if (marginRight < marginLeft || marginRight == oldCols - 1)
        marginRight = newCols - 1;
}

} // namespace termkit
