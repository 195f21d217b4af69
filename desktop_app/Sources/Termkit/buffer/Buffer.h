#pragma once
// Screen and scrollback with a cursor, margins and tab stops.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Termkit/buffer/Attribute.h"
#include "Termkit/buffer/BidiPresentationState.h"
#include "Termkit/buffer/BufferLine.h"
#include "Termkit/buffer/CellTables.h"
#include "Termkit/buffer/CircularBufferLineList.h"
#include "Termkit/buffer/Indices.h"
#include "Termkit/buffer/UpdateRange.h"

namespace termkit {

struct CharSet;

/// What a buffer tells its owner; every method does nothing by default.
class BufferObserver {
public:
    virtual ~BufferObserver() = default;
    /// The line on display at the top moved.
    virtual void bufferScrolled(LineIndex /*yDisp*/) {}
    /// A full ring scrolled: every line index now names the line below the one it named.
    virtual void bufferScrolledInPlace() {}
    /// True while the person holds the view away from the bottom.
    virtual bool isUserScrolling() const { return false; }
};

/// The modes and attributes with which the print path writes cells. A terminal owns one
/// and shares it with both of its buffers, so that a mode is set in one place; a buffer
/// made on its own keeps its own.
struct BufferModes {
    bool insertMode = false;
    bool marginMode = false;
    bool wraparound = true;
    /// Attribute of written cells.
    AttributeId curAttr = AttributeTable::kEmpty;
    /// Attribute of erased cells and of lines made by scrolling.
    AttributeId eraseAttr = AttributeTable::kEmpty;
    /// Bidi settings given to new lines.
    BidiPresentationState defaultBidiState;
};

/// The cursor as DECSC saves it, with the modes that go with it.
struct SavedCursor {
    Col x;
    ScreenRow y;
    Attribute attr;
    const CharSet* charset = nullptr;
    bool originMode = false;
    bool marginMode = false;
    bool wraparound = true;
    bool reverseWraparound = false;
};

/// One of a terminal's two buffers: a ring of lines holding scrollback and screen, the
/// cursor, the scroll region and margins, the tab stops and the saved cursor.
///
/// Coordinates: `x()` and `y()` are the cursor on the screen; `yBase()` is the line index
/// of the top screen row; `yDisp()` the line index of the top row on display
/// (`yDisp() <= yBase()`); `linesTop()` counts lines that left through the top of a full
/// ring, so that `linesTop() + index` names a line for as long as it exists.
///
/// A host reads a buffer through a const reference, which offers only the reading half;
/// the writing half belongs to the terminal that owns it.
class Buffer {
public:
    /// Ring lengths are capped here.
    static constexpr int kMaxLines = 0x7FFFFFFF;

    /// A buffer of `cols` x `rows`; `scrollback` lines of history, none for the alternate buffer.
    Buffer(int cols, int rows, int tabStopWidth, std::optional<int> scrollback,
           BidiPresentationState bidiState, std::shared_ptr<CellTables> tables = nullptr,
           bool hasScrollback = true);
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;

    // --- Reading: size and lines ---------------------------------------------------------
    int cols() const { return m_cols; }
    int rows() const { return m_rows; }
    Col lastCol() const { return Col(m_cols - 1); }
    ScreenRow lastRow() const { return ScreenRow(m_rows - 1); }
    /// Every line, oldest first; screen rows are `yBase()` to `yBase() + rows() - 1`.
    const CircularBufferLineList& lines() const { return m_lines; }
    int lineCount() const { return m_lines.count(); }
    /// A line by index; a slot never used reads as the blank line it stands for.
    const BufferLine& line(LineIndex index) const { return m_lines[index.value]; }
    /// The line of a screen row.
    const BufferLine& screenLine(ScreenRow row) const { return line(lineIndex(row)); }
    /// The line index of a screen row.
    LineIndex lineIndex(ScreenRow row) const { return m_yBase + row.value; }
    /// The screen row of a line index; negative for a line in the scrollback.
    ScreenRow screenRow(LineIndex index) const { return ScreenRow(index - m_yBase); }
    /// The cell at a screen position.
    const CharData& getChar(Col col, ScreenRow row) const { return screenLine(row)[col.value]; }
    /// A new blank line of `cols` cells carrying the attribute.
    std::unique_ptr<BufferLine> getBlankLine(AttributeId attribute, bool isWrapped = false) const;

