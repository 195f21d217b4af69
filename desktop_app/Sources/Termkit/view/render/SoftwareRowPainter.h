#pragma once
// The rows drawn by the CPU into an image, for the software scene graph and as the fallback
// when the GPU path fails.

#include <QImage>

#include "Termkit/view/render/FrameBuilder.h"

namespace termkit {

/// Paints built rows into an image of the view's size in device pixels, with the glyphs
/// blended straight from the atlases' CPU copies: the same rasteriser, the same geometric
/// glyphs and the same geometry as the GPU path. Only rebuilt rows are painted again; each
/// row paints within its own band, so rows can be repainted alone.
class SoftwareRowPainter {
public:
    /// Brings the image up to the frame; true when any pixel changed. `defaultBackground` is
    /// what each row is filled with first (premultiplied; zero leaves it transparent).
    bool paint(FrameBuilder& frames, const FrameBuilder::Result& result, GlyphCache& glyphs, QSize deviceSize,
               int cellHeight, uint32_t defaultBackground);

    const QImage& image() const { return m_image; }

    /// Drawing primitives, public for the caret and for tests.
    static void fillRect(QImage& image, const ColorRect& rect, const QRect& clip);
    static void blendGray(QImage& image, const GlyphQuad& quad, const GlyphAtlas& atlas, const QRect& clip);
    static void blendColor(QImage& image, const GlyphQuad& quad, const GlyphAtlas& atlas, const QRect& clip);

private:
    void paintRow(const RowGeometry& row, int index, int cellHeight, uint32_t defaultBackground,
                  GlyphCache& glyphs);

    QImage m_image;
};

} // namespace termkit
