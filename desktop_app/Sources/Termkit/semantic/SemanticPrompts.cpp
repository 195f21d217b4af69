#include "Termkit/semantic/SemanticPrompts.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "Termkit/engine/Terminal.h"

namespace termkit {

namespace {

struct CursorKeys {
    std::string_view left, right, up, down;
};
constexpr CursorKeys kNormalKeys{"\x1b[D", "\x1b[C", "\x1b[A", "\x1b[B"};
constexpr CursorKeys kApplicationKeys{"\x1bOD", "\x1bOC", "\x1bOA", "\x1bOB"};
// With `special_key=1` the shell asks for keys it can tell from the person's own arrows: the
// same arrows with an explicit "no modifier" parameter, which an unmodified key never sends.
constexpr CursorKeys kSpecialKeys{"\x1b[1;1D", "\x1b[1;1C", "\x1b[1;1A", "\x1b[1;1B"};

void repeat(std::string& out, std::string_view key, int count) {
    for (int i = 0; i < count; ++i)
        out += key;
}

// Characters, not cells, in [from, to) of a row: a wide character is one key press, and
// columns past the written cells count one each (typed blanks the shell has not drawn yet).
int characters(const BufferLine& line, int from, int to) {
    int n = 0;
    for (int c = from; c < to; ++c)
        if (c >= line.count() || line[c].width != 0)
            ++n;
    return n;
}

bool hasCellOfCode(const BufferLine& line, uint8_t code) {
    for (int c = 0; c < line.count(); ++c)
        if (line[c].semanticContentCode == code)
            return true;
    return false;
}

} // namespace

const SemanticGroupGeometry::Row* SemanticGroupGeometry::find(LineIndex row) const {
    for (const Row& r : rows)
        if (r.row == row)
            return &r;
    return nullptr;
}

SemanticPrompts::Options SemanticPrompts::parseSemanticPromptOptions(std::string_view body) {
    Options o;
    size_t start = 0;
    while (start < body.size()) {
        const size_t end = std::min(body.find(';', start), body.size());
        const std::string_view item = body.substr(start, end - start);
        start = end + 1;
        const size_t eq = item.find('=');
        if (eq == std::string_view::npos)
            continue; // an item without "=" says nothing
        const std::string_view key = item.substr(0, eq);
        const std::string_view value = item.substr(eq + 1);
        if (key == "k") {
            if (value == "i")
                o.kind = SemanticPromptKind::initial;
            else if (value == "r")
                o.kind = SemanticPromptKind::right;
            else if (value == "c")
                o.kind = SemanticPromptKind::continuation;
            else if (value == "s")
                o.kind = SemanticPromptKind::secondary;
            else
                o.valid = false;
        } else if (key == "cl") {
            if (value == "line")
                o.clickMode = SemanticPromptCursorClickMode::line;
            else if (value == "m")
                o.clickMode = SemanticPromptCursorClickMode::multiple;
            else if (value == "v")
                o.clickMode = SemanticPromptCursorClickMode::conservativeVertical;
            else if (value == "w")
                o.clickMode = SemanticPromptCursorClickMode::smartVertical;
            else
                o.valid = false;
        } else if (key == "click_events") {
            if (value == "0")
                o.clickEvents = SemanticPromptClickMode::Type::none;
            else if (value == "1")
                o.clickEvents = SemanticPromptClickMode::Type::clickEventsAbsolute;
            else if (value == "2")
                o.clickEvents = SemanticPromptClickMode::Type::clickEventsRelative;
            else
                o.valid = false;
        } else if (key == "special_key") {
            if (value == "0")
                o.specialKeys = false;
            else if (value == "1")
                o.specialKeys = true;
            else
                o.valid = false;
        }
    }
    return o;
}

void SemanticPrompts::applyOptions(const Options& options) {
    if (options.clickMode)
        m_clickMode = SemanticPromptClickMode::cursorKeys(*options.clickMode);
    if (options.clickEvents)
        m_clickMode.type = *options.clickEvents;
    if (options.specialKeys)
        m_specialKeys = *options.specialKeys;
}

void SemanticPrompts::setContent(Terminal& terminal, SemanticContent content) {
    terminal.setSemanticContent(content.code());
}

void SemanticPrompts::setSemanticMark(Terminal& terminal, SemanticContent content) {
    const auto [col, row] = terminal.getCursorLocation();
    terminal.annotatableLine(terminal.buffer().lineIndex(row))
        .setSemanticMark(SemanticMark{content.code(), col.value, m_activeGroup});
}

void SemanticPrompts::beginSemanticPromptGroup(Terminal& terminal) {
    m_activeGroup = ++m_semanticGroupCounter;
    const Buffer& b = terminal.buffer();
    const LineIndex row = b.lineIndex(terminal.getCursorLocation().second);
    m_semanticPromptStartRowCache =
        std::pair(b.invariantBase() - b.yBase().value + row.value, b.line(row).identity());
}

bool SemanticPrompts::canReuseSemanticGroup(SemanticPromptKind kind) const {
    // A continuation prompt (the shell asking for the rest of a command) belongs to the
    // prompt before it, as long as no command ran in between.
    return m_activeGroup != 0 && m_input != SemanticInputState::idle &&
           (kind == SemanticPromptKind::continuation || kind == SemanticPromptKind::secondary);
}

void SemanticPrompts::clearEchoedEnterContinuationBeforeOutput(Terminal& terminal) {
    // The Enter the shell echoed moved the cursor to a row the line feed carried into the
    // group; output starts there instead, so the row leaves the group, unless the shell
    // marked it or typed input is on it (the cursor went back into the command).
    const LineIndex row = terminal.buffer().lineIndex(terminal.getCursorLocation().second);
    BufferLine& line = terminal.annotatableLine(row);
    if (line.semanticHardContinuationGroup() != m_activeGroup)
        return;
    const auto& marks = line.semanticMarks();
    if (std::any_of(marks.begin(), marks.end(),
                    [&](const SemanticMark& m) { return m.group == m_activeGroup; }) ||
        hasCellOfCode(line, SemanticContent::kInputCode))
        return;
    line.setSemanticHardContinuationGroup(std::nullopt);
}

void SemanticPrompts::updateLineAdvanceWanted(Terminal& terminal) const {
    const bool groupOpen = m_activeGroup != 0 && m_input != SemanticInputState::idle && !m_inputLineOnly;
    const bool inputRowOpen =
        m_inputLineOnly && terminal.buffer().semanticContent() == SemanticContent::kInputCode;
    terminal.setSemanticLineAdvanceWanted(groupOpen || inputRowOpen);
}

void SemanticPrompts::finishSemanticLineAdvance(Terminal& terminal) {
    if (terminal.isAlternateBufferActive())
        return;
    if (m_inputLineOnly) {
        // An `I` input is its row: what comes after the line feed is the program's answer.
        if (terminal.buffer().semanticContent() == SemanticContent::kInputCode)
            setContent(terminal, SemanticContent::output());
        updateLineAdvanceWanted(terminal);
        return;
    }
    if (m_activeGroup == 0 || m_input == SemanticInputState::idle)
        return;
    // The row the cursor came to is the group's from now on (a prompt drawn over several
    // rows, a command continued on the next), unless another group's prompt is on it.
    const LineIndex row = terminal.buffer().lineIndex(terminal.getCursorLocation().second);
    BufferLine& line = terminal.annotatableLine(row);
    const auto& marks = line.semanticMarks();
    if (std::any_of(marks.begin(), marks.end(),
                    [&](const SemanticMark& m) { return m.group != 0 && m.group != m_activeGroup; }))
        return;
    if (line.semanticHardContinuationGroup() != m_activeGroup)
        line.setSemanticHardContinuationGroup(m_activeGroup);
}

void SemanticPrompts::oscSemanticPrompt(Terminal& terminal, std::span<const uint8_t> data) {
    const std::string_view body(reinterpret_cast<const char*>(data.data()), data.size());
    if (body.empty())
        return;
    const char command = body[0];
    const Options options = parseSemanticPromptOptions(body.size() > 2 ? body.substr(2) : std::string_view());
    if (!options.valid) {
        terminal.log("Termkit: semantic prompt with a bad option dropped");
        return;
    }
    const auto freshLine = [&] {
        // A prompt starts on a fresh line: after output that did not end with one, the
        // prompt would otherwise be drawn after it.
        if (terminal.getCursorLocation().first.value != 0) {
            terminal.cmdCarriageReturn();
            terminal.cmdLineFeedBasic();
        }
    };
    switch (command) {
    case 'A':
    case 'N': {
        const SemanticPromptKind kind = options.kind.value_or(SemanticPromptKind::initial);
        // N joins the open group the cursor's row already started (a prompt drawn in parts),
        // and needs no fresh line for that.
        const bool joinsRow =
            command == 'N' && m_activeGroup != 0 &&
            rowHasGroupMark(terminal, terminal.buffer().lineIndex(terminal.getCursorLocation().second));
        if (!joinsRow) {
            freshLine();
            if (canReuseSemanticGroup(kind)) {
                const LineIndex row = terminal.buffer().lineIndex(terminal.getCursorLocation().second);
                terminal.annotatableLine(row).setSemanticHardContinuationGroup(m_activeGroup);
            } else {
                beginSemanticPromptGroup(terminal);
                m_clickMode = {};
                m_specialKeys = false;
                // A line feed may have carried the group before into this row.
                const LineIndex row = terminal.buffer().lineIndex(terminal.getCursorLocation().second);
                BufferLine& line = terminal.annotatableLine(row);
                if (line.semanticHardContinuationGroup())
                    line.setSemanticHardContinuationGroup(std::nullopt);
            }
        }
        applyOptions(options);
        m_kind = kind;
        m_inputLineOnly = false;
        m_input = SemanticInputState::prompt;
        setContent(terminal, SemanticContent::prompt(kind));
        setSemanticMark(terminal, SemanticContent::prompt(kind));
        break;
    }
    case 'L':
        freshLine();
        break;
    case 'P':
        m_kind = options.kind.value_or(m_kind);
        applyOptions(options);
        setContent(terminal, SemanticContent::prompt(m_kind));
        setSemanticMark(terminal, SemanticContent::prompt(m_kind));
        break;
    case 'B':
    case 'I':
        if (m_activeGroup == 0)
            beginSemanticPromptGroup(terminal);
        applyOptions(options);
        m_inputLineOnly = command == 'I';
        m_input = SemanticInputState::prompt;
        setContent(terminal, SemanticContent::input());
        setSemanticMark(terminal, SemanticContent::input());
        break;
    case 'C':
        clearEchoedEnterContinuationBeforeOutput(terminal);
        m_input = SemanticInputState::idle;
        setContent(terminal, SemanticContent::output());
        setSemanticMark(terminal, SemanticContent::output());
        break;
    case 'D':
        m_input = SemanticInputState::idle;
        setContent(terminal, SemanticContent::none());
        m_activeGroup = 0;
        m_semanticPromptStartRowCache.reset();
        break;
    default:
        terminal.log("Termkit: unknown semantic prompt command dropped");
        break;
    }
    updateLineAdvanceWanted(terminal);
}

void SemanticPrompts::semanticNoteAlternateScreenSwitch(Terminal& terminal) {
    m_input = SemanticInputState::idle;
    updateLineAdvanceWanted(terminal);
}

void SemanticPrompts::reset(Terminal& terminal, bool) {
    setContent(terminal, SemanticContent::none());
    m_input = SemanticInputState::idle;
    m_activeGroup = 0;
    m_semanticPromptStartRowCache.reset();
    m_clickMode = {};
    m_specialKeys = false;
    m_inputLineOnly = false;
    resetUserInputScanner();
    terminal.setSemanticLineAdvanceWanted(false);
}

void SemanticPrompts::resetSemanticPromptState(Terminal& terminal, bool clearingScreenMarks) {
    m_input = SemanticInputState::idle;
    m_activeGroup = 0;
    m_semanticPromptStartRowCache.reset();
    setContent(terminal, SemanticContent::none());
    terminal.setSemanticLineAdvanceWanted(false);
    if (!clearingScreenMarks)
        return;
    const Buffer& b = terminal.buffer();
    for (int r = 0; r < terminal.rows(); ++r)
        terminal.annotatableLine(b.lineIndex(ScreenRow(r))).destroySemanticState();
}

void SemanticPrompts::resetUserInputScanner() {
    m_scan = SemanticScanState::ground;
    m_semanticScanParams.clear();
    m_semanticScanInPaste = false;
}

void SemanticPrompts::sendUserInput(std::span<const uint8_t> bytes) {
    for (uint8_t b : bytes) {
        switch (m_scan) {
        case SemanticScanState::ground:
            if (b == 0x1b) {
                m_scan = SemanticScanState::escape;
            } else if ((b == '\r' || b == '\n') && !m_semanticScanInPaste) {
                if (m_input == SemanticInputState::prompt || m_input == SemanticInputState::armed)
                    m_input = SemanticInputState::submitted;
            } else if (b >= 0x20 && m_input == SemanticInputState::prompt) {
                m_input = SemanticInputState::armed;
            }
            break;
        case SemanticScanState::escape:
            m_scan = b == '[' ? SemanticScanState::csi : SemanticScanState::ground;
            m_semanticScanParams.clear();
            break;
        case SemanticScanState::csi:
            if (b >= 0x40 && b <= 0x7E) {
                // The bracketed paste markers: newlines between them are pasted text.
                if (b == '~' && m_semanticScanParams == "200")
                    m_semanticScanInPaste = true;
                else if (b == '~' && m_semanticScanParams == "201")
                    m_semanticScanInPaste = false;
                m_scan = SemanticScanState::ground;
            } else {
                m_semanticScanParams += static_cast<char>(b);
            }
            break;
        }
    }
}

// --- Reading the marks ------------------------------------------------------------------------

SemanticContent SemanticPrompts::semanticContent(const Terminal& terminal, LineIndex atRow, Col col) {
    const Buffer& b = terminal.buffer();
    if (atRow.value < 0 || atRow.value >= b.lineCount())
        return SemanticContent::none();
    const BufferLine& line = b.line(atRow);
    if (col.value < 0 || col.value >= line.count())
        return SemanticContent::none();
    return SemanticContent::fromCode(line[col.value].semanticContentCode);
}

std::vector<SemanticPromptAnchor> SemanticPrompts::semanticPromptMarks(const Terminal& terminal) {
    std::vector<SemanticPromptAnchor> out;
    const Buffer& b = terminal.buffer();
    for (int i = 0; i < b.lineCount(); ++i) {
        const BufferLine* line = b.lines().peek(i);
        if (line == nullptr)
            continue;
        for (const SemanticMark& mark : line->semanticMarks()) {
            const SemanticContent content = SemanticContent::fromCode(mark.kind);
            if (content.type == SemanticContent::Type::prompt)
                out.push_back({Position(Col(mark.column), LineIndex(i)), content.kind});
        }
    }
    return out;
}

std::optional<uint64_t> SemanticPrompts::semanticRow(const Terminal& terminal, LineIndex row) {
    const Buffer& b = terminal.buffer();
    for (; row.value >= 0 && row.value < b.lineCount(); --row) {
        const BufferLine& line = b.line(row);
        // An output mark starts what the command printed, which is no part of its prompt.
        for (const SemanticMark& mark : line.semanticMarks())
            if (mark.group != 0 && mark.kind != SemanticContent::kOutputCode)
                return mark.group;
        if (line.semanticHardContinuationGroup())
            return line.semanticHardContinuationGroup();
        if (!line.isWrapped())
            break;
    }
    return std::nullopt;
}

std::optional<SemanticPromptKind> SemanticPrompts::semanticRowKind(const Terminal& terminal, LineIndex row) {
    const Buffer& b = terminal.buffer();
    if (row.value < 0 || row.value >= b.lineCount())
        return std::nullopt;
    for (const SemanticMark& mark : b.line(row).semanticMarks()) {
        const SemanticContent content = SemanticContent::fromCode(mark.kind);
        if (content.type == SemanticContent::Type::prompt)
            return content.kind;
    }
    return std::nullopt;
}

bool SemanticPrompts::rowHasGroupMark(const Terminal& terminal, LineIndex row) const {
    const BufferLine& line = terminal.buffer().line(row);
    return std::any_of(line.semanticMarks().begin(), line.semanticMarks().end(),
                       [&](const SemanticMark& m) { return m.group == m_activeGroup; }) ||
           line.semanticHardContinuationGroup() == m_activeGroup;
}

bool SemanticPrompts::rowContinuesActiveGroupHard(const Terminal& terminal, LineIndex row) const {
    // Marked for the group, carried into it, or wrapped from a row that is.
    const Buffer& b = terminal.buffer();
    for (; row.value >= 0 && row.value < b.lineCount(); --row) {
        if (rowHasGroupMark(terminal, row))
            return true;
        if (!b.line(row).isWrapped())
            return false;
    }
    return false;
}

std::optional<LineIndex> SemanticPrompts::findSemanticPromptRebindRow(const Terminal& terminal) const {
    // Upward from the cursor: the group's first row is the highest one with its marks, below
    // any row of an older group.
    const Buffer& b = terminal.buffer();
    const LineIndex cursor = b.lineIndex(terminal.getCursorLocation().second);
    std::optional<LineIndex> found;
    for (int n = 0; n < kSemanticPromptRowScanCount && cursor.value - n >= 0; ++n) {
        const LineIndex row = cursor - n;
        if (rowHasGroupMark(terminal, row)) {
            found = row;
            continue;
        }
        const auto& marks = b.line(row).semanticMarks();
        if (std::any_of(marks.begin(), marks.end(), [](const SemanticMark& m) { return m.group != 0; }))
            break;
    }
    if (found)
        m_semanticPromptStartRowCache =
            std::pair(b.invariantBase() - b.yBase().value + found->value, b.line(*found).identity());
    return found;
}

std::optional<LineIndex> SemanticPrompts::semanticPromptStartRow(const Terminal& terminal) const {
    if (m_activeGroup == 0)
        return std::nullopt;
    const Buffer& b = terminal.buffer();
    if (m_semanticPromptStartRowCache) {
        const long long index = m_semanticPromptStartRowCache->first - (b.invariantBase() - b.yBase().value);
        if (index >= 0 && index < b.lineCount()) {
            const LineIndex row(static_cast<int>(index));
            if (b.line(row).identity() == m_semanticPromptStartRowCache->second &&
                rowHasGroupMark(terminal, row))
                return row;
        }
    }
    return findSemanticPromptRebindRow(terminal);
}

std::optional<Position> SemanticPrompts::activeSemanticPromptOrigin(const Terminal& terminal) const {
    const std::optional<LineIndex> row = semanticPromptStartRow(terminal);
    if (!row)
        return std::nullopt;
    for (const SemanticMark& m : terminal.buffer().line(*row).semanticMarks())
        if (m.group == m_activeGroup)
            return Position(Col(m.column), *row);
    return Position(Col(0), *row);
}

std::optional<Position> SemanticPrompts::inputStart(const Terminal& terminal) const {
    const std::optional<LineIndex> start = semanticPromptStartRow(terminal);
    if (!start)
        return std::nullopt;
    const Buffer& b = terminal.buffer();
    const LineIndex cursor = b.lineIndex(terminal.getCursorLocation().second);
    for (LineIndex r = *start; r <= cursor && r.value < b.lineCount(); ++r)
        for (const SemanticMark& m : b.line(r).semanticMarks())
            if (m.group == m_activeGroup && m.kind == SemanticContent::kInputCode)
                return Position(Col(m.column), r);
    return std::nullopt;
}

int SemanticPrompts::firstInputColumn(const Terminal& terminal, LineIndex row) const {
    const BufferLine& line = terminal.buffer().line(row);
    // Where the shell said the input starts; else the first typed cell; else after the
    // prompt drawn on the row (a continuation prompt without its B).
    for (const SemanticMark& m : line.semanticMarks())
        if (m.group == m_activeGroup && m.kind == SemanticContent::kInputCode)
            return m.column;
    int afterPrompt = 0;
    for (int c = 0; c < line.count(); ++c) {
        const uint8_t code = line[c].semanticContentCode;
        if (code == SemanticContent::kInputCode)
            return c;
        if (code >= SemanticContent::kPromptCode)
            afterPrompt = c + 1;
    }
    return afterPrompt;
}

int SemanticPrompts::rowEnd(const Terminal& terminal, LineIndex row) const {
    const Buffer& b = terminal.buffer();
    if (row.value + 1 < b.lineCount() && b.line(row + 1).isWrapped())
        return terminal.cols();
    int end = b.line(row).getTrimmedLength();
    const auto [col, cursorRow] = terminal.getCursorLocation();
    if (b.lineIndex(cursorRow) == row)
        end = std::max(end, col.value);
    return end;
}

SemanticGroupGeometry SemanticPrompts::semanticGroupGeometry(const Terminal& terminal) const {
    SemanticGroupGeometry geometry;
    const std::optional<LineIndex> start = semanticPromptStartRow(terminal);
    if (!start)
        return geometry;
    const Buffer& b = terminal.buffer();
    const LineIndex cursor = b.lineIndex(terminal.getCursorLocation().second);
    const LineIndex screenEnd = b.lineIndex(b.lastRow());
    LineIndex first = *start;
    LineIndex last = std::max(cursor, *start);
    if (m_inputLineOnly) {
        // The I mark: the one row it is on, with the rows that row wraps into.
        if (const std::optional<Position> input = inputStart(terminal))
            first = last = input->row;
        while (last < screenEnd && last.value + 1 < b.lineCount() && b.line(last + 1).isWrapped())
            ++last;
    } else {
        // Below the cursor, rows the group still holds (the cursor moved up into it).
        while (last < screenEnd && last.value + 1 < b.lineCount() &&
               rowContinuesActiveGroupHard(terminal, last + 1))
            ++last;
    }
    // The rows the group holds: the prompt's and the input's, marked or carried by line
    // feeds, with the rows they wrap into; other rows in between (output the cursor passed
    // over) are not its.
    for (LineIndex r = first; r <= last; ++r)
        if (m_inputLineOnly || rowContinuesActiveGroupHard(terminal, r))
            geometry.rows.push_back({r, firstInputColumn(terminal, r)});
    return geometry;
}

bool SemanticPrompts::isSemanticClickEligible(const Terminal& terminal, Position at) const {
    if (terminal.isAlternateBufferActive() ||
        (m_input != SemanticInputState::prompt && m_input != SemanticInputState::armed))
        return false;
    const Buffer& b = terminal.buffer();
    if (at.row < b.yBase() || at.row > b.lineIndex(b.lastRow()) || at.col.value < 0 ||
        at.col.value >= terminal.cols())
        return false;
    return semanticGroupGeometry(terminal).find(at.row) != nullptr;
}

bool SemanticPrompts::mightRouteSemanticPromptClick(const SemanticPromptPointerSnapshot& snapshot) {
    return snapshot.pressWasSemanticEligible && !snapshot.didDrag && snapshot.clickCount == 1;
}

std::string SemanticPrompts::clickReport(const Terminal& terminal, Position at) const {
    // A press and a release of the first button, in the SGR encoding (1-based).
    int x = at.col.value + 1;
    int y = terminal.buffer().screenRow(at.row).value + 1;
    if (m_clickMode.type == SemanticPromptClickMode::Type::clickEventsRelative) {
        const Position origin = activeSemanticPromptOrigin(terminal).value_or(at);
        x = std::max(at.col.value - origin.col.value, 0) + 1;
        y = at.row.value - origin.row.value + 1;
    }
    const std::string cell = std::to_string(x) + ";" + std::to_string(y);
    return "\x1b[<0;" + cell + "M\x1b[<0;" + cell + "m";
}

std::optional<std::string>
SemanticPrompts::handleSemanticPromptClick(const Terminal& terminal, Position at,
                                           SemanticPromptClickModifiers modifiers) const {
    if (m_behavior.type == SemanticPromptClickBehavior::Type::disabled)
        return std::nullopt;
    if (m_behavior.type == SemanticPromptClickBehavior::Type::requireModifier &&
        modifiers != m_behavior.modifiers)
        return std::nullopt;
    if (!isSemanticClickEligible(terminal, at))
        return std::nullopt;
    const SemanticGroupGeometry geometry = semanticGroupGeometry(terminal);
    const SemanticGroupGeometry::Row* targetRow = geometry.find(at.row);
    switch (m_clickMode.type) {
    case SemanticPromptClickMode::Type::none:
        return std::nullopt;
    case SemanticPromptClickMode::Type::clickEventsAbsolute:
    case SemanticPromptClickMode::Type::clickEventsRelative:
        return clickReport(terminal, at);
    case SemanticPromptClickMode::Type::cursorKeys:
        break;
    }
    const Buffer& buffer = terminal.buffer();
    const auto [cursorColumn, cursorScreenRow] = terminal.getCursorLocation();
    const Position cursor(cursorColumn, buffer.lineIndex(cursorScreenRow));
    const SemanticGroupGeometry::Row* cursorRow = geometry.find(cursor.row);
    if (cursorRow == nullptr)
        return std::nullopt;
    // normalizeSemanticClickTarget: past the end of a row to its end; on a right half, to its
    // character; before the row's input (on the prompt) it is not the input's click.
    const BufferLine& line = buffer.line(at.row);
    int target = std::min(at.col.value, std::max(targetRow->firstInputColumn, rowEnd(terminal, at.row)));
    if (target < targetRow->firstInputColumn)
        return std::nullopt;
    if (target > targetRow->firstInputColumn && target < line.count() && line[target].width == 0)
        --target;
    const SemanticPromptCursorClickMode mode = m_clickMode.cursor;
    // A line editor of one row only: other rows are not its to reach.
    if (mode == SemanticPromptCursorClickMode::line && at.row != cursor.row)
        return std::nullopt;
    const CursorKeys& keys =
        m_specialKeys ? kSpecialKeys : (terminal.applicationCursor() ? kApplicationKeys : kNormalKeys);
    std::string out;
    const int cursorFirst = cursorRow->firstInputColumn;
    const int cursorCol = std::max(cursor.col.value, cursorFirst);
    if (at.row != cursor.row && !m_specialKeys &&
        (mode == SemanticPromptCursorClickMode::conservativeVertical ||
         mode == SemanticPromptCursorClickMode::smartVertical)) {
        // To the start of the cursor's row, up or down the rows, then along the target's row.
        const BufferLine& cursorLine = buffer.line(cursor.row);
        repeat(out, keys.left, characters(cursorLine, cursorFirst, cursorCol));
        const int rows = at.row.value - cursor.row.value;
        repeat(out, rows < 0 ? keys.up : keys.down, std::abs(rows));
        repeat(out, keys.right, characters(line, targetRow->firstInputColumn, target));
        return out;
    }
    // semanticOffset: characters from the input's start, rows joined (one for each row break
    // the shell made itself, none where the text wrapped).
    const auto semanticOffset = [&](LineIndex row, int col) {
        int offset = 0;
        for (const SemanticGroupGeometry::Row& r : geometry.rows) {
            const BufferLine& l = buffer.line(r.row);
            if (r.row == row)
                return offset + characters(l, r.firstInputColumn, std::max(col, r.firstInputColumn));
            offset += characters(l, r.firstInputColumn, rowEnd(terminal, r.row));
            if (!(r.row.value + 1 < buffer.lineCount() && buffer.line(r.row + 1).isWrapped()))
                ++offset;
        }
        return offset;
    };
    const int distance = semanticOffset(at.row, target) - semanticOffset(cursor.row, cursorCol);
    repeat(out, distance < 0 ? keys.left : keys.right, std::abs(distance));
    return out;
}

} // namespace termkit