    // --- Reading: cursor, display and regions ---------------------------------------------
    /// The cursor column; it equals `cols()` while a wrap is pending.
    Col x() const { return m_x; }
    ScreenRow y() const { return m_y; }
    LineIndex yBase() const { return m_yBase; }
    LineIndex yDisp() const { return m_yDisp; }
    long long linesTop() const { return m_linesTop; }
    /// Scroll-invariant number of screen row 0.
    long long invariantBase() const { return m_linesTop + m_yBase.value; }
    ScreenRow scrollTop() const { return m_scrollTop; }
    ScreenRow scrollBottom() const { return m_scrollBottom; }
    Col marginLeft() const { return m_marginLeft; }
    Col marginRight() const { return m_marginRight; }
    /// One flag per column.
    const std::vector<uint8_t>& tabStops() const { return m_tabStops; }
    const SavedCursor& savedCursor() const { return m_saved; }
    bool hasScrollback() const { return m_hasScrollback; }
    std::optional<int> scrollback() const { return m_scrollback; }
    int linesWithImagesCount() const { return m_linesWithImagesCount; }
    /// The next stop right of `col`, limited by the right margin when margins apply.
    Col nextTabStop(Col col, bool marginModeOn) const;
    /// The stop left of `col`, or column 0.
    Col previousTabStop(Col col) const;

    // --- Reading: what the print path writes with ------------------------------------------
    const BufferModes& modes() const { return *m_modes; }
    AttributeId curAttr() const { return m_modes->curAttr; }
    AttributeId eraseAttr() const { return m_modes->eraseAttr; }
    const BidiPresentationState& defaultBidiState() const { return m_modes->defaultBidiState; }
    /// Semantic class given to cells as they are written.
    uint8_t semanticContent() const { return m_semanticContent; }
    const CellTables& tables() const { return *m_tables; }
    /// Reports every attribute id that a line of this buffer uses.
    void markAttributes(const std::function<void(AttributeId)>& mark) const;

    // --- Writing: for the owning terminal (and tests of the buffer alone) ------------------
    BufferLine& line(LineIndex index) { return m_lines[index.value]; }
    BufferLine& screenLine(ScreenRow row) { return line(lineIndex(row)); }
    CellTables& tables() { return *m_tables; }
    /// The modes this buffer writes with: its own, or the ones its terminal shares.
    BufferModes& modes() { return *m_modes; }
    /// Wires the buffer into its terminal: who is told of scrolling, where changed rows are
    /// recorded, and the modes shared with the other buffer.
    void attach(BufferObserver* observer, UpdateRange* updates, BufferModes* modes);
    void setObserver(BufferObserver* observer) { m_observer = observer; }

    void setX(Col x) { m_x = x; }
    void setY(ScreenRow y) { m_y = y; }
    void setCursor(Col x, ScreenRow y) {
        m_x = x;
        m_y = y;
    }
    /// Moves the display, as a view scrolled by the person does; kept within the lines.
    void setYDisp(LineIndex yDisp);
    /// The scroll region, inclusive; the caller keeps `top <= bottom` within the screen.
    void setScrollRegion(ScreenRow top, ScreenRow bottom) {
        m_scrollTop = top;
        m_scrollBottom = bottom;
    }
    /// The left and right margins, inclusive; the caller keeps them within the screen.
    void setMargins(Col left, Col right) {
        m_marginLeft = left;
        m_marginRight = right;
    }
    /// Region and margins back to the whole screen.
    void resetRegionAndMargins() {
        setScrollRegion(ScreenRow(0), lastRow());
        setMargins(Col(0), lastCol());
    }
    void saveCursor(const SavedCursor& saved) { m_saved = saved; }
    void setSemanticContent(uint8_t content) { m_semanticContent = content; }
    /// Marks an inclusive range of screen rows as changed.
    void markRows(ScreenRow start, ScreenRow end) {
        m_updates->mark(start.value, end.value, invariantBase());
    }
    void markRow(ScreenRow row) { markRows(row, row); }
    /// Moves the line at `from` to `to`, the lines between sliding by one.
    void rotateLines(LineIndex from, LineIndex to) { m_lines.rotate(from.value, to.value); }

