// Erasing, inserting and deleting characters, lines and columns, and rectangular areas.

#include <algorithm>
#include <cstdio>

#include "Termkit/engine/Terminal.h"

namespace termkit {

namespace {

// Selective erase removes characters but keeps each cell's attribute.
void selectiveErase(BufferLine& line, Col start, Col end) {
    CharData* cells = line.cells();
    for (int c = std::max(start.value, 0); c < std::min(end.value, line.count()); ++c) {
        cells[c].code = 0;
        cells[c].width = 1;
        cells[c].payload = 0;
    }
    line.touch();
}

} // namespace

bool Terminal::marginsNarrowed() const {
    const Buffer& b = *m_buffer;
    return m_modes.marginMode && (b.marginLeft() != Col(0) || b.marginRight() != b.lastCol());
}

void Terminal::copyBetweenMargins(ScreenRow from, ScreenRow to) {
    Buffer& b = *m_buffer;
    const Col left = b.marginLeft();
    b.screenLine(to).copyFrom(b.screenLine(from), left.value, left.value, b.marginRight() - left + 1);
}

void Terminal::eraseBetweenMargins(ScreenRow row) {
    Buffer& b = *m_buffer;
    b.screenLine(row).replaceCells(b.marginLeft().value, b.marginRight().value + 1,
                                   CharData::Null.withAttribute(m_modes.eraseAttr));
}

void Terminal::eraseInRow(ScreenRow row, Col start, Col end, bool clearWrap) {
    Buffer& b = *m_buffer;
    BufferLine& line = b.screenLine(row);
    line.replaceCells(start.value, end.value, CharData::Null.withAttribute(m_modes.eraseAttr));
    if (clearWrap)
        line.setWrapped(false);
    b.markRow(row);
}

void Terminal::resetBufferLine(ScreenRow row) {
    Buffer& b = *m_buffer;
    BufferLine& line = b.screenLine(row);
    line.clear(m_modes.eraseAttr);
    line.setBidiState(currentBidiState());
    line.destroySemanticState();
    line.clearImages();
    b.markRow(row);
}

void Terminal::cmdEraseInDisplay(const CsiParameters& pars, bool selective) {
    Buffer& b = *m_buffer;
    // In the pending-wrap column the character just written stays: erasing starts after it.
    const Col x = std::min(b.x(), Col(b.cols()));
    const Col end(b.cols());
    auto eraseRange = [&](ScreenRow row, Col start, Col stop, bool clearWrap) {
        if (selective) {
            selectiveErase(b.screenLine(row), start, stop);
            b.markRow(row);
        } else {
            eraseInRow(row, start, stop, clearWrap);
        }
    };
    auto eraseRow = [&](ScreenRow row) {
        if (selective) {
            eraseRange(row, Col(0), end, false);
        } else {
            resetBufferLine(row);
        }
    };
    switch (pars.at(0)) {
    case 0:
        eraseRange(b.y(), x, end, x == Col(0));
        for (ScreenRow row = b.y() + 1; row <= b.lastRow(); ++row)
            eraseRow(row);
        break;
    case 1:
        for (ScreenRow row(0); row < b.y(); ++row)
            eraseRow(row);
        eraseRange(b.y(), Col(0), x + 1, false);
        if (x + 1 >= end && b.y() < b.lastRow())
            b.screenLine(b.y() + 1).setWrapped(false);
        break;
    case 2:
        for (ScreenRow row(0); row <= b.lastRow(); ++row)
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
    const Col x = std::min(b.x(), Col(b.cols()));
    Col start(0);
    Col end(b.cols());
    bool clearWrap = false;
    switch (pars.at(0)) {
    case 0:
        start = x;
        clearWrap = x == Col(0);
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
        selectiveErase(b.screenLine(b.y()), start, end);
        b.markRow(b.y());
    } else {
        eraseInRow(b.y(), start, end, clearWrap);
    }
}

void Terminal::cmdInsertChars(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    const Col x = cursorCol();
    if (m_modes.marginMode && (x < b.marginLeft() || x > b.marginRight()))
        return;
    b.screenLine(b.y()).insertCells(x.value, pars.atLeast1(0), rightLimit().value,
                                    CharData::Null.withAttribute(m_modes.eraseAttr));
    b.markRow(b.y());
}

void Terminal::cmdDeleteChars(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    const Col x = cursorCol();
    if (m_modes.marginMode && (x < b.marginLeft() || x > b.marginRight()))
        return;
    b.screenLine(b.y()).deleteCells(x.value, pars.atLeast1(0), rightLimit().value,
                                    CharData::Null.withAttribute(m_modes.eraseAttr));
    b.markRow(b.y());
}

void Terminal::cmdEraseChars(const CsiParameters& pars) {
    const Col x = cursorCol();
    eraseInRow(m_buffer->y(), x, x + pars.atLeast1(0), false);
}

void Terminal::cmdInsertLines(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    restrictCursor();
    if (b.y() < b.scrollTop() || b.y() > b.scrollBottom())
        return;
    if (m_modes.marginMode && (b.x() < b.marginLeft() || b.x() > b.marginRight()))
        return;
    const int n = std::min(pars.atLeast1(0), b.scrollBottom() - b.y() + 1);
    const bool columns = marginsNarrowed();
    b.hardenBidiLineShiftBoundaries(b.y());
    for (int k = 0; k < n; ++k) {
        if (columns) {
            // Only the cells between the margins move.
            for (ScreenRow row = b.scrollBottom(); row > b.y(); --row)
                copyBetweenMargins(row - 1, row);
            eraseBetweenMargins(b.y());
        } else {
            b.rotateLines(b.lineIndex(b.scrollBottom()), b.lineIndex(b.y()));
            resetBufferLine(b.y());
        }
    }
    b.hardenBidiLineShiftBoundaries(b.y());
    b.markRows(b.y(), b.scrollBottom());
    b.setX(leftLimit());
}

void Terminal::cmdDeleteLines(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    restrictCursor();
    if (b.y() < b.scrollTop() || b.y() > b.scrollBottom())
        return;
    if (m_modes.marginMode && (b.x() < b.marginLeft() || b.x() > b.marginRight()))
        return;
    const int n = std::min(pars.atLeast1(0), b.scrollBottom() - b.y() + 1);
    const bool columns = marginsNarrowed();
    b.hardenBidiLineShiftBoundaries(b.y());
    for (int k = 0; k < n; ++k) {
        if (columns) {
            for (ScreenRow row = b.y(); row < b.scrollBottom(); ++row)
                copyBetweenMargins(row + 1, row);
            eraseBetweenMargins(b.scrollBottom());
        } else {
            b.rotateLines(b.lineIndex(b.y()), b.lineIndex(b.scrollBottom()));
            resetBufferLine(b.scrollBottom());
        }
    }
    b.hardenBidiLineShiftBoundaries(b.y());
    b.markRows(b.y(), b.scrollBottom());
    b.setX(leftLimit());
}

void Terminal::scrollDownOne() {
    Buffer& b = *m_buffer;
    b.hardenBidiScrollBoundaries();
    if (marginsNarrowed()) {
        for (ScreenRow row = b.scrollBottom(); row > b.scrollTop(); --row)
            copyBetweenMargins(row - 1, row);
        eraseBetweenMargins(b.scrollTop());
    } else {
        b.rotateLines(b.lineIndex(b.scrollBottom()), b.lineIndex(b.scrollTop()));
        resetBufferLine(b.scrollTop());
    }
    b.hardenBidiScrollBoundaries();
    b.markRows(b.scrollTop(), b.scrollBottom());
}

void Terminal::cmdScrollUp(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    const int n = std::min(pars.atLeast1(0), b.scrollBottom() - b.scrollTop() + 1);
    const bool columns = marginsNarrowed();
    b.hardenBidiScrollBoundaries();
    for (int k = 0; k < n; ++k) {
        if (columns) {
            for (ScreenRow row = b.scrollTop(); row < b.scrollBottom(); ++row)
                copyBetweenMargins(row + 1, row);
            eraseBetweenMargins(b.scrollBottom());
        } else {
            b.rotateLines(b.lineIndex(b.scrollTop()), b.lineIndex(b.scrollBottom()));
            resetBufferLine(b.scrollBottom());
        }
    }
    b.hardenBidiScrollBoundaries();
    b.markRows(b.scrollTop(), b.scrollBottom());
}

void Terminal::cmdScrollDown(const CsiParameters& pars) {
    const Buffer& b = *m_buffer;
    const int n = std::min(pars.atLeast1(0), b.scrollBottom() - b.scrollTop() + 1);
    for (int k = 0; k < n; ++k)
        scrollDownOne();
}

void Terminal::columnScroll(bool back, int count) {
    Buffer& b = *m_buffer;
    const int left = leftLimit().value;
    const int right = rightLimit().value;
    const CharData blank = CharData::Null.withAttribute(m_modes.eraseAttr);
    for (ScreenRow row = b.scrollTop(); row <= b.scrollBottom(); ++row) {
        BufferLine& line = b.screenLine(row);
        if (back) {
            line.insertCells(left, count, right, blank);
        } else {
            line.deleteCells(left, count, right, blank);
        }
    }
    b.markRows(b.scrollTop(), b.scrollBottom());
}

void Terminal::cmdInsertColumns(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    restrictCursor();
    if (b.y() < b.scrollTop() || b.y() > b.scrollBottom())
        return;
    if (m_modes.marginMode && (b.x() < b.marginLeft() || b.x() > b.marginRight()))
        return;
    const CharData blank = CharData::Null.withAttribute(m_modes.eraseAttr);
    for (ScreenRow row = b.scrollTop(); row <= b.scrollBottom(); ++row)
        b.screenLine(row).insertCells(b.x().value, pars.atLeast1(0), rightLimit().value, blank);
    b.markRows(b.scrollTop(), b.scrollBottom());
}

void Terminal::cmdDeleteColumns(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    restrictCursor();
    if (b.y() < b.scrollTop() || b.y() > b.scrollBottom())
        return;
    if (m_modes.marginMode && (b.x() < b.marginLeft() || b.x() > b.marginRight()))
        return;
    const CharData blank = CharData::Null.withAttribute(m_modes.eraseAttr);
    for (ScreenRow row = b.scrollTop(); row <= b.scrollBottom(); ++row)
        b.screenLine(row).deleteCells(b.x().value, pars.atLeast1(0), rightLimit().value, blank);
    b.markRows(b.scrollTop(), b.scrollBottom());
}

void Terminal::cmdRepeatPrecedingCharacter(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    const uint16_t payload = m_activeHyperlink ? resolveActiveHyperlink() : 0;
    b.markRow(b.y());
    const int n = std::min(pars.atLeast1(0), b.cols() * b.rows());
    for (int i = 0; i < n; ++i)
        b.insertCharacter(m_lastCode, m_lastWidth, payload);
    b.markRow(b.y());
}

void Terminal::cmdScreenAlignmentPattern() {
    Buffer& b = *m_buffer;
    CharData e;
    e.code = 'E';
    for (ScreenRow row(0); row <= b.lastRow(); ++row) {
        BufferLine& line = b.screenLine(row);
        line.fill(e);
        line.setWrapped(false);
    }
    b.resetRegionAndMargins();
    b.setCursor(Col(0), ScreenRow(0));
    updateFullScreen();
}

void Terminal::cmdSetScrollRegion(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    const ScreenRow top(pars.atLeast1(0) - 1);
    const ScreenRow bottom(std::min(pars.atLeast1(1, b.rows()), b.rows()) - 1);
    if (top >= bottom)
        return;
    b.setScrollRegion(top, bottom);
    setCursor(Col(0), ScreenRow(0));
}

void Terminal::cmdSetMargins(const CsiParameters& pars) {
    Buffer& b = *m_buffer;
    const Col left(pars.atLeast1(0) - 1);
    const Col right(std::min(pars.atLeast1(1, b.cols()), b.cols()) - 1);
    if (left >= right)
        return;
    b.setMargins(left, right);
    setCursor(Col(0), ScreenRow(0));
}

void Terminal::cmdTabClear(const CsiParameters& pars) {
    switch (pars.at(0)) {
    case 0:
        m_buffer->tabClear(cursorCol());
        break;
    case 3:
        m_buffer->clearTabStops();
        break;
    default:
        break;
    }
}

void Terminal::setRenderMode(BufferLine::RenderLineMode mode) {
    Buffer& b = *m_buffer;
    BufferLine& line = b.screenLine(b.y());
    line.setRenderMode(mode);
    line.touch();
    b.markRow(b.y());
}

// --- Rectangular areas --------------------------------------------------------------------------

std::optional<Terminal::Rect> Terminal::rectangle(const CsiParameters& pars, int first) const {
    const Buffer& b = *m_buffer;
    const int rowOffset = m_originMode ? b.scrollTop().value : 0;
    const int colOffset = m_originMode && m_modes.marginMode ? b.marginLeft().value : 0;
    Rect r{};
    r.top = ScreenRow(pars.atLeast1(first) - 1 + rowOffset);
    r.left = Col(pars.atLeast1(first + 1) - 1 + colOffset);
    r.bottom = std::min(ScreenRow((pars.at(first + 2) == 0 ? b.rows() : pars.at(first + 2) + rowOffset) - 1),
                        b.lastRow());
    r.right =
        std::min(Col((pars.at(first + 3) == 0 ? b.cols() : pars.at(first + 3) + colOffset) - 1), b.lastCol());
    if (r.top > r.bottom || r.left > r.right)
        return std::nullopt;
    return r;
}

void Terminal::csiCopyRectangularArea(const CsiParameters& pars) {
    const auto source = rectangle(pars, 0);
    if (!source)
        return;
    Buffer& b = *m_buffer;
    const int rowOffset = m_originMode ? b.scrollTop().value : 0;
    const int colOffset = m_originMode && m_modes.marginMode ? b.marginLeft().value : 0;
    const ScreenRow dstTop(pars.atLeast1(5) - 1 + rowOffset);
    const Col dstLeft(pars.atLeast1(6) - 1 + colOffset);
    const int height = std::min(source->bottom - source->top + 1, b.rows() - dstTop.value);
    const int width = std::min(source->right - source->left + 1, b.cols() - dstLeft.value);
    if (height <= 0 || width <= 0)
        return;
    // Copy through a scratch area so that overlapping rectangles read the original cells.
    std::vector<CharData> copy(static_cast<size_t>(height) * width);
    for (int r = 0; r < height; ++r) {
        const CharData* cells = std::as_const(b).screenLine(source->top + r).cells();
        std::copy(cells + source->left.value, cells + source->left.value + width, copy.begin() + r * width);
    }
    for (int r = 0; r < height; ++r) {
        BufferLine& line = b.screenLine(dstTop + r);
        std::copy(copy.begin() + r * width, copy.begin() + (r + 1) * width, line.cells() + dstLeft.value);
        line.touch();
    }
    b.markRows(dstTop, dstTop + (height - 1));
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
    const CharData cell{m_tables->characters.code(static_cast<char32_t>(ch)), m_modes.curAttr, 0, 1,
                        b.semanticContent()};
    for (ScreenRow row = r->top; row <= r->bottom; ++row)
        b.screenLine(row).replaceCells(r->left.value, r->right.value + 1, cell);
    b.markRows(r->top, r->bottom);
}

void Terminal::cmdDECERA(const CsiParameters& pars) {
    const auto r = rectangle(pars, 0);
    if (!r)
        return;
    Buffer& b = *m_buffer;
    for (ScreenRow row = r->top; row <= r->bottom; ++row) {
        b.screenLine(row).replaceCells(r->left.value, r->right.value + 1,
                                       CharData::Null.withAttribute(m_modes.eraseAttr));
    }
    b.markRows(r->top, r->bottom);
}

void Terminal::cmdSelectiveEraseRectangularArea(const CsiParameters& pars) {
    const auto r = rectangle(pars, 0);
    if (!r)
        return;
    Buffer& b = *m_buffer;
    for (ScreenRow row = r->top; row <= r->bottom; ++row)
        selectiveErase(b.screenLine(row), r->left, r->right + 1);
    b.markRows(r->top, r->bottom);
}

void Terminal::cmdDECRQCRA(const CsiParameters& pars) {
    const int id = pars.at(0);
    const auto r = rectangle(pars, 2);
    unsigned sum = 0;
    if (r) {
        const Buffer& b = *m_buffer;
        for (ScreenRow row = r->top; row <= r->bottom; ++row) {
            const CharData* cells = b.screenLine(row).cells();
            for (Col col = r->left; col <= r->right; ++col) {
                // Empty cells count as spaces; clusters count by their table code's low bits.
                const int32_t code = cells[col.value].code == 0 ? 0x20 : cells[col.value].code;
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
