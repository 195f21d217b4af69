#pragma once
// A copied row to the rectangles and glyph quads that draw it.

#include "Termkit/view/render/GlyphCache.h"
#include "Termkit/view/render/RenderCell.h"
#include "Termkit/view/render/RowGeometry.h"

namespace termkit {

/// What every row of a frame shares.
struct RowBuildContext {
    CellMetrics cell;
    /// The view's own background: cells of exactly this colour draw no rectangle.
    uint32_t defaultBackground = 0xFFFFFFFFu;
    /// Whether blinking cells are in their shown phase.
    bool blinkShown = true;
};

namespace RowBuilder {

/// Builds the geometry of screen row `row`, placing any new glyph in the cache's atlases.
/// Backgrounds of neighbouring cells with the same colour become one rectangle.
void build(const RowSnapshot& snapshot, int row, const RowBuildContext& context, GlyphCache& glyphs,
           RowGeometry& out);

} // namespace RowBuilder

} // namespace termkit
