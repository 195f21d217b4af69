// Rewrapping of the normal buffer's lines when its width changes.
//
// A group is a line and the wrapped lines that follow it: one logical line. A group is
// rewritten by laying its cells out again in rows of the new width. Two rules keep wide
// characters whole: a row whose last cell is an untouched blank followed by a row that
// starts with a wide character counts one column shorter (that blank only exists because
// the character did not fit), and a new row that would end in the left half of a wide
// character is cut one cell short, leaving a blank. The group holding the cursor is left
// alone: the program in control of it repaints it.

#include <algorithm>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "Termkit/buffer/Buffer.h"

namespace termkit {

namespace {

using LinePtr = CircularBufferLineList::LinePtr;

/// Columns of line `i` of a group that carry text, by the wide-character rule.
int effectiveLength(const std::vector<LinePtr>& lines, int i, int groupEnd, int oldCols) {
    const BufferLine& line = *lines[i];
    if (i + 1 >= groupEnd)
        return std::min(line.getTrimmedLength(), oldCols);
    const BufferLine* next = lines[i + 1].get();
    const CharData& last = line.cells()[oldCols - 1];
    if (last.isUntouchedBlank() && next != nullptr && next->count() > 0 && next->cells()[0].width == 2) {
        return oldCols - 1;
    }
    return oldCols;
}

/// Lengths of the new rows for `cells` laid out `newCols` wide.
std::vector<int> newLineLengths(const std::vector<CharData>& cells, int newCols) {
    std::vector<int> lengths;
    const int total = static_cast<int>(cells.size());
    int p = 0;
    do {
        int take = std::min(newCols, total - p);
        if (take == newCols && take > 1 && cells[p + take - 1].width == 2)
            --take;
        lengths.push_back(take);
        p += take;
    } while (p < total);
    return lengths;
}

struct GroupLayout {
    std::vector<int> rowLengths;
    std::vector<int> rowOfLine;  // new row (within the group) holding the start of each old line
    std::vector<int> lineStarts; // where each old line's cells start in the group's cells
};

GroupLayout layoutGroup(const std::vector<LinePtr>& lines, int start, int end, int oldCols, int newCols,
                        std::vector<CharData>& cells) {
    GroupLayout layout;
    cells.clear();
    std::vector<int>& lineStarts = layout.lineStarts;
    for (int i = start; i < end; ++i) {
        lineStarts.push_back(static_cast<int>(cells.size()));
        const int len = effectiveLength(lines, i, end, oldCols);
        const CharData* src = lines[i]->cells();
        cells.insert(cells.end(), src, src + len);
    }
    layout.rowLengths = newLineLengths(cells, newCols);
    int row = 0;
    int rowStart = 0;
    for (int offset : lineStarts) {
        while (row + 1 < static_cast<int>(layout.rowLengths.size()) &&
               rowStart + layout.rowLengths[row] <= offset) {
            rowStart += layout.rowLengths[row];
            ++row;
        }
        layout.rowOfLine.push_back(row);
    }
    return layout;
}

bool isBlankLine(const BufferLine* line) {
    return line == nullptr || (!line->isWrapped() && !line->hasAnyContent());
}

} // namespace

void Buffer::placeAfterReflow(std::vector<CircularBufferLineList::LinePtr>& out,
                              const std::vector<int>& newIndexOf, int cursorAbs, bool dispFollows,
                              int savedAbs, bool wider, int newRows) {
    const int n = static_cast<int>(newIndexOf.size());
    const int newCursorAbs = newIndexOf[cursorAbs];
    const int addedAbove = newCursorAbs - cursorAbs;
    int newYBase = m_yBase.value;
    int newY = m_y.value;
    if (wider) {
        // Lines removed above the cursor pull history down, or move the cursor up when there
        // is none; rows that went missing are blank lines at the bottom.
        for (int k = 0; k < -addedAbove; ++k) {
            if (newYBase > 0) {
                --newYBase;
            } else {
                --newY;
            }
        }
    } else {
        // Lines added above the cursor use blank rows at the bottom of a screen that has room,
        // and otherwise push the top of the screen into history.
        for (int k = 0; k < addedAbove; ++k) {
            const bool roomBelow = newYBase == 0 && newY < newRows - 1 &&
                                   static_cast<int>(out.size()) - 1 > newCursorAbs &&
                                   isBlankLine(out.back().get());
            if (roomBelow) {
                out.pop_back();
                ++newY;
            } else {
                ++newYBase;
            }
        }
    }
    // Growth below the cursor first eats trailing blank lines, then scrolls.
    while (static_cast<int>(out.size()) > newYBase + newRows) {
        if (static_cast<int>(out.size()) - 1 > newCursorAbs && isBlankLine(out.back().get())) {
            out.pop_back();
        } else {
            ++newYBase;
        }
    }
    while (static_cast<int>(out.size()) < newYBase + newRows)
        out.push_back(nullptr);

    // A ring that overflows loses its oldest lines.
    const int overflow = std::max(0, static_cast<int>(out.size()) - m_lines.maxLength());
    newYBase -= overflow;
    m_linesTop += overflow;
    m_lines.assign(std::move(out));

    m_yBase = LineIndex(std::max(newYBase, 0));
    const int yBase = m_yBase.value;
    m_y = ScreenRow(std::clamp(newCursorAbs - overflow - yBase, 0, newRows - 1));
    if (dispFollows) {
        m_yDisp = m_yBase;
    } else {
        m_yDisp = LineIndex(std::clamp(newIndexOf[std::clamp(m_yDisp.value, 0, n - 1)] - overflow, 0, yBase));
    }
    const int newSavedAbs = newIndexOf[std::clamp(savedAbs, 0, n - 1)] - overflow;
    m_saved.y = ScreenRow(std::clamp(newSavedAbs - yBase, 0, newRows - 1));
}

void Buffer::reflow(int newCols, int newRows) {
    const int oldCols = m_cols;
    const bool wider = newCols > oldCols;
    std::vector<LinePtr> old = m_lines.takeAll();
    const int n = static_cast<int>(old.size());
    const int cursorAbs = lineIndex(m_y).value;
    const bool dispFollows = m_yDisp == m_yBase;
    const int savedAbs = lineIndex(m_saved.y).value;

    std::vector<LinePtr> out;
    out.reserve(static_cast<size_t>(n) + 16);
    std::vector<int> newIndexOf(static_cast<size_t>(n), 0);
    std::vector<CharData> cells;

    for (int s = 0; s < n;) {
        int e = s + 1;
        while (e < n && old[e] && old[e]->isWrapped())
            ++e;
        const bool holdsCursor = cursorAbs >= s && cursorAbs < e;
        const bool tooLong = old[s] != nullptr && old[s]->getTrimmedLength() > newCols;
        const bool needsWork = old[s] != nullptr && (e - s >= 2 || (!wider && tooLong));
        if (!needsWork || holdsCursor) {
            for (int k = s; k < e; ++k) {
                newIndexOf[k] = static_cast<int>(out.size());
                out.push_back(std::move(old[k]));
            }
            s = e;
            continue;
        }
        const GroupLayout layout = layoutGroup(old, s, e, oldCols, newCols, cells);
        const int first = static_cast<int>(out.size());
        for (int k = s; k < e; ++k)
            newIndexOf[k] = first + layout.rowOfLine[k - s];
        const BidiPresentationState bidi = old[s]->bidiState();
        // Semantic marks go with the cells they were put at (each shifted by as much as its
        // cell moved); a line's continuation group goes to the row its start lands in.
        struct MovedMark {
            int offset;
            SemanticMark mark;
        };
        std::vector<MovedMark> marks;
        std::vector<std::pair<int, uint64_t>> continuationGroups;
        for (int k = s; k < e; ++k) {
            for (const SemanticMark& m : old[k]->semanticMarks())
                marks.push_back({layout.lineStarts[k - s] + m.column, m});
            if (const std::optional<uint64_t> group = old[k]->semanticHardContinuationGroup())
                continuationGroups.emplace_back(layout.rowOfLine[k - s], *group);
        }
        int offset = 0;
        for (size_t r = 0; r < layout.rowLengths.size(); ++r) {
            LinePtr row;
            if (static_cast<int>(r) < e - s) {
                row = std::move(old[s + static_cast<int>(r)]);
                row->resize(newCols, CharData::Null);
            } else {
                row = std::make_unique<BufferLine>(newCols, CharData::Null, true, bidi);
                row->setOwningBuffer(this);
            }
            const int len = layout.rowLengths[r];
            std::copy(cells.begin() + offset, cells.begin() + offset + len, row->cells());
            std::fill(row->cells() + len, row->cells() + newCols, CharData::Null);
            row->setWrapped(r > 0);
            row->setBidiState(bidi);
            row->destroySemanticState();
            row->touch();
            offset += len;
            out.push_back(std::move(row));
        }
        for (const MovedMark& moved : marks) {
            size_t r = 0;
            int rowStart = 0;
            while (r + 1 < layout.rowLengths.size() && moved.offset >= rowStart + layout.rowLengths[r])
                rowStart += layout.rowLengths[r++];
            SemanticMark mark = moved.mark;
            mark.column = moved.offset - rowStart;
            out[static_cast<size_t>(first) + r]->setSemanticMark(mark);
        }
        for (const auto& [r, group] : continuationGroups)
            if (!out[static_cast<size_t>(first + r)]->semanticHardContinuationGroup())
                out[static_cast<size_t>(first + r)]->setSemanticHardContinuationGroup(group);
        for (size_t r = 0; r < layout.rowLengths.size(); ++r)
            out[static_cast<size_t>(first) + r]->marksClampTo(newCols);
        s = e;
    }

    placeAfterReflow(out, newIndexOf, cursorAbs, dispFollows, savedAbs, wider, newRows);
}

} // namespace termkit
