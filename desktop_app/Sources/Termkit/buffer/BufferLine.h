#pragma once
// One row of cells with its flags.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Termkit/buffer/BidiPresentationState.h"
#include "Termkit/buffer/CharData.h"
#include "Termkit/buffer/LineAnnotations.h"

namespace termkit {

class Buffer;
class CharacterTable;

/// A line of exactly `count()` cells. Cells are allocated once by the line itself;
/// `generation()` grows at every change so a renderer can keep per-row caches.
class BufferLine {
public:
    /// DEC double width and double height.
    enum class RenderLineMode : uint8_t { single, doubleWidth, doubledTop, doubledDown };

    BufferLine(int cols, CharData fill, bool isWrapped = false, BidiPresentationState bidi = {});
    BufferLine(const BufferLine& other);
    BufferLine& operator=(const BufferLine& other);

    /// Whether this line continues the line before it.
    bool isWrapped() const { return m_isWrapped; }
    void setWrapped(bool wrapped) { m_isWrapped = wrapped; }
    /// Bidi settings of the paragraph the line belongs to.
    const BidiPresentationState& bidiState() const { return m_bidiState; }
    void setBidiState(const BidiPresentationState& state) { m_bidiState = state; }
    /// DEC double width and height.
    RenderLineMode renderMode() const { return m_renderMode; }
    void setRenderMode(RenderLineMode mode) { m_renderMode = mode; }
    /// The buffer whose ring holds the line; set when the line enters it.
    const Buffer* owningBuffer() const { return m_owningBuffer; }
    void setOwningBuffer(const Buffer* buffer) { m_owningBuffer = buffer; }
    /// Unique among the lines made in this process: a cache keyed by a line's address tells
    /// by it a new line that was given the address of a freed one.
    uint64_t identity() const { return m_identity; }
    /// Grows each time the ring reuses this line object for a new line.
    uint64_t recycleGeneration() const { return m_recycleGeneration; }
    void markRecycled() { ++m_recycleGeneration; }
    /// The cell the line was filled with when made.
    const CharData& fillCharacter() const { return m_fillCharacter; }
    /// Grows at every change, so that a renderer may keep a cache per row.
    uint64_t generation() const { return m_generation; }

    /// Number of cells.
    int count() const { return m_size; }
    /// Cell at a column; an out-of-range column is logged and replaced by the nearest valid one.
    const CharData& operator[](int col) const {
        settle();
        return m_data[checkedIndex(col)];
    }
    /// Writes a cell; an out-of-range column is logged and corrected as for reading.
    void set(int col, const CharData& cell) {
        settle();
        const int at = checkedIndex(col);
        m_data[at] = cell;
        if (at >= m_clean)
            m_clean = at + 1;
        ++m_generation;
    }
    /// Direct cell storage; the caller may write any cell and calls `touch` itself.
    CharData* cells() {
        settle();
        m_clean = m_size;
        return m_data.get();
    }
    /// Direct cell storage for writes to cells below `end` only (the print paths).
    CharData* cellsForWrite(int end) {
        // Settled whatever `end` is: some writers go on past it and move the mark afterwards.
        settle();
        if (end > m_clean)
            m_clean = end < m_size ? end : m_size;
        return m_data.get();
    }
    /// Direct cell storage for a write of every cell in [begin, end), begin <= end <= count().
    /// Leftovers of a lazy clear that the write covers are not cleared first.
    CharData* cellsForRangeWrite(int begin, int end) {
        if (m_dirty != 0) [[unlikely]] {
            if (begin > m_clean)
                settleBefore(begin);
            if (end >= m_dirty)
                m_dirty = 0;
        }
        if (end > m_clean)
            m_clean = end < m_size ? end : m_size;
        return m_data.get();
    }
    const CharData* cells() const {
        settle();
        return m_data.get();
    }
    /// Every cell from here on is `CharData::Null`; clearing with the empty attribute only
    /// needs to touch the cells before it.
    int cleanFrom() const { return m_clean; }
    /// Marks the line changed.
    void touch() { ++m_generation; }