    /// Makes sure the screen rows exist (as lazy blank lines).
    void fillViewportRows();
    /// Empties the list and zeroes display and cursor positions.
    void clear();
    /// Region, margins and saved cursor back to their defaults.
    void softReset();
    /// Drops every line above the screen.
    void clearScrollback();
    /// Sets the number of scrollback lines; shrinking drops the oldest lines.
    void changeHistorySize(std::optional<int> newScrollback);
    /// Changes the size; a buffer with scrollback rewraps its lines to a new width.
    void resize(int newCols, int newRows);

    /// Sets every `tabStopWidth`-th stop (index < 0), or resumes setting from `index`.
    void setupTabStops(int index = -1);
    void tabSet(Col col);
    void tabClear(Col col);
    void clearTabStops();

    /// Moves the scroll region up by one line, taking a new blank line at its bottom. Lines
    /// leaving a region that starts at the top go into the scrollback.
    void scroll(bool isWrapped);
    /// Ends paragraphs at the scroll region's edges (clearing `isWrapped` there), so that a
    /// paragraph cut by the region is not joined again with lines that move past it.
    void hardenBidiScrollBoundaries();
    /// The same for lines inserted or deleted from `row` down to the region's bottom.
    void hardenBidiLineShiftBoundaries(ScreenRow row);
    /// Writes one character of the given width at the cursor, wrapping or dropping as the
    /// modes say, and advances the cursor.
    void insertCharacter(int32_t code, int width, uint16_t payload);
    /// Writes a run of ASCII bytes as cells, wrapping as needed; returns how many were taken
    /// (0 in insert mode, where the general path handles each character).
    int insertAsciiRun(const uint8_t* data, int count, uint16_t payload);
    /// Moves the cursor to the start of the next row as an automatic wrap does.
    void wrapToNextRow();

    /// Attaches an image to a line and keeps the image count.
    void attachImage(TerminalImage image, LineIndex toLineAt);
    /// Recounts the lines with images.
    void recalculateImageCount();

private:
    void setupLinesCallbacks();
    void scrollWithMargins(bool isWrapped);
    void clearWrapAt(ScreenRow row);
    void reflow(int newCols, int newRows);
    // Puts the rewrapped lines back and moves cursor, display and saved cursor with them.
    void placeAfterReflow(std::vector<CircularBufferLineList::LinePtr>& out,
                          const std::vector<int>& newIndexOf, int cursorAbs, bool dispFollows, int savedAbs,
                          bool wider, int newRows);
    void resizeRows(int newCols, int newRows, int newMaxLength);
    void resizeAllLines(int newCols);
    void checkLineSizes(int newCols);
    // Drops the `count` oldest lines, moving every line index held here with them.
    void dropOldestLines(int count);
    // The column right of which the cursor may not write: the right margin or the edge.
    Col rightLimit() const { return m_modes->marginMode ? m_marginRight : lastCol(); }

    // Lazily made lines are filled in on first read, even through a const reference.
    mutable CircularBufferLineList m_lines;
    Col m_x;
    ScreenRow m_y;
    LineIndex m_yBase;
    LineIndex m_yDisp;
    long long m_linesTop = 0;
    int m_linesWithImagesCount = 0;
    ScreenRow m_scrollTop;
    ScreenRow m_scrollBottom;
    Col m_marginLeft;
    Col m_marginRight;
    std::vector<uint8_t> m_tabStops;
    SavedCursor m_saved;
    bool m_hasScrollback = true;
    int m_cols;
    int m_rows;
    std::optional<int> m_scrollback;
    int m_tabStopWidth;
    uint8_t m_semanticContent = 0;

    std::shared_ptr<CellTables> m_tables;
    BufferObserver* m_observer = nullptr;
    UpdateRange m_ownUpdates;
    UpdateRange* m_updates = &m_ownUpdates;
    BufferModes m_ownModes;
    BufferModes* m_modes = &m_ownModes;
};

} // namespace termkit
