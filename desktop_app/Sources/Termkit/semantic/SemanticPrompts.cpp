#include "Termkit/semantic/SemanticPrompts.h"

#include <string_view>

#include "Termkit/engine/Terminal.h"

namespace termkit {

namespace {

constexpr std::string_view kRight = "\x1b[C";
constexpr std::string_view kLeft = "\x1b[D";
constexpr std::string_view kRightApp = "\x1bOC";
constexpr std::string_view kLeftApp = "\x1bOD";

} // namespace

long long SemanticPrompts::invariant(const Terminal& terminal, LineIndex row) {
    const Buffer& b = terminal.buffer();
    return b.invariantBase() - b.yBase().value + row.value;
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
        }
    }
    return o;
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
    const auto [col, row] = terminal.getCursorLocation();
    const LineIndex line = terminal.buffer().lineIndex(row);
    switch (command) {
    case 'A':
    case 'N':
    case 'L':
        // A prompt starts on a fresh line: after output that did not end with one, the
        // prompt would otherwise be drawn after it.
        if (col.value != 0) {
            terminal.cmdCarriageReturn();
            terminal.cmdLineFeedBasic();
        }
        if (command == 'L')
            break;
        m_promptRow = invariant(terminal, terminal.buffer().lineIndex(terminal.getCursorLocation().second));
        m_kind = options.kind.value_or(SemanticPromptKind::initial);
        m_clickMode = options.clickMode.value_or(SemanticPromptCursorClickMode::line);
        m_inputStart.reset();
        m_input = SemanticInputState::prompt;
        break;
    case 'P':
        m_kind = options.kind.value_or(m_kind);
        break;
    case 'B':
    case 'I':
        m_inputStart = std::pair(invariant(terminal, line), col.value);
        m_input = SemanticInputState::prompt;
        break;
    case 'C':
    case 'D':
        m_input = SemanticInputState::idle;
        m_inputStart.reset();
        break;
    default:
        terminal.log("Termkit: unknown semantic prompt command dropped");
        break;
    }
}

void SemanticPrompts::semanticNoteAlternateScreenSwitch(Terminal&) {
    m_input = SemanticInputState::idle;
}

void SemanticPrompts::reset(Terminal&, bool) {
    m_input = SemanticInputState::idle;
    m_promptRow.reset();
    m_inputStart.reset();
    m_scan = Scan::ground;
    m_inPaste = false;
}

void SemanticPrompts::sendUserInput(std::span<const uint8_t> bytes) {
    for (uint8_t b : bytes) {
        switch (m_scan) {
        case Scan::ground:
            if (b == 0x1b) {
                m_scan = Scan::escape;
            } else if ((b == '\r' || b == '\n') && !m_inPaste) {
                if (m_input == SemanticInputState::prompt || m_input == SemanticInputState::armed)
                    m_input = SemanticInputState::submitted;
            } else if (b >= 0x20 && m_input == SemanticInputState::prompt) {
                m_input = SemanticInputState::armed;
            }
            break;
        case Scan::escape:
            m_scan = b == '[' ? Scan::csi : Scan::ground;
            m_csiParams.clear();
            break;
        case Scan::csi:
            if (b >= 0x40 && b <= 0x7E) {
                // The bracketed paste markers: newlines between them are pasted text.
                if (b == '~' && m_csiParams == "200")
                    m_inPaste = true;
                else if (b == '~' && m_csiParams == "201")
                    m_inPaste = false;
                m_scan = Scan::ground;
            } else {
                m_csiParams += static_cast<char>(b);
            }
            break;
        }
    }
}

std::optional<Position> SemanticPrompts::inputStart(const Terminal& terminal) const {
    if (!m_inputStart)
        return std::nullopt;
    const Buffer& b = terminal.buffer();
    const long long row = m_inputStart->first - (b.invariantBase() - b.yBase().value);
    if (row < 0 || row >= b.lineCount())
        return std::nullopt;
    return Position(Col(m_inputStart->second), LineIndex(static_cast<int>(row)));
}

std::optional<std::string> SemanticPrompts::handleSemanticPromptClick(const Terminal& terminal,
                                                                      Position at) const {
    if (terminal.isAlternateBufferActive() ||
        (m_input != SemanticInputState::prompt && m_input != SemanticInputState::armed))
        return std::nullopt;
    const std::optional<Position> input = inputStart(terminal);
    if (!input)
        return std::nullopt;
    const Buffer& buffer = terminal.buffer();
    const auto [cursorCol, cursorRow] = terminal.getCursorLocation();
    const LineIndex cursorLine = buffer.lineIndex(cursorRow);
    // Only the cursor's own row in mode "line": vertical moves are not the line editor's.
    if (at.row != cursorLine || at.row < input->row)
        return std::nullopt;
    const BufferLine& line = buffer.line(at.row);
    const int first = at.row == input->row ? input->col.value : 0;
    // A click past the end of the typed text goes to its end; on a right half, to its character.
    int target = std::min(at.col.value, std::max(first, line.getTrimmedLength()));
    if (target < first)
        return std::nullopt;
    if (target > 0 && target < line.count() && line[target].width == 0)
        --target;
    // Characters, not cells, between the cursor and the target: a wide character is one key.
    const int from = std::min(cursorCol.value, target);
    const int to = std::max(cursorCol.value, target);
    int characters = 0;
    for (int c = from; c < to; ++c)
        if (c >= line.count() || line[c].width != 0)
            ++characters;
    const bool right = target > cursorCol.value;
    const std::string_view key =
        terminal.applicationCursor() ? (right ? kRightApp : kLeftApp) : (right ? kRight : kLeft);
    std::string out;
    for (int i = 0; i < characters; ++i)
        out += key;
    return out;
}

} // namespace termkit