    /// Changes the number of cells; new cells are `fillData`.
    void resize(int cols, const CharData& fillData);
    /// Sets every cell to `fillData`.
    void fill(const CharData& fillData);
    /// Empties the line with the given attribute: every cell null, not wrapped, single width.
    /// Inline: every scrolled line is cleared, and with the empty attribute this only moves marks.
    void clear(AttributeId attribute) {
        if (attribute != AttributeTable::kEmpty) [[unlikely]] {
            clearWith(attribute);
            return;
        }
        // Lazily: a recycled line is mostly overwritten by the next output anyway. Cells past
        // the clean mark are already empty, so only as far as the line was ever written.
        if (m_clean > m_dirty)
            m_dirty = m_clean;
        m_clean = 0;
        m_isWrapped = false;
        m_renderMode = RenderLineMode::single;
        ++m_generation;
    }
    /// Copies `len` cells from `line` at `srcCol` to `dstCol`; the two ranges may overlap.
    void copyFrom(const BufferLine& line, int srcCol, int dstCol, int len);
    /// Inserts `n` cells at `pos`, shifting cells up to `rightMargin` (inclusive) right.
    void insertCells(int pos, int n, int rightMargin, const CharData& fillData);
    /// Deletes `n` cells at `pos`, shifting cells up to `rightMargin` (inclusive) left.
    void deleteCells(int pos, int n, int rightMargin, const CharData& fillData);
    /// Sets the cells of [start, end) to `fillData`.
    void replaceCells(int start, int end, const CharData& fillData);
    /// Column after the last cell with a non-zero code, counting that cell's width.
    int getTrimmedLength() const;
    /// Whether the cell at a column holds a character.
    bool hasContent(int col) const { return (*this)[col].code != 0; }
    /// Whether any cell holds a character.
    bool hasAnyContent() const;
    /// The text of [startCol, endCol): empty cells read as spaces; with `skipNullCellsFollowingWide`
    /// the right halves of wide characters are left out; with `trimRight` the text ends at the
    /// trimmed length.
    std::string translateToString(bool trimRight, int startCol, int endCol, bool skipNullCellsFollowingWide,
                                  const CharacterTable& characterProvider) const;
    std::string translateToString(const CharacterTable& characterProvider, bool trimRight = true) const {
        return translateToString(trimRight, 0, m_size, true, characterProvider);
    }

    /// Attaches an image to the line.
    void attach(TerminalImage image);
    /// Images attached to the line, or nullptr.
    const std::vector<TerminalImage>* images() const {
        return m_annotations && m_annotations->images ? &*m_annotations->images : nullptr;
    }
    bool hasImages() const { return images() != nullptr && !images()->empty(); }
    /// Whether the line has any images, semantic marks or continuation group.
    bool hasAnnotations() const { return m_annotations != nullptr; }
    /// Drops the attached images.
    void clearImages();

    /// Semantic marks of the line.
    const std::vector<SemanticMark>& semanticMarks() const;
    std::optional<uint64_t> semanticHardContinuationGroup() const {
        return m_annotations ? m_annotations->semanticHardContinuationGroup : std::nullopt;
    }
    void setSemanticHardContinuationGroup(std::optional<uint64_t> group);
    /// Adds a mark, replacing one at the same column.
    void setSemanticMark(SemanticMark mark);
    /// Moves every mark by `delta` columns, dropping those that leave the line.
    void marksShift(int delta);
    /// Moves marks beyond the last column onto it.
    void marksClampTo(int cols);
    /// Drops marks and the continuation group.
    void destroySemanticState();

private:
    // clear() with an attribute other than the empty one: every cell is written now.
    void clearWith(AttributeId attribute);
    // Clears what a lazy clear left behind, before anyone reads it.
    void settle() const {
        if (m_dirty != 0) [[unlikely]]
            settleSlow();
    }
    void settleSlow() const;
    void settleBefore(int begin);
    int checkedIndex(int col) const {
        if (col >= 0 && col < m_size) [[likely]]
            return col;
        return correctIndex(col);
    }
    int correctIndex(int col) const;
    LineAnnotations& annotations();
    void dropEmptyAnnotations();

    bool m_isWrapped = false;
    BidiPresentationState m_bidiState;
    RenderLineMode m_renderMode = RenderLineMode::single;
    const Buffer* m_owningBuffer = nullptr;
    uint64_t m_recycleGeneration = 0;
    uint64_t m_identity = 0;
    CharData m_fillCharacter;
    // See m_clean; kept here, where it fills what would be padding after the 12-byte cell.
    mutable int m_dirty = 0;
    uint64_t m_generation = 0;
    std::unique_ptr<CharData[]> m_data;
    int m_size = 0;
    // Invariant: cells at m_clean and after read as exactly CharData::Null. Clearing with the
    // empty attribute is lazy: cells in [m_clean, m_dirty) may still hold what was there and
    // are cleared before any read (`settle`), or are simply overwritten by the print path.
    // Cells from max(m_clean, m_dirty) on are Null in memory too. m_dirty is 0 when there are
    // no leftovers and otherwise above m_clean.
    int m_clean = 0;
    std::unique_ptr<LineAnnotations> m_annotations;
};

} // namespace termkit
