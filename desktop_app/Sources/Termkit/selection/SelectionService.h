#pragma once
// What a person has selected in a terminal's active buffer, and its text.

#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "Termkit/buffer/Indices.h"

namespace termkit {

class Terminal;

/// How a drag extends a selection: by cell, by word (a double click) or by row (a triple click).
enum class SelectionMode : uint8_t { character, word, row };

/// A selection in buffer coordinates (rows count from the oldest line kept), with the
/// anchors that let drags and Shift-clicks extend it by character, word or row. The end is
/// exclusive: a selection of one cell at column 3 runs from column 3 to column 4.
class SelectionService {
public:
    explicit SelectionService(const Terminal& terminal) : m_terminal(terminal) {}

    /// Told whenever the selection appears, changes or goes.
    std::function<void()> selectionChanged;

    bool active() const { return m_active; }
    void setActive(bool active);
    /// True once the selection covers more than the cell it started on.
    bool hasSelectionRange() const { return m_hasSelectionRange; }
    /// The earlier and the later end, in reading order.
    Position start() const { return m_start.before(m_end) ? m_start : m_end; }
    Position end() const { return m_start.before(m_end) ? m_end : m_start; }
    SelectionMode selectionMode() const { return m_selectionMode; }
    std::optional<Position> pivot() const { return m_pivot; }

    /// A press: a new, empty selection at the cell.
    void startSelection(LineIndex row, Col col);
    void setSelection(Position start, Position end);
    /// Moves the start without making the selection active (a press that may become a drag).
    void setSoftStart(LineIndex row, Col col);
    /// Shift-click: moves whichever end is nearer to the position.
    void shiftExtend(Position position);
    /// Extends from the fixed pivot (set by `startSelection`) to the position.
    void pivotExtend(Position position);
    /// A drag: follows the pointer by the mode's unit.
    void dragExtend(Position position);
    void selectAll();
    /// A row of the buffer, whole.
    void select(LineIndex row);
    /// A triple click: the row under the position, and row mode for drags.
    void selectRow(Position position);
    /// A double click: the word, run of blanks, run of one character, or bracketed
    /// expression under the position.
    void selectWordOrExpression(Position at);
    void selectNone();
    /// The text, wrapped rows joined and a newline between logical lines.
    std::string getSelectedText() const;
    /// The ring scrolled `lines` lines in place between rows `top` and `bottom`: selected
    /// rows there move up, and a selection that leaves the top goes.
    void adjustForInPlaceScroll(LineIndex top, LineIndex bottom, int lines);

    /// Whether a cell is inside the selection (for drawing).
    bool contains(Position cell) const;

private:
    enum class CharClass : uint8_t { word, blank, other };
    struct Cell {
        char32_t character; // first scalar; a space for empty cells
        CharClass cls;
    };
    Cell cellAt(Position p) const;
    bool continuesWrapped(LineIndex row) const;
    int lastRow() const;
    int cols() const;
    Position normalized(Position p) const;
    Position nextCell(Position p) const;
    Position previousCell(Position p) const;
    std::pair<Position, Position> wordAround(Position at) const;
    std::optional<std::pair<Position, Position>> balancedExpression(Position at, char32_t c) const;
    void setRange(Position start, Position end);
    void notify() const;

    const Terminal& m_terminal;
    bool m_active = false;
    bool m_hasSelectionRange = false;
    Position m_start;
    Position m_end;
    std::optional<Position> m_pivot;
    std::optional<std::pair<Position, Position>> m_wordSelectionAnchor;
    std::optional<LineIndex> m_rowSelectionAnchor;
    bool m_selectingRows = false;
    SelectionMode m_selectionMode = SelectionMode::character;
    static constexpr char32_t kNullChar = U' ';
};

} // namespace termkit
