#pragma once
// Semantic prompts (OSC 133): which cells are prompt, typed input or a command's output, the
// prompt groups a shell draws (a first prompt and its continuation prompts), and the click
// inside the command line that moves the shell's cursor there.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Termkit/buffer/Indices.h"
#include "Termkit/engine/TerminalExtensions.h"

namespace termkit {

class Terminal;

enum class SemanticPromptKind : uint8_t { initial, right, continuation, secondary };
/// Where the person is with a command: nothing marked, at a prompt, typing into it, or
/// the command was sent (Enter outside a bracketed paste).
enum class SemanticInputState : uint8_t { idle, prompt, armed, submitted };
enum class SemanticPromptCursorClickMode : uint8_t { line, multiple, conservativeVertical, smartVertical };

/// What a cell holds, as the shell marked it. Kept in each cell as one byte
/// (`CharData::semanticContentCode`): 0 none, 1 input, 2 output, 3 + kind for a prompt.
struct SemanticContent {
    enum class Type : uint8_t { none, prompt, input, output };
    Type type = Type::none;
    SemanticPromptKind kind = SemanticPromptKind::initial; // for `prompt` only

    static constexpr SemanticContent none() { return {}; }
    static constexpr SemanticContent input() { return {Type::input, SemanticPromptKind::initial}; }
    static constexpr SemanticContent output() { return {Type::output, SemanticPromptKind::initial}; }
    static constexpr SemanticContent prompt(SemanticPromptKind k) { return {Type::prompt, k}; }

    static constexpr uint8_t kInputCode = 1;
    static constexpr uint8_t kOutputCode = 2;
    static constexpr uint8_t kPromptCode = 3;
    constexpr uint8_t code() const {
        switch (type) {
        case Type::input:
            return kInputCode;
        case Type::output:
            return kOutputCode;
        case Type::prompt:
            return static_cast<uint8_t>(kPromptCode + static_cast<uint8_t>(kind));
        case Type::none:
            break;
        }
        return 0;
    }
    static constexpr SemanticContent fromCode(uint8_t code) {
        if (code == kInputCode)
            return input();
        if (code == kOutputCode)
            return output();
        if (code >= kPromptCode && code <= kPromptCode + 3)
            return prompt(static_cast<SemanticPromptKind>(code - kPromptCode));
        return none();
    }
    constexpr bool operator==(const SemanticContent&) const = default;
};

/// What a click in the command line does: cursor keys in one of the modes, nothing, or a
/// mouse report to the program (at the screen cell, or as an offset to the prompt's start).
struct SemanticPromptClickMode {
    enum class Type : uint8_t { cursorKeys, none, clickEventsAbsolute, clickEventsRelative };
    Type type = Type::cursorKeys;
    SemanticPromptCursorClickMode cursor = SemanticPromptCursorClickMode::line;
    static constexpr SemanticPromptClickMode cursorKeys(SemanticPromptCursorClickMode mode) {
        return {Type::cursorKeys, mode};
    }
    constexpr bool operator==(const SemanticPromptClickMode&) const = default;
};

/// Modifier keys held with a click, as an option set.
struct SemanticPromptClickModifiers {
    static constexpr uint8_t shift = 1;
    static constexpr uint8_t alt = 2;
    static constexpr uint8_t control = 4;
    static constexpr uint8_t super = 8;
    uint8_t bits = 0;
    constexpr bool operator==(const SemanticPromptClickModifiers&) const = default;
};

/// Whether clicks may move the cursor: never, always, or only with exactly these modifiers.
struct SemanticPromptClickBehavior {
    enum class Type : uint8_t { requireModifier, disabled, enabled };
    Type type = Type::enabled;
    SemanticPromptClickModifiers modifiers;
    static constexpr SemanticPromptClickBehavior requireModifier(SemanticPromptClickModifiers m) {
        return {Type::requireModifier, m};
    }
    static constexpr SemanticPromptClickBehavior disabled() { return {Type::disabled, {}}; }
    static constexpr SemanticPromptClickBehavior enabled() { return {Type::enabled, {}}; }
};

/// What a view knew of the pointer when the button went up.
struct SemanticPromptPointerSnapshot {
    bool selectionWasActive = false;
    bool didDrag = false;
    int clickCount = 1;
    bool pressWasSemanticEligible = false;
};

/// Where a prompt starts, and its kind.
struct SemanticPromptAnchor {
    Position position;
    SemanticPromptKind kind = SemanticPromptKind::initial;
    bool operator==(const SemanticPromptAnchor&) const = default;
};

/// The input area of the active prompt group: its rows, with each row's first input column.
struct SemanticGroupGeometry {
    struct Row {
        LineIndex row;
        int firstInputColumn = 0;
    };
    std::vector<Row> rows;
    const Row* find(LineIndex row) const;
};

/// The terminal extension that follows OSC 133 marks. Cells written while a class is active
/// carry its code; marks (with their prompt group) sit on the lines, so both scroll into the
/// scrollback with the text. The host's typing drives the input state through `sendUserInput`.
class SemanticPrompts : public TerminalExtensions {
public:
    /// How many rows above the cursor the start of the active prompt is looked for, when the
    /// remembered row no longer holds it (after scrolling, reflow or recycling).
    static constexpr int kSemanticPromptRowScanCount = 1000;

    void oscSemanticPrompt(Terminal& terminal, std::span<const uint8_t> data) override;
    void semanticNoteAlternateScreenSwitch(Terminal& terminal) override;
    void reset(Terminal& terminal, bool hard) override;
    /// At a line feed: an open prompt group takes in the row the cursor moved to (a prompt of
    /// several rows, the input's next row), and the input of an `I` mark ends with its row.
    void finishSemanticLineAdvance(Terminal& terminal) override;

