#include "Termkit/buffer/Buffer.h"

#include <algorithm>
#include <string>

#include "Termkit/buffer/CellFill.h"
#include "Termkit/buffer/Invariant.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace termkit {

namespace {

int cappedLength(long long length) {
    return static_cast<int>(std::min<long long>(length, Buffer::kMaxLines));
}

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define TERMKIT_HAVE_AVX2_WRITER 1
// Eight cells are three 32-byte blocks. The eight bytes, copied into both halves of a
// register, are shuffled into place (each half shuffles within itself) and laid over the
// prototype, whose codes are zero: three shuffles, three ors and three stores per eight cells.
__attribute__((target("avx2"))) void writeAsciiCellsAvx2(CharData* dst, const uint8_t* src, int n,
                                                         cellfill::Words w) {
    const int a = static_cast<int>(w.attribute);
    const int r = static_cast<int>(w.rest);
    const __m256i t0 = _mm256_setr_epi32(0, a, r, 0, a, r, 0, a);
    const __m256i t1 = _mm256_setr_epi32(r, 0, a, r, 0, a, r, 0);
    const __m256i t2 = _mm256_setr_epi32(a, r, 0, a, r, 0, a, r);
    // Cell k's code is byte 12k of the 96: the byte index of the source per destination byte,
    // -128 for a zero.
    constexpr char z = -128;
    const __m256i m0 = _mm256_setr_epi8(0, z, z, z, z, z, z, z, z, z, z, z, 1, z, z, z, //
                                        z, z, z, z, z, z, z, z, 2, z, z, z, z, z, z, z);
    const __m256i m1 = _mm256_setr_epi8(z, z, z, z, 3, z, z, z, z, z, z, z, z, z, z, z, //
                                        4, z, z, z, z, z, z, z, z, z, z, z, 5, z, z, z);
    const __m256i m2 = _mm256_setr_epi8(z, z, z, z, z, z, z, z, 6, z, z, z, z, z, z, z, //
                                        z, z, z, z, 7, z, z, z, z, z, z, z, z, z, z, z);
    // Needs n >= 8. The last cells go as one more group that overlaps the one before: the
    // cells written twice get the same values.
    for (int i = 0;; i = std::min(i + 8, n - 8)) {
        auto* out = reinterpret_cast<__m256i*>(dst + i);
        const __m128i eight = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(src + i));
        const __m256i both = _mm256_broadcastsi128_si256(eight);
        _mm256_storeu_si256(out, _mm256_or_si256(t0, _mm256_shuffle_epi8(both, m0)));
        _mm256_storeu_si256(out + 1, _mm256_or_si256(t1, _mm256_shuffle_epi8(both, m1)));
        _mm256_storeu_si256(out + 2, _mm256_or_si256(t2, _mm256_shuffle_epi8(both, m2)));
        if (i + 8 == n)
            break;
    }
}

bool cpuHasAvx2() {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2");
}

const bool kCpuHasAvx2 = cpuHasAvx2();
#endif

// ASCII bytes as cells, with the widest writer the processor has.
inline void writeAsciiRun(CharData* dst, const uint8_t* src, int n, cellfill::Words proto) {
#ifdef TERMKIT_HAVE_AVX2_WRITER
    if (n >= 8 && kCpuHasAvx2) {
        writeAsciiCellsAvx2(dst, src, n, proto);
        return;
    }
#endif
    writeAsciiCells(dst, src, n, proto);
}

} // namespace

Buffer::Buffer(int cols, int rows, int tabStopWidth, std::optional<int> scrollbackLines,
               BidiPresentationState bidiState, std::shared_ptr<CellTables> cellTables, bool withScrollback)
    : m_lines(withScrollback ? cappedLength(static_cast<long long>(rows) + scrollbackLines.value_or(0))
                             : rows),
      m_scrollBottom(rows - 1), m_marginRight(cols - 1), m_hasScrollback(withScrollback), m_cols(cols),
      m_rows(rows), m_scrollback(scrollbackLines), m_tabStopWidth(std::max(tabStopWidth, 1)),
      m_tables(cellTables ? std::move(cellTables) : std::make_shared<CellTables>()) {
    m_ownModes.defaultBidiState = bidiState;
    setupLinesCallbacks();
    setupTabStops();
    fillViewportRows();
}

void Buffer::attach(BufferObserver* observer, UpdateRange* updates, BufferModes* modes) {
    m_observer = observer;
    m_updates = updates != nullptr ? updates : &m_ownUpdates;
    m_modes = modes != nullptr ? modes : &m_ownModes;
}

