#include "Termkit/selection/SelectionService.h"

#include <unicode/uchar.h>

#include <algorithm>

#include "Termkit/engine/Terminal.h"

namespace termkit {

namespace {

char32_t firstScalar(const std::string& utf8) {
    if (utf8.empty())
        return U' ';
    const auto b = static_cast<unsigned char>(utf8[0]);
    const int length = b < 0x80 ? 1 : (b >> 5) == 6 ? 2 : (b >> 4) == 14 ? 3 : 4;
    char32_t c = length == 1 ? b : b & (0x7F >> length);
    for (int k = 1; k < length && k < static_cast<int>(utf8.size()); ++k)
        c = (c << 6) | (static_cast<unsigned char>(utf8[static_cast<size_t>(k)]) & 0x3F);
    return c;
}

bool isWordScalar(char32_t c) {
    // Letters and digits of any script, and the three marks that join file names and
    // identifiers, so that a double click takes `foo-bar_baz.txt` whole.
    return u_isalnum(static_cast<UChar32>(c)) || c == U'.' || c == U'_' || c == U'-';
}

char32_t matchingBracket(char32_t c) {
    switch (c) {
    case U'(':
        return U')';
    case U'[':
        return U']';
    case U'{':
        return U'}';
    case U')':
        return U'(';
    case U']':
        return U'[';
    case U'}':
        return U'{';
    default:
        return 0;
    }
}

} // namespace

int SelectionService::cols() const {
    return m_terminal.cols();
}

int SelectionService::lastRow() const {
    return m_terminal.buffer().lineCount() - 1;
}

bool SelectionService::continuesWrapped(LineIndex row) const {
    return row.value < lastRow() && m_terminal.buffer().line(row + 1).isWrapped();
}

// The right half of a wide character stands for the character itself.
Position SelectionService::normalized(Position p) const {
    p.col = Col(std::clamp(p.col.value, 0, cols() - 1));
    p.row = LineIndex(std::clamp(p.row.value, 0, std::max(0, lastRow())));
    const BufferLine& line = m_terminal.buffer().line(p.row);
    if (p.col.value > 0 && p.col.value < line.count() && line[p.col.value].width == 0)
        p.col -= 1;
    return p;
}

SelectionService::Cell SelectionService::cellAt(Position p) const {
    const BufferLine& line = m_terminal.buffer().line(p.row);
    if (p.col.value >= line.count())
        return {kNullChar, CharClass::blank};
    CharData cell = line[p.col.value];
    if (cell.width == 0 && p.col.value > 0)
        cell = line[p.col.value - 1];
    if (cell.code == 0)
        return {kNullChar, CharClass::blank};
    const char32_t c = cell.code < kCharacterTableBase ? static_cast<char32_t>(cell.code)
                                                       : firstScalar(m_terminal.character(cell.code));
    if (c == U' ')
        return {c, CharClass::blank};
    return {c, isWordScalar(c) ? CharClass::word : CharClass::other};
}

// The cell after `p` in reading order, into the next row only when this one wraps into it;
// the same position when there is none.
Position SelectionService::nextCell(Position p) const {
    const BufferLine& line = m_terminal.buffer().line(p.row);
    int step = 1;
    if (p.col.value + 1 < line.count() && line[p.col.value + 1].width == 0)
        step = 2;
    if (p.col.value + step < cols())
        return {p.col + step, p.row};
    if (continuesWrapped(p.row))
        return {Col(0), p.row + 1};
    return p;
}

Position SelectionService::previousCell(Position p) const {
    if (p.col.value > 0)
        return normalized({p.col - 1, p.row});
    if (p.row.value > 0 && m_terminal.buffer().line(p.row).isWrapped())
        return normalized({Col(cols() - 1), p.row - 1});
    return p;
}

// The cell width of the character at `p`: 2 for a wide character, else 1.
static int widthAt(const Terminal& terminal, Position p) {
    const BufferLine& line = terminal.buffer().line(p.row);
    return p.col.value < line.count() && line[p.col.value].width == 2 ? 2 : 1;
}

std::pair<Position, Position> SelectionService::wordAround(Position at) const {
    at = normalized(at);
    const Cell origin = cellAt(at);
    const auto same = [&](Position p) {
        const Cell c = cellAt(p);
        if (c.cls != origin.cls)
            return false;
        return origin.cls != CharClass::other || c.character == origin.character;
    };
    Position first = at;
    for (Position p = previousCell(first); p != first && same(p); p = previousCell(first))
        first = p;
    Position last = at;
    for (Position p = nextCell(last); p != last && same(p); p = nextCell(last))
        last = p;
    Position endExclusive = last;
    endExclusive.col += widthAt(m_terminal, last);
    return {first, endExclusive};
}

std::optional<std::pair<Position, Position>> SelectionService::balancedExpression(Position at,
                                                                                  char32_t c) const {
    const bool forward = c == U'(' || c == U'[' || c == U'{';
    const char32_t other = matchingBracket(c);
    int depth = 0;
    Position p = normalized(at);
    while (true) {
        const char32_t here = cellAt(p).character;
        if (here == c)
            ++depth;
        else if (here == other && --depth == 0)
            break;
        const Position next = forward ? nextCell(p) : previousCell(p);
        if (next == p)
            return std::nullopt;
        p = next;
    }
    Position first = forward ? normalized(at) : p;
    Position last = forward ? p : normalized(at);
    last.col += widthAt(m_terminal, last);
    return std::pair{first, last};
}

void SelectionService::notify() const {
    if (selectionChanged)
        selectionChanged();
}

void SelectionService::setActive(bool active) {
    if (m_active == active)
        return;
    m_active = active;
    notify();
}

void SelectionService::setRange(Position start, Position end) {
    m_start = start;
    m_end = end;
    m_hasSelectionRange =
        !(end.row == start.row && std::abs(end.col - start.col) <= 1) || start.row != end.row;
    m_active = true;
    notify();
}

void SelectionService::startSelection(LineIndex row, Col col) {
    const Position p = normalized({col, row});
    m_pivot = p;
    m_wordSelectionAnchor.reset();
    m_rowSelectionAnchor.reset();
    m_selectingRows = false;
    m_selectionMode = SelectionMode::character;
    m_start = m_end = p;
    m_hasSelectionRange = false;
    m_active = true;
    notify();
}

void SelectionService::setSelection(Position start, Position end) {
    m_selectionMode = SelectionMode::character;
    m_pivot = start;
    setRange(start, end);
}

void SelectionService::setSoftStart(LineIndex row, Col col) {
    m_start = m_end = normalized({col, row});
    m_pivot = m_start;
    m_hasSelectionRange = false;
}

void SelectionService::shiftExtend(Position position) {
    if (!m_active) {
        startSelection(position.row, position.col);
        return;
    }
    const Position s = start();
    const Position e = end();
    // Distance in cells along the rows, so that the nearer end moves and the other stays.
    const auto linear = [&](Position p) {
        return static_cast<long long>(p.row.value) * cols() + p.col.value;
    };
    const long long target = linear(position);
    const bool moveStart = std::llabs(target - linear(s)) < std::llabs(target - linear(e));
    m_pivot = moveStart ? e : s;
    m_selectionMode = SelectionMode::character;
    setRange(moveStart ? position : s, moveStart ? e : position);
}

void SelectionService::pivotExtend(Position position) {
    const Position pivot = m_pivot.value_or(m_start);
    setRange(pivot, position);
}

void SelectionService::dragExtend(Position position) {
    position = Position(Col(std::clamp(position.col.value, 0, cols())),
                        LineIndex(std::clamp(position.row.value, 0, std::max(0, lastRow()))));
    switch (m_selectionMode) {
    case SelectionMode::row: {
        const LineIndex anchor = m_rowSelectionAnchor.value_or(position.row);
        const LineIndex from = std::min(anchor, position.row);
        const LineIndex to = std::max(anchor, position.row);
        setRange({Col(0), from}, {Col(cols()), to});
        break;
    }
    case SelectionMode::word: {
        if (!m_wordSelectionAnchor) {
            setRange(m_start, position);
            break;
        }
        const auto [anchorStart, anchorEnd] = *m_wordSelectionAnchor;
        const Position inside = normalized(position);
        if (inside.before(anchorStart))
            setRange(wordAround(inside).first, anchorEnd);
        else if (!inside.before(anchorEnd))
            setRange(anchorStart, wordAround(inside).second);
        else
            setRange(anchorStart, anchorEnd);
        break;
    }
    case SelectionMode::character:
        setRange(m_pivot.value_or(m_start), position);
        break;
    }
}

void SelectionService::selectAll() {
    m_selectionMode = SelectionMode::character;
    setRange({Col(0), LineIndex(0)}, {Col(cols()), LineIndex(std::max(0, lastRow()))});
}

void SelectionService::select(LineIndex row) {
    m_selectionMode = SelectionMode::row;
    m_rowSelectionAnchor = row;
    setRange({Col(0), row}, {Col(cols()), row});
}

void SelectionService::selectRow(Position position) {
    // The logical line: a triple click on a wrapped command takes all its rows.
    LineIndex first = normalized(position).row;
    while (first.value > 0 && m_terminal.buffer().line(first).isWrapped())
        --first;
    LineIndex last = first;
    while (continuesWrapped(last))
        ++last;
    m_selectionMode = SelectionMode::row;
    m_selectingRows = true;
    m_rowSelectionAnchor = normalized(position).row;
    setRange({Col(0), first}, {Col(cols()), last});
}

void SelectionService::selectWordOrExpression(Position at) {
    at = normalized(at);
    const Cell cell = cellAt(at);
    std::optional<std::pair<Position, Position>> range;
    if (matchingBracket(cell.character) != 0)
        range = balancedExpression(at, cell.character);
    else
        range = wordAround(at);
    if (!range)
        return;
    m_selectionMode = SelectionMode::word;
    m_wordSelectionAnchor = range;
    m_pivot = range->first;
    m_start = range->first;
    m_end = range->second;
    const bool oneCell = m_start.row == m_end.row && m_end.col - m_start.col <= widthAt(m_terminal, m_start);
    m_hasSelectionRange = !oneCell;
    m_active = true;
    notify();
}

void SelectionService::selectNone() {
    const bool was = m_active;
    m_active = false;
    m_hasSelectionRange = false;
    m_wordSelectionAnchor.reset();
    m_rowSelectionAnchor.reset();
    m_selectingRows = false;
    if (was)
        notify();
}

std::string SelectionService::getSelectedText() const {
    if (!m_active)
        return {};
    const Position s = start();
    const Position e = end();
    const Buffer& buffer = m_terminal.buffer();
    const CharacterTable& characters = m_terminal.tables().characters;
    std::string out;
    const int last = std::min(e.row.value, lastRow());
    for (LineIndex row(std::max(0, s.row.value)); row.value <= last; ++row) {
        const BufferLine& line = buffer.line(row);
        const int from = row == s.row ? s.col.value : 0;
        const int to = row == e.row ? e.col.value : line.count();
        // A row that goes on in the next one keeps its blanks: they are text in the middle
        // of a logical line. Only the end of a logical line (or of the selection) loses them.
        const bool joined = row.value < last && continuesWrapped(row);
        std::string text = line.translateToString(false, from, to, true, characters);
        if (!joined) {
            const size_t kept = text.find_last_not_of(' ');
            text.resize(kept == std::string::npos ? 0 : kept + 1);
        }
        out += text;
        if (!joined && row.value < last)
            out += '\n';
    }
    return out;
}

void SelectionService::adjustForInPlaceScroll(LineIndex top, LineIndex bottom, int lines) {
    if (!m_active || lines <= 0)
        return;
    const auto moves = [&](const Position& p) { return p.row >= top && p.row <= bottom; };
    if (!moves(m_start) && !moves(m_end))
        return;
    Position s = start();
    Position e = end();
    s.row -= lines;
    e.row -= lines;
    if (e.row < top) {
        selectNone();
        return;
    }
    if (s.row < top)
        s = {Col(0), top};
    if (m_pivot)
        m_pivot->row -= lines;
    if (m_wordSelectionAnchor) {
        m_wordSelectionAnchor->first.row -= lines;
        m_wordSelectionAnchor->second.row -= lines;
    }
    if (m_rowSelectionAnchor)
        *m_rowSelectionAnchor -= lines;
    m_start = s;
    m_end = e;
    notify();
}

bool SelectionService::contains(Position cell) const {
    if (!m_active || !m_hasSelectionRange)
        return false;
    const Position s = start();
    const Position e = end();
    return !cell.before(s) && cell.before(e);
}

} // namespace termkit