    /// Bytes the person typed or pasted, on their way to the program: Enter at the top level
    /// submits the command; inside a bracketed paste it does not.
    void sendUserInput(std::span<const uint8_t> bytes);
    /// Forgets a half-read escape sequence and a bracketed paste in the typing.
    void resetUserInputScanner();
    /// Back to no prompt; with `clearingScreenMarks`, the screen's lines lose their marks.
    void resetSemanticPromptState(Terminal& terminal, bool clearingScreenMarks);

    SemanticInputState inputState() const { return m_input; }
    SemanticPromptKind promptKind() const { return m_kind; }
    SemanticPromptCursorClickMode clickMode() const { return m_clickMode.cursor; }
    const SemanticPromptClickMode& promptClickMode() const { return m_clickMode; }
    bool semanticUsesSpecialCursorKeys() const { return m_specialKeys; }
    /// The group new marks join; 0 when no prompt is open.
    uint64_t activeSemanticGroupID() const { return m_activeGroup; }

    void setSemanticPromptClickBehavior(SemanticPromptClickBehavior behavior) { m_behavior = behavior; }
    const SemanticPromptClickBehavior& semanticPromptClickBehavior() const { return m_behavior; }

    /// The class of a cell of the active buffer.
    static SemanticContent semanticContent(const Terminal& terminal, LineIndex atRow, Col col);
    /// The prompt starts kept in the active buffer, oldest first.
    static std::vector<SemanticPromptAnchor> semanticPromptMarks(const Terminal& terminal);
    /// The prompt group a row belongs to: by its prompt and input marks, by the group a line feed carried
    /// into it, or as the wrapped continuation of the row above; none for other rows.
    static std::optional<uint64_t> semanticRow(const Terminal& terminal, LineIndex row);
    /// The kind of the prompt that starts on a row, if one does.
    static std::optional<SemanticPromptKind> semanticRowKind(const Terminal& terminal, LineIndex row);
    /// Where the active prompt group started (its first mark), if it is still kept.
    std::optional<Position> activeSemanticPromptOrigin(const Terminal& terminal) const;
    /// Where the prompt's input began (the first B mark of the group), if it is still kept.
    std::optional<Position> inputStart(const Terminal& terminal) const;
    /// The rows of the active group's input, with each row's first input column.
    SemanticGroupGeometry semanticGroupGeometry(const Terminal& terminal) const;

    /// Whether a press at a cell could become a click this extension takes: a prompt waits
    /// for input in the normal buffer, and the cell is in a row of its group.
    bool isSemanticClickEligible(const Terminal& terminal, Position at) const;
    /// A view's early answer: a single click, no drag, pressed where a click is taken.
    static bool mightRouteSemanticPromptClick(const SemanticPromptPointerSnapshot& snapshot);

    /// The bytes that carry out a click in the command line (cursor keys, or a mouse report in
    /// the click-events modes), or nothing when the click is not the prompt's to take.
    std::optional<std::string> handleSemanticPromptClick(const Terminal& terminal, Position at,
                                                         SemanticPromptClickModifiers modifiers = {}) const;

private:
    struct Options {
        std::optional<SemanticPromptKind> kind;
        std::optional<SemanticPromptCursorClickMode> clickMode;
        std::optional<SemanticPromptClickMode::Type> clickEvents;
        std::optional<bool> specialKeys;
        bool valid = true;
    };
    static Options parseSemanticPromptOptions(std::string_view body);
    void applyOptions(const Options& options);
    void setContent(Terminal& terminal, SemanticContent content);
    void setSemanticMark(Terminal& terminal, SemanticContent content);
    void beginSemanticPromptGroup(Terminal& terminal);
    bool canReuseSemanticGroup(SemanticPromptKind kind) const;
    void clearEchoedEnterContinuationBeforeOutput(Terminal& terminal);
    bool rowHasGroupMark(const Terminal& terminal, LineIndex row) const;
    bool rowContinuesActiveGroupHard(const Terminal& terminal, LineIndex row) const;
    void updateLineAdvanceWanted(Terminal& terminal) const;
    std::optional<LineIndex> semanticPromptStartRow(const Terminal& terminal) const;
    std::optional<LineIndex> findSemanticPromptRebindRow(const Terminal& terminal) const;
    int firstInputColumn(const Terminal& terminal, LineIndex row) const;
    int rowEnd(const Terminal& terminal, LineIndex row) const;
    std::string clickReport(const Terminal& terminal, Position at) const;

    SemanticInputState m_input = SemanticInputState::idle;
    SemanticPromptKind m_kind = SemanticPromptKind::initial;
    SemanticPromptClickMode m_clickMode;
    bool m_specialKeys = false;
    SemanticPromptClickBehavior m_behavior;
    uint64_t m_semanticGroupCounter = 0;
    uint64_t m_activeGroup = 0;
    // The I mark: the input is the one row it is on.
    bool m_inputLineOnly = false;
    // Where the group's first mark was put, as a scroll-invariant row, with that line's
    // identity: after a reflow or a recycled ring the identity tells the row is stale.
    mutable std::optional<std::pair<long long, uint64_t>> m_semanticPromptStartRowCache;
    // The input scanner: inside an escape sequence, and inside a bracketed paste.
    enum class SemanticScanState : uint8_t { ground, escape, csi };
    SemanticScanState m_scan = SemanticScanState::ground;
    std::string m_semanticScanParams;
    bool m_semanticScanInPaste = false;
};

} // namespace termkit