void Buffer::setupLinesCallbacks() {
    m_lines.makeEmpty = [this] { return getBlankLine(AttributeTable::kEmpty); };
    m_lines.onLineAttached = [this](BufferLine& line) { line.setOwningBuffer(this); };
    m_lines.onLinePushed = [this](BufferLine&) { ++m_linesWithImagesCount; };
    m_lines.onLineRecycled = [this](bool hadImages) {
        if (hadImages)
            --m_linesWithImagesCount;
    };
    m_lines.onLineRemoved = [this](BufferLine& line) {
        if (line.hasImages())
            --m_linesWithImagesCount;
    };
}

std::unique_ptr<BufferLine> Buffer::getBlankLine(AttributeId attribute, bool isWrapped) const {
    return std::make_unique<BufferLine>(m_cols, CharData::Null.withAttribute(attribute), isWrapped,
                                        defaultBidiState());
}

void Buffer::fillViewportRows() {
    if (m_lines.count() != 0)
        return;
    for (int i = 0; i < m_rows; ++i)
        m_lines.push(nullptr);
}

void Buffer::clear() {
    m_yDisp = LineIndex(0);
    m_yBase = LineIndex(0);
    setCursor(Col(0), ScreenRow(0));
    m_linesTop = 0;
    m_lines.trimStart(m_lines.count());
    m_lines.setMaxLength(
        m_hasScrollback ? cappedLength(static_cast<long long>(m_rows) + m_scrollback.value_or(0)) : m_rows);
    m_linesWithImagesCount = 0;
    resetRegionAndMargins();
    setupTabStops();
    fillViewportRows();
}

void Buffer::softReset() {
    resetRegionAndMargins();
    m_saved = SavedCursor{};
    m_saved.attr = kEmptyAttribute;
}

void Buffer::setYDisp(LineIndex yDisp) {
    m_yDisp = std::clamp(yDisp, LineIndex(0), m_yBase);
}

void Buffer::dropOldestLines(int count) {
    m_lines.trimStart(count);
    m_linesTop += count;
    m_yBase = std::max(m_yBase - count, LineIndex(0));
    m_yDisp = std::max(m_yDisp - count, LineIndex(0));
}

void Buffer::clearScrollback() {
    if (m_yBase == LineIndex(0))
        return;
    dropOldestLines(m_yBase.value);
    if (m_observer)
        m_observer->bufferScrolled(m_yDisp);
}

void Buffer::changeHistorySize(std::optional<int> newScrollback) {
    m_scrollback = newScrollback;
    if (!m_hasScrollback)
        return;
    const int newLength = cappedLength(static_cast<long long>(m_rows) + m_scrollback.value_or(0));
    if (newLength < m_lines.maxLength()) {
        const int drop = m_lines.count() - newLength;
        if (drop > 0)
            dropOldestLines(drop);
    }
    m_lines.setMaxLength(newLength);
}

// --- Tab stops ----------------------------------------------------------------------------

void Buffer::setupTabStops(int index) {
    int i = 0;
    if (index >= 0) {
        m_tabStops.resize(static_cast<size_t>(m_cols), 0);
        i = std::min(index, m_cols - 1);
        if (i >= 0 && !m_tabStops[i])
            i = previousTabStop(Col(i)).value;
    } else {
        m_tabStops.assign(static_cast<size_t>(m_cols), 0);
    }
    for (; i >= 0 && i < m_cols; i += m_tabStopWidth)
        m_tabStops[i] = 1;
}

void Buffer::tabSet(Col col) {
    if (col.value >= 0 && col.value < static_cast<int>(m_tabStops.size()))
        m_tabStops[col.value] = 1;
}

void Buffer::tabClear(Col col) {
    if (col.value >= 0 && col.value < static_cast<int>(m_tabStops.size()))
        m_tabStops[col.value] = 0;
}

void Buffer::clearTabStops() {
    std::fill(m_tabStops.begin(), m_tabStops.end(), 0);
}

Col Buffer::nextTabStop(Col col, bool marginModeOn) const {
    const int limit = marginModeOn && col <= m_marginRight ? m_marginRight.value : m_cols - 1;
    int i = col.value + 1;
    while (i < limit && !m_tabStops[i])
        ++i;
    return Col(std::clamp(i, 0, limit));
}

Col Buffer::previousTabStop(Col col) const {
    int i = std::min(col.value, m_cols) - 1;
    while (i > 0 && !m_tabStops[i])
        --i;
    return Col(std::max(i, 0));
}

// --- Scrolling ------------------------------------------------------------------------------

void Buffer::scrollWithMargins(bool isWrapped) {
    // With left and right margins only the cells inside them move; the lines stay put.
    const int width = m_marginRight - m_marginLeft + 1;
    for (ScreenRow row = m_scrollTop; row < m_scrollBottom; ++row)
        screenLine(row).copyFrom(screenLine(row + 1), m_marginLeft.value, m_marginLeft.value, width);
    BufferLine& last = screenLine(m_scrollBottom);
    last.replaceCells(m_marginLeft.value, m_marginRight.value + 1, CharData::Null.withAttribute(eraseAttr()));
    last.setWrapped(isWrapped && last.isWrapped());
    markRows(m_scrollTop, m_scrollBottom);
}

