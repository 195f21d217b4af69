#include "Termkit/buffer/Buffer.h"

#include <algorithm>
#include <string>

#include "Termkit/buffer/CellFill.h"
#include "Termkit/buffer/Invariant.h"

namespace termkit {

namespace {

int cappedLength(long long length) {
    return static_cast<int>(std::min<long long>(length, Buffer::kMaxLines));
}

} // namespace

Buffer::Buffer(int cols, int rows, int tabStopWidth, std::optional<int> scrollbackLines,
               BidiPresentationState bidiState, std::shared_ptr<CellTables> cellTables, bool withScrollback)
    : lines(withScrollback ? cappedLength(static_cast<long long>(rows) + scrollbackLines.value_or(0)) : rows),
      scrollBottom(rows - 1), marginRight(cols - 1), hasScrollback(withScrollback),
      scrollback(scrollbackLines), defaultBidiState(bidiState),
      tables(cellTables ? std::move(cellTables) : std::make_shared<CellTables>()), updates(&m_ownUpdates),
      m_cols(cols), m_rows(rows), m_tabStopWidth(std::max(tabStopWidth, 1)) {
    setupLinesCallbacks();
    setupTabStops();
    fillViewportRows();
}

void Buffer::setupLinesCallbacks() {
    lines.makeEmpty = [this] { return getBlankLine(AttributeTable::kEmpty); };
    lines.onLineAttached = [this](BufferLine& line) { line.owningBuffer = this; };
    lines.onLinePushed = [this](BufferLine&) { ++linesWithImagesCount; };
    lines.onLineRecycled = [this](bool hadImages) {
        if (hadImages)
            --linesWithImagesCount;
    };
    lines.onLineRemoved = [this](BufferLine& line) {
        if (line.hasImages())
            --linesWithImagesCount;
    };
}

std::unique_ptr<BufferLine> Buffer::getBlankLine(AttributeId attribute, bool isWrapped) const {
    return std::make_unique<BufferLine>(m_cols, CharData::Null.withAttribute(attribute), isWrapped,
                                        defaultBidiState);
}

void Buffer::fillViewportRows() {
    if (lines.count() != 0)
        return;
    for (int i = 0; i < m_rows; ++i)
        lines.push(nullptr);
}

void Buffer::clear() {
    yDisp = 0;
    yBase = 0;
    xDisp = 0;
    xBase = 0;
    x = 0;
    y = 0;
    linesTop = 0;
    lines.trimStart(lines.count());
    lines.setMaxLength(hasScrollback ? cappedLength(static_cast<long long>(m_rows) + scrollback.value_or(0))
                                     : m_rows);
    linesWithImagesCount = 0;
    scrollTop = 0;
    scrollBottom = m_rows - 1;
    marginLeft = 0;
    marginRight = m_cols - 1;
    setupTabStops();
    fillViewportRows();
}

void Buffer::softReset() {
    scrollTop = 0;
    scrollBottom = m_rows - 1;
    marginLeft = 0;
    marginRight = m_cols - 1;
    savedX = 0;
    savedY = 0;
    savedAttr = kEmptyAttribute;
    savedCharset = nullptr;
    savedOriginMode = false;
    savedMarginMode = false;
    savedWraparound = true;
    savedReverseWraparound = false;
}

void Buffer::clearScrollback() {
    if (yBase == 0)
        return;
    const int dropped = yBase;
    lines.trimStart(dropped);
    linesTop += dropped;
    yBase = 0;
    yDisp = 0;
    if (observer)
        observer->bufferScrolled(yDisp);
}

void Buffer::changeHistorySize(std::optional<int> newScrollback) {
    scrollback = newScrollback;
    if (!hasScrollback)
        return;
    const int newLength = cappedLength(static_cast<long long>(m_rows) + scrollback.value_or(0));
    if (newLength < lines.maxLength()) {
        const int drop = lines.count() - newLength;
        if (drop > 0) {
            lines.trimStart(drop);
            linesTop += drop;
            yBase = std::max(yBase - drop, 0);
            yDisp = std::max(yDisp - drop, 0);
        }
    }
    lines.setMaxLength(newLength);
}

// --- Tab stops ----------------------------------------------------------------------------

void Buffer::setupTabStops(int index) {
    int i = 0;
    if (index >= 0) {
        tabStops.resize(static_cast<size_t>(m_cols), 0);
        i = std::min(index, m_cols - 1);
        if (i >= 0 && !tabStops[i])
            i = previousTabStop(i);
    } else {
        tabStops.assign(static_cast<size_t>(m_cols), 0);
    }
    for (; i >= 0 && i < m_cols; i += m_tabStopWidth)
        tabStops[i] = 1;
}

void Buffer::tabSet(int pos) {
    if (pos >= 0 && pos < static_cast<int>(tabStops.size()))
        tabStops[pos] = 1;
}

void Buffer::tabClear(int pos) {
    if (pos >= 0 && pos < static_cast<int>(tabStops.size()))
        tabStops[pos] = 0;
}

void Buffer::clearTabStops() {
    std::fill(tabStops.begin(), tabStops.end(), 0);
}

int Buffer::nextTabStop(int index, bool marginModeOn) const {
    const int limit = marginModeOn && index <= marginRight ? marginRight : m_cols - 1;
    int i = index + 1;
    while (i < limit && !tabStops[i])
        ++i;
    return std::clamp(i, 0, limit);
}

int Buffer::previousTabStop(int index) const {
    int i = std::min(index, m_cols) - 1;
    while (i > 0 && !tabStops[i])
        --i;
    return std::max(i, 0);
}

// --- Scrolling ------------------------------------------------------------------------------

void Buffer::scrollWithMargins(bool isWrapped) {
    // With left and right margins only the cells inside them move; the lines stay put.
    const int top = yBase + scrollTop;
    const int bottom = yBase + scrollBottom;
    const int width = marginRight - marginLeft + 1;
    for (int row = top; row < bottom; ++row) {
        lines[row].copyFrom(lines[row + 1], marginLeft, marginLeft, width);
    }
    BufferLine& last = lines[bottom];
    last.replaceCells(marginLeft, marginRight + 1, CharData::Null.withAttribute(eraseAttr));
    last.isWrapped = isWrapped && last.isWrapped;
    markRows(scrollTop, scrollBottom);
}

void Buffer::scroll(bool isWrapped) {
    if (marginMode && (marginLeft != 0 || marginRight != m_cols - 1)) {
        scrollWithMargins(isWrapped);
        return;
    }
    const int top = yBase + scrollTop;
    const int bottom = yBase + scrollBottom;
    const int oldYDisp = yDisp;
    const bool userHolds = observer != nullptr && observer->isUserScrolling();
    const BidiPresentationState bidi = isWrapped && bottom < lines.count() && lines.peek(bottom)
                                           ? lines.peek(bottom)->bidiState
                                           : defaultBidiState;
    TERMKIT_INVARIANT(top >= 0 && bottom < lines.count() && top <= bottom,
                      "Assertion on scroll, state was: bottomRow=" + std::to_string(bottom) +
                          " topRow=" + std::to_string(top) + " yBase=" + std::to_string(yBase) +
                          " lines.count=" + std::to_string(lines.count()) +
                          " rows=" + std::to_string(m_rows));
    if (scrollTop == 0) {
        if (lines.isFull()) {
            // The oldest line is reused as the new bottom line: nothing is allocated, `yBase`
            // stays, and the line numbers shift, which `linesTop` records.
            BufferLine& fresh = lines.recycle(eraseAttr);
            fresh.isWrapped = isWrapped;
            fresh.bidiState = bidi;
            if (bottom != lines.count() - 1)
                lines.rotate(lines.count() - 1, bottom);
            ++linesTop;
            if (userHolds)
                yDisp = std::max(yDisp - 1, 0);
            if (observer)
                observer->bufferScrolledInPlace();
        } else {
            auto fresh = eraseAttr == AttributeTable::kEmpty && !isWrapped && bidi == defaultBidiState
                             ? nullptr
                             : getBlankLine(eraseAttr, isWrapped);
            if (fresh)
                fresh->bidiState = bidi;
            if (bottom == lines.count() - 1) {
                lines.push(std::move(fresh));
            } else {
                std::vector<CircularBufferLineList::LinePtr> items;
                items.push_back(std::move(fresh));
                lines.splice(bottom + 1, 0, std::move(items));
            }
            ++yBase;
            if (!userHolds)
                ++yDisp;
        }
    } else {
        // A region below the top: the row leaving it is not history, so its line object is
        // reused as the region's new bottom row.
        lines.rotate(top, bottom);
        BufferLine& fresh = lines[bottom];
        fresh.clear(eraseAttr);
        fresh.destroySemanticState();
        fresh.isWrapped = isWrapped;
        fresh.bidiState = bidi;
    }
    markRows(scrollTop, scrollBottom);
    if (yDisp != oldYDisp && observer)
        observer->bufferScrolled(yDisp);
}

// --- Printing ---------------------------------------------------------------------------------

void Buffer::wrapToNextRow() {
    x = marginMode ? marginLeft : 0;
    if (y == scrollBottom) {
        scroll(true);
        return;
    }
    const int previous = y;
    if (y < m_rows - 1)
        ++y;
    BufferLine& next = lines[yBase + y];
    next.isWrapped = true;
    if (y != previous)
        next.bidiState = lines[yBase + previous].bidiState;
    markRows(y, y);
}

void Buffer::insertCharacter(int32_t code, int width, uint16_t payload) {
    const int right = marginMode ? marginRight : m_cols - 1;
    if (x + width - 1 > right) {
        if (wraparound) {
            wrapToNextRow();
        } else {
            // Without wraparound a wide character has nowhere to go; others overwrite the edge.
            if (width == 2)
                return;
            x = right;
        }
    }
    BufferLine& line = lines[yBase + y];
    if (insertMode) {
        line.insertCells(x, width, right, CharData::Null.withAttribute(curAttr));
        // An insert that pushed a left half to the edge would leave half a character.
        CharData* shifted = line.cellsForWrite(right + 1);
        if (shifted[right].width == 2)
            shifted[right] = CharData::Null.withAttribute(curAttr);
    }
    if (x >= m_cols)
        x = m_cols - 1;
    CharData* cells = line.cellsForWrite(std::min(x + width, m_cols));
    cells[x] = CharData{code, curAttr, payload, static_cast<int8_t>(width), semanticContent};
    ++x;
    for (int i = 1; i < width && x < m_cols; ++i) {
        cells[x] = CharData{0, curAttr, payload, 0, semanticContent};
        ++x;
    }
    line.touch();
}

int Buffer::insertAsciiRun(const uint8_t* data, int count, uint16_t payload) {
    if (insertMode)
        return 0;
    const int right = marginMode ? marginRight : m_cols - 1;
    const CharData proto{0, curAttr, payload, 1, semanticContent};
    int taken = 0;
    while (taken < count) {
        if (x > right) {
            if (!wraparound) {
                // Every further byte lands on the edge; only the last one stays.
                x = right;
                BufferLine& line = lines[yBase + y];
                CharData cell = proto;
                cell.code = data[count - 1];
                line.cellsForWrite(x + 1)[x] = cell;
                line.touch();
                x = right + 1;
                return count;
            }
            wrapToNextRow();
        }
        BufferLine& line = lines[yBase + y];
        const int n = std::min(right - x + 1, count - taken);
        CharData* cells = line.cellsForWrite(x + n) + x;
        const uint8_t* src = data + taken;
        writeAsciiCells(cells, src, n, proto);
        line.touch();
        x += n;
        taken += n;
    }
    return taken;
}

// --- Images and attributes ------------------------------------------------------------------

void Buffer::attachImage(TerminalImage image, LineIndex toLineAt) {
    BufferLine& target = lines[toLineAt.value];
    if (!target.hasImages())
        ++linesWithImagesCount;
    target.attach(std::move(image));
}

void Buffer::recalculateImageCount() {
    int n = 0;
    for (int i = 0; i < lines.count(); ++i) {
        const BufferLine* line = lines.peek(i);
        if (line && line->hasImages())
            ++n;
    }
    linesWithImagesCount = n;
}

void Buffer::markAttributes(const std::function<void(AttributeId)>& mark) const {
    mark(curAttr);
    mark(eraseAttr);
    for (int i = 0; i < lines.count(); ++i) {
        const BufferLine* line = lines.peek(i);
        if (!line)
            continue;
        mark(line->fillCharacter.attribute);
        const CharData* cells = line->cells();
        AttributeId last = AttributeTable::kEmpty;
        for (int c = 0; c < line->count(); ++c) {
            if (cells[c].attribute != last) {
                last = cells[c].attribute;
                mark(last);
            }
        }
    }
}

} // namespace termkit
