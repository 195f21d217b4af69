#pragma once
// The terminal's cells as the view draws them: attributes and the palette resolved to
// colours, clusters put aside, under the view's own default colours.

#include <cstdint>

#include <QString>

#include "Termkit/bidi/TerminalBidi.h"
#include "Termkit/engine/Terminal.h"
#include "Termkit/view/render/FrameBuilder.h"

namespace termkit {

/// The colours a frame resolves cells with.
struct ViewColors {
    uint32_t foreground = 0xFF000000u;
    uint32_t background = 0xFFFFFFFFu;
    bool useBrightColors = true;
};

/// 16-bit colour channels to 0xFFRRGGBB.
uint32_t argb(const Color& color);
/// A number that changes whenever the colours a cell may resolve to change (palette,
/// default colours, reverse video), so the row cache is dropped when it does.
uint64_t colorStamp(const Terminal& terminal, const ViewColors& colors);
/// The background the view paints behind every row (reverse video swaps the defaults).
uint32_t viewBackground(const Terminal& terminal, const ViewColors& colors);
/// The cell at a row of the display, resolved like the rows are, and its text when a
/// cluster. On the right half of a wide character `col` moves to its left half, which is
/// where the caret covering it starts.
RenderCell cellAt(const Terminal& terminal, int& col, int row, const ViewColors& colors, QString& cluster);

/// Puts a row's cells, copied in logical order, into the visual order of its bidi layout,
/// with the shaped and mirrored forms the layout gives in place of the characters.
void reorderForDisplay(RowSnapshot& row, const BidiRowLayout& layout);

/// The rows of a terminal's display for the frame builder, in visual order when `bidi` is
/// given (none: logical order, as a host that turned bidi off wants).
class TerminalRowSource : public RowSource {
public:
    TerminalRowSource(const Terminal& terminal, ViewColors colors, TerminalBidi* bidi = nullptr)
        : m_terminal(terminal), m_colors(colors), m_bidi(bidi) {}
    int rowCount() const override;
    RowKey rowKey(int row) const override;
    void copyRow(int row, RowSnapshot& out) const override;

private:
    const Terminal& m_terminal;
    ViewColors m_colors;
    TerminalBidi* m_bidi;
};

} // namespace termkit