// A region that does not span the screen cuts paragraphs at its edges (before and after its
// lines move). Only the branches for such regions do it, so that the full-screen scroll, a
// hot path, pays nothing for it.
void Buffer::scroll(bool isWrapped) {
    // The common case first: a full-screen region at the bottom of a full ring, as plain
    // output scrolls once per line. Same steps as the full-ring branch below, fewer checks.
    if (m_scrollTop == ScreenRow(0) && m_scrollBottom == lastRow() && m_lines.isFull() &&
        m_yBase.value >= 0 && m_yBase.value + m_rows == m_lines.count() && !m_modes->marginMode) [[likely]] {
        const LineIndex oldYDisp = m_yDisp;
        const BufferLine* bottomLine = isWrapped ? m_lines.peek(m_lines.count() - 1) : nullptr;
        const BidiPresentationState bidi = bottomLine ? bottomLine->bidiState() : defaultBidiState();
        BufferLine& fresh = m_lines.recycle(eraseAttr());
        fresh.setWrapped(isWrapped);
        fresh.setBidiState(bidi);
        ++m_linesTop;
        if (m_observer) {
            if (m_observer->isUserScrolling())
                m_yDisp = std::max(m_yDisp - 1, LineIndex(0));
            m_observer->bufferScrolledInPlace();
        }
        markRows(m_scrollTop, m_scrollBottom);
        if (m_yDisp != oldYDisp && m_observer)
            m_observer->bufferScrolled(m_yDisp);
        return;
    }
    if (m_modes->marginMode && (m_marginLeft != Col(0) || m_marginRight != lastCol())) {
        hardenBidiScrollBoundaries();
        scrollWithMargins(isWrapped);
        hardenBidiScrollBoundaries();
        return;
    }
    const LineIndex top = lineIndex(m_scrollTop);
    const LineIndex bottom = lineIndex(m_scrollBottom);
    const LineIndex oldYDisp = m_yDisp;
    const bool userHolds = m_observer != nullptr && m_observer->isUserScrolling();
    const BufferLine* bottomLine = bottom.value < m_lines.count() ? m_lines.peek(bottom.value) : nullptr;
    const BidiPresentationState bidi = isWrapped && bottomLine ? bottomLine->bidiState() : defaultBidiState();
    TERMKIT_INVARIANT(top.value >= 0 && bottom.value < m_lines.count() && top <= bottom,
                      "Assertion on scroll, state was: bottomRow=" + std::to_string(bottom.value) +
                          " topRow=" + std::to_string(top.value) + " yBase=" + std::to_string(m_yBase.value) +
                          " lines.count=" + std::to_string(m_lines.count()) +
                          " rows=" + std::to_string(m_rows));
    const AttributeId erase = eraseAttr();
    if (m_scrollTop == ScreenRow(0)) {
        if (m_lines.isFull()) {
            // The oldest line is reused as the new bottom line: nothing is allocated, `yBase`
            // stays, and the line numbers shift, which `linesTop` records.
            BufferLine& fresh = m_lines.recycle(erase);
            fresh.setWrapped(isWrapped);
            fresh.setBidiState(bidi);
            if (bottom.value != m_lines.count() - 1) {
                m_lines.rotate(m_lines.count() - 1, bottom.value);
                clearWrapAt(m_scrollBottom + 1);
            }
            ++m_linesTop;
            if (userHolds)
                m_yDisp = std::max(m_yDisp - 1, LineIndex(0));
            if (m_observer)
                m_observer->bufferScrolledInPlace();
        } else {
            auto fresh = erase == AttributeTable::kEmpty && !isWrapped && bidi == defaultBidiState()
                             ? nullptr
                             : getBlankLine(erase, isWrapped);
            if (fresh)
                fresh->setBidiState(bidi);
            if (bottom.value == m_lines.count() - 1) {
                m_lines.push(std::move(fresh));
            } else {
                std::vector<CircularBufferLineList::LinePtr> items;
                items.push_back(std::move(fresh));
                m_lines.splice(bottom.value + 1, 0, std::move(items));
                clearWrapAt(m_scrollBottom + 1);
            }
            ++m_yBase;
            if (!userHolds)
                ++m_yDisp;
        }
    } else {
        // A region below the top: the row leaving it is not history, so its line object is
        // reused as the region's new bottom row.
        hardenBidiScrollBoundaries();
        rotateLines(top, bottom);
        BufferLine& fresh = line(bottom);
        fresh.clear(erase);
        fresh.destroySemanticState();
        fresh.setWrapped(isWrapped);
        fresh.setBidiState(bidi);
        hardenBidiScrollBoundaries();
    }
    markRows(m_scrollTop, m_scrollBottom);
    if (m_yDisp != oldYDisp && m_observer)
        m_observer->bufferScrolled(m_yDisp);
}

