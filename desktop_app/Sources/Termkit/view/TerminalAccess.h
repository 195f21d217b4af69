#pragma once
// Everything the view reads of the terminal, in one place.

#include <optional>
#include <string>

#include "Termkit/engine/Terminal.h"
#include "Termkit/view/input/InputModes.h"
#include "Termkit/view/render/FrameBuilder.h"

namespace termkit {

/// The colours a frame resolves cells with.
struct ViewColors {
    uint32_t foreground = 0xFF000000u;
    uint32_t background = 0xFFFFFFFFu;
    bool useBrightColors = true;
};

/// Where the caret is and how it looks, as the terminal says.
struct CaretState {
    int col = 0;
    int row = 0;
    /// The program has not hidden it and the view shows the screen (not the scrollback).
    bool visible = true;
    CursorStyle style = CursorStyle::blinkBlock;
    /// The style blinks, or the program turned blinking on (DECSET 12).
    bool blinks = true;
};

namespace TerminalAccess {

/// The modes the input encoders need, now.
InputModes inputModes(Terminal& terminal);
CaretState caret(Terminal& terminal);
bool synchronizedOutputActive(Terminal& terminal);
/// The line index of the top row on display: it moves as output scrolls and as the person
/// scrolls back, and every row's place with it.
int displayTop(Terminal& terminal);
/// A number that changes whenever the colours a cell may resolve to change (palette,
/// default colours, reverse video).
uint64_t colorStamp(Terminal& terminal, const ViewColors& colors);
/// The background the view paints behind every row.
uint32_t effectiveBackground(Terminal& terminal, const ViewColors& colors);
/// Lines of scrollback above the screen.
int scrollbackLines(Terminal& terminal);
/// How many lines the view is scrolled back from the bottom.
int linesScrolledBack(Terminal& terminal);
/// Shows the screen scrolled back by `lines` (0 is the bottom), clamped.
void scrollBackTo(Terminal& terminal, int lines);
void setUserScrolling(Terminal& terminal, bool scrolling);
/// The default colours of the terminal (as programs may have changed them), as 0xAARRGGBB.
uint32_t foreground(Terminal& terminal);
uint32_t background(Terminal& terminal);
/// The directory the program last reported (OSC 7), if any.
std::optional<std::string> hostCurrentDirectory(Terminal& terminal);
/// 16-bit colour channels to 0xFFRRGGBB.
uint32_t argb(const Color& color);
/// The cell under the caret, resolved like the rows are, and its text when a cluster. On
/// the right half of a wide character `col` moves to its left half.
RenderCell cellAt(Terminal& terminal, int& col, int row, const ViewColors& colors, QString& cluster);

} // namespace TerminalAccess

/// The rows of a terminal's display for the frame builder.
class TerminalRowSource : public RowSource {
public:
    TerminalRowSource(Terminal& terminal, ViewColors colors) : m_terminal(terminal), m_colors(colors) {}
    int rowCount() const override;
    RowKey rowKey(int row) const override;
    void copyRow(int row, RowSnapshot& out) const override;

private:
    Terminal& m_terminal;
    ViewColors m_colors;
};

} // namespace termkit
