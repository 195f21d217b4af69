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
    for (int i = 0; i < m_lines.count(); ++i) {
        if (BufferLine* line = m_lines.peek(i))
            line->resize(newCols, CharData::Null);
    }
}

void Buffer::checkLineSizes(int newCols) {
    for (int i = 0; i < m_lines.count(); ++i) {
        const BufferLine* line = m_lines.peek(i);
        TERMKIT_INVARIANT(line == nullptr || line->count() == newCols,
                          "stop here newCols=" + std::to_string(newCols) +
                              " but the element has: " + std::to_string(line ? line->count() : 0));
    }
}

void Buffer::resizeRows(int newCols, int newRows, int newMaxLength) {
    int pulledDown = 0;
    if (newRows < m_rows) {
        for (int r = m_rows; r > newRows; --r) {
            if (m_lines.count() <= newRows + m_yBase.value)
                continue;
            if (m_lines.count() > lineIndex(m_y).value + 1) {
                // A row below the cursor: drop it rather than scroll the content away.
                m_lines.pop();
            } else {
                ++m_yBase;
                ++m_yDisp;
            }
        }
    } else if (newRows > m_rows) {
        for (int r = m_rows; r < newRows; ++r) {
            if (m_lines.count() >= newRows + m_yBase.value)
                continue;
            if (m_yBase > LineIndex(0)) {
                // History above the screen comes back into view instead of a blank row below.
                --m_yBase;
                ++pulledDown;
                if (m_yDisp > LineIndex(0))
                    --m_yDisp;
            } else {
                m_lines.push(nullptr);
            }
        }
    }
    if (newMaxLength < m_lines.maxLength()) {
        const int trim = m_lines.count() - newMaxLength;
        if (trim > 0)
            dropOldestLines(trim);
        m_lines.setMaxLength(newMaxLength);
    }
    const ScreenRow lastNewRow(newRows - 1);
    m_x = std::min(m_x, Col(newCols - 1));
    m_y = std::min(std::min(m_y, lastNewRow) + pulledDown, lastNewRow);
    setScrollRegion(ScreenRow(0), lastNewRow);
    m_saved.x = std::min(m_saved.x, Col(newCols - 1));
    m_saved.y = std::min(m_saved.y, lastNewRow);
}

void Buffer::resize(int newCols, int newRows) {
    const int oldCols = m_cols;
    m_marginRight = std::min(m_marginRight, Col(newCols - 1));
    m_marginLeft = std::min(m_marginLeft, m_marginRight);
    const int newMaxLength =
        m_hasScrollback ? cappedLength(static_cast<long long>(newRows) + m_scrollback.value_or(0)) : newRows;
    if (newMaxLength > m_lines.maxLength())
        m_lines.setMaxLength(newMaxLength);

    if (m_lines.count() > 0) {
        if (newCols > oldCols)
            resizeAllLines(newCols);
        resizeRows(newCols, newRows, newMaxLength);
    }

    m_tabStops.resize(static_cast<size_t>(newCols), 0);
    if (newCols > oldCols) {
        m_cols = newCols;
        setupTabStops(oldCols);
    }

    if (m_hasScrollback && newCols != oldCols) {
        m_cols = oldCols;
        reflow(newCols, newRows);
        recalculateImageCount();
    }
    if (newCols < oldCols)
        resizeAllLines(newCols);
    checkLineSizes(newCols);
    m_cols = newCols;
    m_rows = newRows;
    if (m_marginRight < m_marginLeft || m_marginRight == Col(oldCols - 1))
        m_marginRight = lastCol();
}

} // namespace termkit