// --- Printing ---------------------------------------------------------------------------------

void Buffer::wrapToNextRow() {
    m_x = m_modes->marginMode ? m_marginLeft : Col(0);
    if (m_y == m_scrollBottom) {
        scroll(true);
        return;
    }
    const ScreenRow previous = m_y;
    if (m_y < lastRow())
        ++m_y;
    BufferLine& next = screenLine(m_y);
    next.setWrapped(true);
    if (m_y != previous)
        next.setBidiState(screenLine(previous).bidiState());
    markRow(m_y);
}

void Buffer::insertCharacter(int32_t code, int width, uint16_t payload) {
    const BufferModes& modes = *m_modes;
    const int right = rightLimit().value;
    int x = m_x.value;
    if (x + width - 1 > right) {
        if (modes.wraparound) {
            wrapToNextRow();
            x = m_x.value;
        } else {
            // Without wraparound a wide character has nowhere to go; others overwrite the edge.
            if (width == 2)
                return;
            x = right;
        }
    }
    BufferLine& line = screenLine(m_y);
    if (modes.insertMode) {
        line.insertCells(x, width, right, CharData::Null.withAttribute(modes.curAttr));
        // An insert that pushed a left half to the edge would leave half a character.
        CharData* shifted = line.cellsForWrite(right + 1);
        if (shifted[right].width == 2)
            shifted[right] = CharData::Null.withAttribute(modes.curAttr);
    }
    if (x >= m_cols)
        x = m_cols - 1;
    CharData* cells = line.cellsForWrite(std::min(x + width, m_cols));
    cells[x] = CharData{code, modes.curAttr, payload, static_cast<int8_t>(width), m_semanticContent};
    ++x;
    for (int i = 1; i < width && x < m_cols; ++i) {
        cells[x] = CharData{0, modes.curAttr, payload, 0, m_semanticContent};
        ++x;
    }
    m_x = Col(x);
    line.touch();
}

int Buffer::insertAsciiRun(const uint8_t* data, int count, uint16_t payload) {
    const BufferModes& modes = *m_modes;
    if (modes.insertMode)
        return 0;
    const int right = rightLimit().value;
    // The cell's words made from the fields in registers: a record stored field by field and
    // read back whole would stall on store forwarding.
    const cellfill::Words proto{0, modes.curAttr,
                                static_cast<uint32_t>(payload) | 1u << 16 |
                                    static_cast<uint32_t>(m_semanticContent) << 24};
    const int start = m_x.value;
    if (start + count <= right + 1) [[likely]] {
        // The whole run fits on the row: one write, no wrapping to consider.
        BufferLine& line = screenLine(m_y);
        writeAsciiRun(line.cellsForRangeWrite(start, start + count) + start, data, count, proto);
        line.touch();
        m_x = Col(start + count);
        return count;
    }
    int taken = 0;
    while (taken < count) {
        if (m_x.value > right) {
            if (!modes.wraparound) {
                // Every further byte lands on the edge; only the last one stays.
                BufferLine& line = screenLine(m_y);
                line.cellsForWrite(right + 1)[right] =
                    CharData{data[count - 1], modes.curAttr, payload, 1, m_semanticContent};
                line.touch();
                m_x = Col(right + 1);
                return count;
            }
            wrapToNextRow();
        }
        BufferLine& line = screenLine(m_y);
        const int x = m_x.value;
        const int n = std::min(right - x + 1, count - taken);
        CharData* cells = line.cellsForRangeWrite(x, x + n) + x;
        writeAsciiRun(cells, data + taken, n, proto);
        line.touch();
        m_x = Col(x + n);
        taken += n;
    }
    return taken;
}

// --- Images and attributes ------------------------------------------------------------------

void Buffer::attachImage(TerminalImage image, LineIndex toLineAt) {
    BufferLine& target = line(toLineAt);
    if (!target.hasImages())
        ++m_linesWithImagesCount;
    target.attach(std::move(image));
}

void Buffer::recalculateImageCount() {
    int n = 0;
    for (int i = 0; i < m_lines.count(); ++i) {
        const BufferLine* line = m_lines.peek(i);
        if (line && line->hasImages())
            ++n;
    }
    m_linesWithImagesCount = n;
}

void Buffer::markAttributes(const std::function<void(AttributeId)>& mark) const {
    mark(curAttr());
    mark(eraseAttr());
    for (int i = 0; i < m_lines.count(); ++i) {
        const BufferLine* line = m_lines.peek(i);
        if (!line)
            continue;
        mark(line->fillCharacter().attribute);
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
