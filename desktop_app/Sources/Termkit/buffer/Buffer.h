#pragma once
// Screen and scrollback with a cursor, margins and tab stops.

#include <cstdint>
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
    /// The row on display at the top moved.
    virtual void bufferScrolled(int /*yDisp*/) {}
    /// A full ring scrolled: every line index now names the line below the one it named.
    virtual void bufferScrolledInPlace() {}
    /// True while the person holds the view away from the bottom.
    virtual bool isUserScrolling() const { return false; }
};

/// One of a terminal's two buffers: a ring of lines holding scrollback and screen, the
/// cursor, the scroll region and margins, the tab stops and the saved cursor.
///
/// Coordinates: `x` and `y` are the cursor on the screen (0-based); `yBase` is the line
/// index of the top screen row; `yDisp` the line index of the top row on display
/// (`yDisp <= yBase`); `linesTop` counts lines that left through the top of a full ring, so
/// that `linesTop + index` names a line for as long as it exists.
class Buffer {
public:
    /// Ring lengths are capped here.
    static constexpr int kMaxLines = 0x7FFFFFFF;

    /// A buffer of `cols` x `rows`; `scrollback` lines of history, none for the alternate buffer.
    Buffer(int cols, int rows, int tabStopWidth, std::optional<int> scrollback,
           BidiPresentationState bidiState, std::shared_ptr<CellTables> tables = nullptr,
           bool hasScrollback = true);

    // --- Lines ------------------------------------------------------------------------
    /// Every line, oldest first; screen rows are `yBase` to `yBase + rows - 1`.
    CircularBufferLineList lines;
    BufferLine& line(LineIndex index) { return lines[index.value]; }
    BufferLine& screenLine(ScreenRow row) { return lines[yBase + row.value]; }
    /// A new blank line of `cols` cells carrying the attribute.
    std::unique_ptr<BufferLine> getBlankLine(AttributeId attribute, bool isWrapped = false) const;
    /// The cell at a screen position.
    const CharData& getChar(Col col, ScreenRow row) { return lines[yBase + row.value][col.value]; }

    // --- Cursor, display and regions ----------------------------------------------------
    int xDisp = 0;
    int yDisp = 0;
    int xBase = 0;
    int x = 0;
    int y = 0;
    int yBase = 0;
    int linesWithImagesCount = 0;
    long long linesTop = 0;
    int scrollBottom = 0;
    int scrollTop = 0;
    std::vector<uint8_t> tabStops;
    int savedX = 0;
    int savedY = 0;
    bool savedOriginMode = false;
    bool savedMarginMode = false;
    bool savedWraparound = true;
    bool savedReverseWraparound = false;
    int marginLeft = 0;
    int marginRight = 0;
    Attribute savedAttr;
    const CharSet* savedCharset = nullptr;
    bool hasScrollback = true;
    int cols() const { return m_cols; }
    int rows() const { return m_rows; }
    std::optional<int> scrollback;

    // --- Mirrors of the terminal's state, read by the print path -----------------------
    AttributeId curAttr = AttributeTable::kEmpty;
    /// Attribute of erased cells and of lines made by scrolling.
    AttributeId eraseAttr = AttributeTable::kEmpty;
    bool insertMode = false;
    bool marginMode = false;
    bool wraparound = true;
    /// Semantic class given to cells as they are written.
    uint8_t semanticContent = 0;
    BidiPresentationState defaultBidiState;

    // --- Wiring --------------------------------------------------------------------------
    std::shared_ptr<CellTables> tables;
    BufferObserver* observer = nullptr;
    UpdateRange* updates = nullptr;
    /// Scroll-invariant number of screen row 0.
    long long invariantBase() const { return linesTop + yBase; }
    /// Marks an inclusive range of screen rows as changed.
    void markRows(int start, int end) { updates->mark(start, end, invariantBase()); }

    // --- Operations ----------------------------------------------------------------------
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
    void tabSet(int pos);
    void tabClear(int pos);
    void clearTabStops();
    /// The next stop right of `index`, limited by the right margin when margins apply.
    int nextTabStop(int index, bool marginModeOn) const;
    /// The stop left of `index`, or 0.
    int previousTabStop(int index) const;

    /// Moves the scroll region up by one line, taking a new blank line at its bottom. Lines
    /// leaving a region that starts at the top go into the scrollback.
    void scroll(bool isWrapped);
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
    /// Reports every attribute id that a line of this buffer uses.
    void markAttributes(const std::function<void(AttributeId)>& mark) const;

private:
    void setupLinesCallbacks();
    void scrollWithMargins(bool isWrapped);
    void reflow(int newCols, int newRows);
    // Puts the rewrapped lines back and moves cursor, display and saved cursor with them.
    void placeAfterReflow(std::vector<CircularBufferLineList::LinePtr>& out,
                          const std::vector<int>& newIndexOf, int cursorAbs, bool dispFollows, int savedAbs,
                          bool wider, int newRows);
    void resizeRows(int newCols, int newRows, int newMaxLength);
    void resizeAllLines(int newCols);
    void checkLineSizes(int newCols);

    int m_cols;
    int m_rows;
    int m_tabStopWidth;
    UpdateRange m_ownUpdates;
};

} // namespace termkit
