#pragma once
// Text to pixels: one grapheme cluster at a time, placed in its cell.

#include <QString>

#include "Termkit/view/render/FontSet.h"
#include "Termkit/view/render/GlyphTypes.h"

namespace termkit {

/// Draws a cluster with the terminal's font (and the fonts the system falls back to for
/// characters it lacks) into a bitmap cropped to its ink, with its bearing from the cell's
/// corner. Clusters from a colour font (emoji) come out in colour, premultiplied; all others
/// as coverage, which the renderer tints with the cell's colour.
class GlyphRasterizer {
public:
    explicit GlyphRasterizer(const FontSet& fonts) : m_fonts(fonts) {}

    /// The cluster drawn over `cells` cells (1, or 2 for a wide character). A cluster with no
    /// ink (a space) gives an empty bitmap.
    GlyphBitmap rasterize(const QString& cluster, FontStyle style, int cells) const;

    const FontSet& fonts() const { return m_fonts; }

private:
    const FontSet& m_fonts;
};

} // namespace termkit
