#pragma once
// The caret as a small picture of the cell it stands on.

#include <QImage>

#include "Termkit/view/TextBlink.h"
#include "Termkit/view/render/GlyphCache.h"
#include "Termkit/view/render/RenderCell.h"

namespace termkit {

/// How the caret looks at a moment.
struct CaretLook {
    CaretShape shape = CaretShape::block;
    /// Without focus the block is drawn hollow, so a glance tells which terminal types.
    bool focused = true;
    uint32_t caretColor = 0xFF000000u;
    /// The colour of the character inside a filled block.
    uint32_t caretTextColor = 0xFFFFFFFFu;
    /// Cells the caret covers (2 over a wide character).
    int cells = 1;
};

namespace CaretPainter {

/// Pixels across the bar caret and the underline caret.
inline constexpr int kBarThicknessPx = 2;

/// A transparent picture of the caret's cells in device pixels: a filled block with the
/// cell's character in the caret's text colour, a hollow block, an underline or a bar. The
/// character (with its style) comes from the same glyph cache as the rows.
QImage paint(const CaretLook& look, const RenderCell& cell, const QString& cluster, GlyphCache& glyphs);

} // namespace CaretPainter

} // namespace termkit
