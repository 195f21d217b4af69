#include "Termkit/buffer/BufferLine.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "Termkit/buffer/CellFill.h"
#include "Termkit/buffer/CharacterTable.h"
#include "Termkit/buffer/Log.h"

namespace termkit {

namespace {

// Cells are trivially copyable, so bulk moves are plain memory moves.
void moveCells(CharData* dst, const CharData* src, int n) {
    if (n > 0)
        std::memmove(static_cast<void*>(dst), src, static_cast<size_t>(n) * sizeof(CharData));
}

// Hands out line identities; lines are made rarely (the ring recycles them), so one shared
// counter costs nothing that matters, and it is atomic because terminals may live on
// different threads.
uint64_t nextLineIdentity() {
    static std::atomic<uint64_t> counter{0};
    return counter.fetch_add(1, std::memory_order_relaxed) + 1;
}

} // namespace

BufferLine::BufferLine(int cols, CharData fill, bool wrapped, BidiPresentationState bidi)
    : m_isWrapped(wrapped), m_bidiState(bidi), m_identity(nextLineIdentity()), m_fillCharacter(fill),
      m_size(std::max(cols, 0)) {
    m_data.reset(new CharData[static_cast<size_t>(m_size)]);
    fillCells(m_data.get(), m_size, fill);
    m_clean = fill == CharData::Null ? 0 : m_size;
}

BufferLine::BufferLine(const BufferLine& other)
    : m_isWrapped(other.m_isWrapped), m_bidiState(other.m_bidiState), m_renderMode(other.m_renderMode),
      m_owningBuffer(nullptr), m_recycleGeneration(0), m_identity(nextLineIdentity()),
      m_fillCharacter(other.m_fillCharacter), m_generation(0), m_size(other.m_size), m_clean(other.m_clean) {
    other.settle();
    m_data.reset(new CharData[static_cast<size_t>(m_size)]);
    moveCells(m_data.get(), other.m_data.get(), m_size);
    if (other.m_annotations)
        m_annotations = std::make_unique<LineAnnotations>(*other.m_annotations);
}

BufferLine& BufferLine::operator=(const BufferLine& other) {
    if (this == &other)
        return *this;
    other.settle();
    m_dirty = 0;
    if (m_size != other.m_size) {
        m_data.reset(new CharData[static_cast<size_t>(other.m_size)]);
        m_size = other.m_size;
    }
    moveCells(m_data.get(), other.m_data.get(), m_size);
    m_clean = other.m_clean;
    m_isWrapped = other.m_isWrapped;
    m_bidiState = other.m_bidiState;
    m_renderMode = other.m_renderMode;
    m_fillCharacter = other.m_fillCharacter;
    m_annotations = other.m_annotations ? std::make_unique<LineAnnotations>(*other.m_annotations) : nullptr;
    ++m_generation;
    return *this;
}

int BufferLine::correctIndex(int col) const {
    logInfo("BufferLine: You passed an index out of range, adjusting to prevent crash, but you should debug");
    return col < 0 ? 0 : std::max(m_size - 1, 0);
}

void BufferLine::settleSlow() const {
    if (m_dirty > m_clean)
        fillCells(m_data.get() + m_clean, m_dirty - m_clean, CharData::Null);
    m_dirty = 0;
}

void BufferLine::settleBefore(int begin) {
    // Only the leftovers between the clean mark and a write need clearing now; those the
    // write covers are overwritten, and those after it stay behind the new clean mark.
    fillCells(m_data.get() + m_clean, std::min(begin, m_dirty) - m_clean, CharData::Null);
    if (begin >= m_dirty)
        m_dirty = 0;
}

void BufferLine::resize(int cols, const CharData& fillData) {
    cols = std::max(cols, 0);
    if (cols == m_size)
        return;
    settle();
    std::unique_ptr<CharData[]> next(new CharData[static_cast<size_t>(cols)]);
    const int kept = std::min(cols, m_size);
    moveCells(next.get(), m_data.get(), kept);
    fillCells(next.get() + kept, cols - kept, fillData);
    m_data = std::move(next);
    m_clean = fillData == CharData::Null || cols <= m_size ? std::min(m_clean, cols) : cols;
    m_size = cols;
    ++m_generation;
}

void BufferLine::fill(const CharData& fillData) {
    m_dirty = 0;
    fillCells(m_data.get(), m_size, fillData);
    m_clean = fillData == CharData::Null ? 0 : m_size;
    ++m_generation;
}

void BufferLine::clearWith(AttributeId attribute) {
    m_dirty = 0;
    fillCells(m_data.get(), m_size, CharData::Null.withAttribute(attribute));
    m_clean = m_size;
    m_isWrapped = false;
    m_renderMode = RenderLineMode::single;
    ++m_generation;
}

void BufferLine::copyFrom(const BufferLine& line, int srcCol, int dstCol, int len) {
    len = std::min({len, line.m_size - srcCol, m_size - dstCol});
    if (len <= 0 || srcCol < 0 || dstCol < 0)
        return;
    line.settle();
    settle();
    moveCells(m_data.get() + dstCol, line.m_data.get() + srcCol, len);
    m_clean = std::max(m_clean, dstCol + len);
    ++m_generation;
}

void BufferLine::insertCells(int pos, int n, int rightMargin, const CharData& fillData) {
    const int end = std::min(rightMargin, m_size - 1) + 1; // one past the last moving cell
    if (pos < 0 || pos >= end || n <= 0)
        return;
    settle();
    n = std::min(n, end - pos);
    moveCells(m_data.get() + pos + n, m_data.get() + pos, end - pos - n);
    fillCells(m_data.get() + pos, n, fillData);
    m_clean = std::max(m_clean, end);
    ++m_generation;
}

void BufferLine::deleteCells(int pos, int n, int rightMargin, const CharData& fillData) {
    const int end = std::min(rightMargin, m_size - 1) + 1;
    if (pos < 0 || pos >= end || n <= 0)
        return;
    settle();
    n = std::min(n, end - pos);
    moveCells(m_data.get() + pos, m_data.get() + pos + n, end - pos - n);
    fillCells(m_data.get() + end - n, n, fillData);
    m_clean = std::max(m_clean, end);
    ++m_generation;
}

void BufferLine::replaceCells(int start, int end, const CharData& fillData) {
    start = std::max(start, 0);
    end = std::min(end, m_size);
    if (start >= end)
        return;
    if (fillData == CharData::Null && end >= m_clean) {
        // Everything from `start` on now reads as empty, which a lazy clear says without
        // writing: erasing to the end of the line is what full-screen programs do on every row.
        if (start < m_clean) {
            m_dirty = std::max(m_dirty, m_clean);
            m_clean = start;
        }
        ++m_generation;
        return;
    }
    settle();
    fillCells(m_data.get() + start, end - start, fillData);
    if (!(fillData == CharData::Null))
        m_clean = std::max(m_clean, end);
    ++m_generation;
}

int BufferLine::getTrimmedLength() const {
    // Cells from m_clean on were never written, so the scan can start below them: a short
    // line in a wide terminal costs its own length, not the width.
    for (int i = std::min(m_clean, m_size) - 1; i >= 0; --i) {
        if (m_data[i].code != 0)
            return i + std::max<int>(m_data[i].width, 1);
    }
    return 0;
}

bool BufferLine::hasAnyContent() const {
    // Nothing from the clean mark on has content (and may not have been cleared yet).
    for (int i = 0; i < std::min(m_clean, m_size); ++i) {
        if (m_data[i].code != 0)
            return true;
    }
    return false;
}

std::string BufferLine::translateToString(bool trimRight, int startCol, int endCol,
                                          bool skipNullCellsFollowingWide,
                                          const CharacterTable& characterProvider) const {
    settle();
    startCol = std::max(startCol, 0);
    endCol = std::min(endCol, m_size);
    if (trimRight)
        endCol = std::min(endCol, getTrimmedLength());
    std::string out;
    out.reserve(static_cast<size_t>(std::max(endCol - startCol, 0)));
    for (int col = startCol; col < endCol; ++col) {
        const CharData& cell = m_data[col];
        if (skipNullCellsFollowingWide && cell.width == 0 && cell.code == 0)
            continue;
        if (cell.code == 0) {
            out += ' ';
        } else {
            characterProvider.appendCharacter(cell.code, out);
        }
    }
    return out;
}

LineAnnotations& BufferLine::annotations() {
    if (!m_annotations)
        m_annotations = std::make_unique<LineAnnotations>();
    return *m_annotations;
}

void BufferLine::dropEmptyAnnotations() {
    if (m_annotations && m_annotations->empty())
        m_annotations.reset();
}

void BufferLine::attach(TerminalImage image) {
    auto& a = annotations();
    if (!a.images)
        a.images.emplace();
    a.images->push_back(std::move(image));
    ++m_generation;
}

void BufferLine::clearImages() {
    if (!m_annotations || !m_annotations->images)
        return;
    m_annotations->images.reset();
    dropEmptyAnnotations();
    ++m_generation;
}

const std::vector<SemanticMark>& BufferLine::semanticMarks() const {
    static const std::vector<SemanticMark> kNone;
    return m_annotations ? m_annotations->semanticMarks : kNone;
}

void BufferLine::setSemanticHardContinuationGroup(std::optional<uint64_t> group) {
    if (!group && !m_annotations)
        return;
    annotations().semanticHardContinuationGroup = group;
    dropEmptyAnnotations();
}

void BufferLine::setSemanticMark(SemanticMark mark) {
    auto& marks = annotations().semanticMarks;
    auto it = std::find_if(marks.begin(), marks.end(),
                           [&](const SemanticMark& m) { return m.column == mark.column; });
    if (it != marks.end()) {
        *it = mark;
    } else {
        marks.insert(std::upper_bound(
                         marks.begin(), marks.end(), mark,
                         [](const SemanticMark& a, const SemanticMark& b) { return a.column < b.column; }),
                     mark);
    }
}

void BufferLine::marksShift(int delta) {
    if (!m_annotations)
        return;
    auto& marks = m_annotations->semanticMarks;
    for (auto& m : marks)
        m.column += delta;
    std::erase_if(marks, [&](const SemanticMark& m) { return m.column < 0 || m.column >= m_size; });
    dropEmptyAnnotations();
}

void BufferLine::marksClampTo(int cols) {
    if (!m_annotations)
        return;
    for (auto& m : m_annotations->semanticMarks)
        m.column = std::clamp(m.column, 0, std::max(cols - 1, 0));
}

void BufferLine::destroySemanticState() {
    if (!m_annotations)
        return;
    m_annotations->semanticMarks.clear();
    m_annotations->semanticHardContinuationGroup.reset();
    dropEmptyAnnotations();
}

} // namespace termkit
