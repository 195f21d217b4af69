// Erasing, inserting and deleting characters, lines and columns, and rectangular areas.

#include <algorithm>
#include <cstdio>

#include "Termkit/engine/Terminal.h"

namespace termkit {

namespace {

// Selective erase removes characters but keeps each cell's attribute.
void selectiveErase(BufferLine& line, int start, int end) {
    CharData* cells = line.cells();
    for (int c = std::max(start, 0); c < std::min(end, line.count()); ++c) {
        cells[c].code = 0;
        cells[c].width = 1;
        cells[c].payload = 0;
    }
    line.touch();
}

} // namespace

void Terminal::eraseInRow(int row, int start, int end, bool clearWrap) {
    Buffer& b = *m_buffer;
    BufferLine& line = b.lines[b.yBase + row];
    line.replaceCells(start, end, CharData::Null.withAttribute(b.eraseAttr));
    if (clearWrap)
        line.isWrapped = false;
    b.markRows(row, row);
}

void Terminal::resetBufferLine(int row) {
    Buffer& b = *m_buffer;
    BufferLine& line = b.lines[b.yBase + row];
    line.clear(b.eraseAttr);
    line.bidiState = currentBidiState;
    line.destroySemanticState();
    line.clearImages();
    b.markRows(row, row);
}

void Terminal::cmdEraseInDisplay(const CsiParameters& pars, bool selective) {
    Buffer& b = *m_buffer;
    // In the pending-wrap column the character just written stays: erasing starts after it.
    const int x = std::min(b.x, b.cols());
    auto eraseRange = [&](int row, int start, int end, bool clearWrap) {
        if (selective) {
            selectiveErase(b.lines[b.yBase + row], start, end);
            b.markRows(row, row);
        } else {
            eraseInRow(row, start, end, clearWrap);
        }
    };
    auto eraseRow = [&](int row) {
        if (selective) {
            eraseRange(row, 0, b.cols(), false);
        } else {
            resetBufferLine(row);
        }
    };
    switch (pars.at(0)) {
    case 0:
        eraseRange(b.y, x, b.cols(), x == 0);
        for (int row = b.y + 1; row < b.rows(); ++row)
            eraseRow(row);
        break;
    case 1:
        for (int row = 0; row < b.y; ++row)
            eraseRow(row);
        eraseRange(b.y, 0, x + 1, false);
        if (x + 1 >= b.cols() && b.y + 1 < b.rows())
            b.lines[b.yBase + b.y + 1].isWrapped = false;
        break;
    case 2:
        for (int row = 0; row < b.rows(); ++row)
            eraseRow(row);
        break;
    case 3:
        if (!selective)
            clearScrollback();
        break;
    default:
        break;
    }
}

void Terminal::cmdEraseInLine(const CsiParameters& pars, bool selective) {
    Buffer& b = *m_buffer;
    const int x = std::min(b.x, b.cols());
    int start = 0;
    int end = b.cols();
    bool clearWrap = false;
    switch (pars.at(0)) {
    case 0:
        start = x;
        clearWrap = x == 0;
        break;
    case 1:
        end = x + 1;
        break;
    case 2:
        clearWrap = true;
        break;
    default:
        return;
    }
    if (selective) {
        selectiveErase(b.lines[b.yBase + b.y], start, end);
        b.markRows(b.y, b.y);
    } else {
        eraseInRow(b.y, start, end, clearWrap);
    }
}

void Terminal::cmdInsertChars(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    const int x = std::min(b.x, b.cols() - 1);
    if (marginMode && (x < b.marginLeft || x > b.marginRight))
        return;
    const int right = marginMode ? b.marginRight : b.cols() - 1;
    b.lines[b.yBase + b.y].insertCells(x, pars.atLeast1(0), right, CharData::Null.withAttribute(b.eraseAttr));
    b.markRows(b.y, b.y);
}

void Terminal::cmdDeleteChars(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    const int x = std::min(b.x, b.cols() - 1);
    if (marginMode && (x < b.marginLeft || x > b.marginRight))
        return;
    const int right = marginMode ? b.marginRight : b.cols() - 1;
    b.lines[b.yBase + b.y].deleteCells(x, pars.atLeast1(0), right, CharData::Null.withAttribute(b.eraseAttr));
    b.markRows(b.y, b.y);
}

void Terminal::cmdEraseChars(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    const int x = std::min(b.x, b.cols() - 1);
    eraseInRow(b.y, x, x + pars.atLeast1(0), false);
}

void Terminal::cmdInsertLines(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    restrictCursor();
    if (b.y < b.scrollTop || b.y > b.scrollBottom)
        return;
    if (marginMode && (b.x < b.marginLeft || b.x > b.marginRight))
        return;
    const int n = std::min(pars.atLeast1(0), b.scrollBottom - b.y + 1);
    const bool columns = marginMode && (b.marginLeft != 0 || b.marginRight != b.cols() - 1);
    for (int k = 0; k < n; ++k) {
        if (columns) {
            // Only the cells between the margins move.
            for (int row = b.scrollBottom; row > b.y; --row) {
                b.lines[b.yBase + row].copyFrom(b.lines[b.yBase + row - 1], b.marginLeft, b.marginLeft,
                                                b.marginRight - b.marginLeft + 1);
            }
            b.lines[b.yBase + b.y].replaceCells(b.marginLeft, b.marginRight + 1,
                                                CharData::Null.withAttribute(b.eraseAttr));
        } else {
            b.lines.rotate(b.yBase + b.scrollBottom, b.yBase + b.y);
            resetBufferLine(b.y);
        }
    }
    b.markRows(b.y, b.scrollBottom);
    b.x = marginMode ? b.marginLeft : 0;
}

void Terminal::cmdDeleteLines(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    restrictCursor();
    if (b.y < b.scrollTop || b.y > b.scrollBottom)
        return;
    if (marginMode && (b.x < b.marginLeft || b.x > b.marginRight))
        return;
    const int n = std::min(pars.atLeast1(0), b.scrollBottom - b.y + 1);
    const bool columns = marginMode && (b.marginLeft != 0 || b.marginRight != b.cols() - 1);
    for (int k = 0; k < n; ++k) {
        if (columns) {
            for (int row = b.y; row < b.scrollBottom; ++row) {
                b.lines[b.yBase + row].copyFrom(b.lines[b.yBase + row + 1], b.marginLeft, b.marginLeft,
                                                b.marginRight - b.marginLeft + 1);
            }
            b.lines[b.yBase + b.scrollBottom].replaceCells(b.marginLeft, b.marginRight + 1,
                                                           CharData::Null.withAttribute(b.eraseAttr));
        } else {
            b.lines.rotate(b.yBase + b.y, b.yBase + b.scrollBottom);
            resetBufferLine(b.scrollBottom);
        }
    }
    b.markRows(b.y, b.scrollBottom);
    b.x = marginMode ? b.marginLeft : 0;
}

void Terminal::scrollDownOne() {
    Buffer& b = *m_buffer;
    const bool columns = marginMode && (b.marginLeft != 0 || b.marginRight != b.cols() - 1);
    if (columns) {
        for (int row = b.scrollBottom; row > b.scrollTop; --row) {
            b.lines[b.yBase + row].copyFrom(b.lines[b.yBase + row - 1], b.marginLeft, b.marginLeft,
                                            b.marginRight - b.marginLeft + 1);
        }
        b.lines[b.yBase + b.scrollTop].replaceCells(b.marginLeft, b.marginRight + 1,
                                                    CharData::Null.withAttribute(b.eraseAttr));
    } else {
        b.lines.rotate(b.yBase + b.scrollBottom, b.yBase + b.scrollTop);
        resetBufferLine(b.scrollTop);
    }
    b.markRows(b.scrollTop, b.scrollBottom);
}

void Terminal::cmdScrollUp(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    const int n = std::min(pars.atLeast1(0), b.scrollBottom - b.scrollTop + 1);
    const bool columns = marginMode && (b.marginLeft != 0 || b.marginRight != b.cols() - 1);
    for (int k = 0; k < n; ++k) {
        if (columns) {
            for (int row = b.scrollTop; row < b.scrollBottom; ++row) {
                b.lines[b.yBase + row].copyFrom(b.lines[b.yBase + row + 1], b.marginLeft, b.marginLeft,
                                                b.marginRight - b.marginLeft + 1);
            }
            b.lines[b.yBase + b.scrollBottom].replaceCells(b.marginLeft, b.marginRight + 1,
                                                           CharData::Null.withAttribute(b.eraseAttr));
        } else {
            b.lines.rotate(b.yBase + b.scrollTop, b.yBase + b.scrollBottom);
            resetBufferLine(b.scrollBottom);
        }
    }
    b.markRows(b.scrollTop, b.scrollBottom);
}

void Terminal::cmdScrollDown(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    const int n = std::min(pars.atLeast1(0), b.scrollBottom - b.scrollTop + 1);
    for (int k = 0; k < n; ++k)
        scrollDownOne();
}

void Terminal::columnScroll(bool back, int count) {
    Buffer& b = *m_buffer;
    const int left = marginMode ? b.marginLeft : 0;
    const int right = marginMode ? b.marginRight : b.cols() - 1;
    const CharData blank = CharData::Null.withAttribute(b.eraseAttr);
    for (int row = b.scrollTop; row <= b.scrollBottom; ++row) {
        BufferLine& line = b.lines[b.yBase + row];
        if (back) {
            line.insertCells(left, count, right, blank);
        } else {
            line.deleteCells(left, count, right, blank);
        }
    }
    b.markRows(b.scrollTop, b.scrollBottom);
}

void Terminal::cmdInsertColumns(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    restrictCursor();
    if (b.y < b.scrollTop || b.y > b.scrollBottom)
        return;
    const int right = marginMode ? b.marginRight : b.cols() - 1;
    if (marginMode && (b.x < b.marginLeft || b.x > b.marginRight))
        return;
    const CharData blank = CharData::Null.withAttribute(b.eraseAttr);
    for (int row = b.scrollTop; row <= b.scrollBottom; ++row) {
        b.lines[b.yBase + row].insertCells(b.x, pars.atLeast1(0), right, blank);
    }
    b.markRows(b.scrollTop, b.scrollBottom);
}

void Terminal::cmdDeleteColumns(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    restrictCursor();
    if (b.y < b.scrollTop || b.y > b.scrollBottom)
        return;
    const int right = marginMode ? b.marginRight : b.cols() - 1;
    if (marginMode && (b.x < b.marginLeft || b.x > b.marginRight))
        return;
    const CharData blank = CharData::Null.withAttribute(b.eraseAttr);
    for (int row = b.scrollTop; row <= b.scrollBottom; ++row) {
        b.lines[b.yBase + row].deleteCells(b.x, pars.atLeast1(0), right, blank);
    }
    b.markRows(b.scrollTop, b.scrollBottom);
}

void Terminal::cmdRepeatPrecedingCharacter(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    const uint16_t payload = activeHyperlink ? resolveActiveHyperlink() : 0;
    b.markRows(b.y, b.y);
    const int n = std::min(pars.atLeast1(0), b.cols() * b.rows());
    for (int i = 0; i < n; ++i)
        b.insertCharacter(m_lastCode, m_lastWidth, payload);
    b.markRows(b.y, b.y);
}

void Terminal::cmdScreenAlignmentPattern() {
    Buffer& b = *m_buffer;
    CharData e;
    e.code = 'E';
    for (int row = 0; row < b.rows(); ++row) {
        BufferLine& line = b.lines[b.yBase + row];
        line.fill(e);
        line.isWrapped = false;
    }
    b.scrollTop = 0;
    b.scrollBottom = b.rows() - 1;
    b.marginLeft = 0;
    b.marginRight = b.cols() - 1;
    b.x = 0;
    b.y = 0;
    updateFullScreen();
}

void Terminal::cmdSetScrollRegion(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    const int top = pars.atLeast1(0) - 1;
    const int bottom = std::min(pars.atLeast1(1, b.rows()), b.rows()) - 1;
    if (top >= bottom)
        return;
    b.scrollTop = top;
    b.scrollBottom = bottom;
    setCursor(0, 0);
}

void Terminal::cmdSetMargins(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    const int left = pars.atLeast1(0) - 1;
    const int right = std::min(pars.atLeast1(1, b.cols()), b.cols()) - 1;
    if (left >= right)
        return;
    b.marginLeft = left;
    b.marginRight = right;
    setCursor(0, 0);
}

void Terminal::cmdTabClear(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    switch (pars.at(0)) {
    case 0:
        b.tabClear(std::min(b.x, b.cols() - 1));
        break;
    case 3:
        b.clearTabStops();
        break;
    default:
        break;
    }
}

void Terminal::setRenderMode(BufferLine::RenderLineMode mode) {
    Buffer& b = *m_buffer;
    BufferLine& line = b.lines[b.yBase + b.y];
    line.renderMode = mode;
    line.touch();
    b.markRows(b.y, b.y);
}

// --- Rectangular areas --------------------------------------------------------------------------

std::optional<Terminal::Rect> Terminal::rectangle(const CsiParameters& pars, int first) const {
    const Buffer& b = *m_buffer;
    const int rowOffset = originMode ? b.scrollTop : 0;
    const int colOffset = originMode && marginMode ? b.marginLeft : 0;
    Rect r{};
    r.top = pars.atLeast1(first) - 1 + rowOffset;
    r.left = pars.atLeast1(first + 1) - 1 + colOffset;
    r.bottom = (pars.at(first + 2) == 0 ? b.rows() : pars.at(first + 2) + rowOffset) - 1;
    r.right = (pars.at(first + 3) == 0 ? b.cols() : pars.at(first + 3) + colOffset) - 1;
    r.bottom = std::min(r.bottom, b.rows() - 1);
    r.right = std::min(r.right, b.cols() - 1);
    if (r.top > r.bottom || r.left > r.right)
        return std::nullopt;
    return r;
}

void Terminal::csiCopyRectangularArea(const CsiParameters& pars) {
    const auto source = rectangle(pars, 0);
    if (!source)
        return;
    Buffer& b = *m_buffer;
    const int rowOffset = originMode ? b.scrollTop : 0;
    const int colOffset = originMode && marginMode ? b.marginLeft : 0;
    const int dstTop = pars.atLeast1(5) - 1 + rowOffset;
    const int dstLeft = pars.atLeast1(6) - 1 + colOffset;
    const int height = std::min(source->bottom - source->top + 1, b.rows() - dstTop);
    const int width = std::min(source->right - source->left + 1, b.cols() - dstLeft);
    if (height <= 0 || width <= 0)
        return;
    // Copy through a scratch area so that overlapping rectangles read the original cells.
    std::vector<CharData> copy(static_cast<size_t>(height) * width);
    for (int r = 0; r < height; ++r) {
        const CharData* cells = b.lines[b.yBase + source->top + r].cells();
        std::copy(cells + source->left, cells + source->left + width, copy.begin() + r * width);
    }
    for (int r = 0; r < height; ++r) {
        BufferLine& line = b.lines[b.yBase + dstTop + r];
        std::copy(copy.begin() + r * width, copy.begin() + (r + 1) * width, line.cells() + dstLeft);
        line.touch();
    }
    b.markRows(dstTop, dstTop + height - 1);
}

void Terminal::cmdFillRectangularArea(const CsiParameters& pars) {
    const int ch = pars.at(0);
    // Only graphic characters may fill an area.
    if (!((ch >= 32 && ch <= 126) || (ch >= 160 && ch <= 255)))
        return;
    const auto r = rectangle(pars, 1);
    if (!r)
        return;
    Buffer& b = *m_buffer;
    const CharData cell{m_tables->characters.code(static_cast<char32_t>(ch)), b.curAttr, 0, 1,
                        b.semanticContent};
    for (int row = r->top; row <= r->bottom; ++row)
        b.lines[b.yBase + row].replaceCells(r->left, r->right + 1, cell);
    b.markRows(r->top, r->bottom);
}

void Terminal::cmdDECERA(const CsiParameters& pars) {
    const auto r = rectangle(pars, 0);
    if (!r)
        return;
    Buffer& b = *m_buffer;
    for (int row = r->top; row <= r->bottom; ++row) {
        b.lines[b.yBase + row].replaceCells(r->left, r->right + 1, CharData::Null.withAttribute(b.eraseAttr));
    }
    b.markRows(r->top, r->bottom);
}

void Terminal::cmdSelectiveEraseRectangularArea(const CsiParameters& pars) {
    const auto r = rectangle(pars, 0);
    if (!r)
        return;
    Buffer& b = *m_buffer;
    for (int row = r->top; row <= r->bottom; ++row)
        selectiveErase(b.lines[b.yBase + row], r->left, r->right + 1);
    b.markRows(r->top, r->bottom);
}

void Terminal::cmdDECRQCRA(const CsiParameters& pars) {
    const int id = pars.at(0);
    const auto r = rectangle(pars, 2);
    unsigned sum = 0;
    if (r) {
        Buffer& b = *m_buffer;
        for (int row = r->top; row <= r->bottom; ++row) {
            const CharData* cells = b.lines[b.yBase + row].cells();
            for (int col = r->left; col <= r->right; ++col) {
                // Empty cells count as spaces; clusters count by their table code's low bits.
                const int32_t code = cells[col].code == 0 ? 0x20 : cells[col].code;
                sum += static_cast<unsigned>(code);
            }
        }
    }
    char hex[8];
    std::snprintf(hex, sizeof hex, "%04X", (0x10000u - (sum & 0xFFFFu)) & 0xFFFFu);
    const std::string reply = dcs() + std::to_string(id) + "!~" + hex + st();
    sendResponse({std::string_view(reply)});
}

} // namespace termkit
