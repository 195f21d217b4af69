#pragma once
// Semantic prompts (OSC 133): where the shell's prompt and the typed command line are, so
// that a click inside the command line can move the cursor there.

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "Termkit/buffer/Indices.h"
#include "Termkit/engine/TerminalExtensions.h"

namespace termkit {

class Terminal;

enum class SemanticPromptKind : uint8_t { initial, right, continuation, secondary };
/// Where the person is with a command: nothing marked, at a prompt, typing into it, or
/// the command was sent (Enter outside a bracketed paste).
enum class SemanticInputState : uint8_t { idle, prompt, armed, submitted };
enum class SemanticPromptCursorClickMode : uint8_t { line, multiple, conservativeVertical, smartVertical };

/// The terminal extension that follows OSC 133 marks. It keeps the start of the present
/// prompt and of its input as rows that survive scrolling, and the input state, which the
/// host's typing drives through `sendUserInput`.
class SemanticPrompts : public TerminalExtensions {
public:
    void oscSemanticPrompt(Terminal& terminal, std::span<const uint8_t> data) override;
    void semanticNoteAlternateScreenSwitch(Terminal& terminal) override;
    void reset(Terminal& terminal, bool hard) override;

    /// Bytes the person typed or pasted, on their way to the program: Enter at the top level
    /// submits the command; inside a bracketed paste it does not.
    void sendUserInput(std::span<const uint8_t> bytes);

    SemanticInputState inputState() const { return m_input; }
    SemanticPromptKind promptKind() const { return m_kind; }
    SemanticPromptCursorClickMode clickMode() const { return m_clickMode; }
    /// Where the prompt's input began (the B mark), in buffer coordinates, if it is still kept.
    std::optional<Position> inputStart(const Terminal& terminal) const;

    /// The cursor keys that move the cursor from where it is to a clicked cell of the command
    /// line, or nothing when the click is not the prompt's to take (no prompt waiting for
    /// input, the alternate screen, a row other than the cursor's in mode `line`, a cell
    /// before the input).
    std::optional<std::string> handleSemanticPromptClick(const Terminal& terminal, Position at) const;

private:
    struct Options {
        std::optional<SemanticPromptKind> kind;
        std::optional<SemanticPromptCursorClickMode> clickMode;
        bool valid = true;
    };
    static Options parseSemanticPromptOptions(std::string_view body);
    static long long invariant(const Terminal& terminal, LineIndex row);

    SemanticInputState m_input = SemanticInputState::idle;
    SemanticPromptKind m_kind = SemanticPromptKind::initial;
    SemanticPromptCursorClickMode m_clickMode = SemanticPromptCursorClickMode::line;
    // Rows as scroll-invariant numbers: a prompt stays found while output scrolls the ring.
    std::optional<long long> m_promptRow;
    std::optional<std::pair<long long, int>> m_inputStart;
    // The input scanner: inside an escape sequence, and inside a bracketed paste.
    enum class Scan : uint8_t { ground, escape, csi };
    Scan m_scan = Scan::ground;
    std::string m_csiParams;
    bool m_inPaste = false;
};

} // namespace termkit
