#pragma once
// A cell-sized coverage bitmap that shapes are drawn into by geometry.

#include <cstdint>
#include <utility>
#include <vector>

#include "Termkit/view/render/GlyphTypes.h"

namespace termkit {

/// Coverage in [0, 1] per pixel of one cell. Rectangles on whole pixels are exact, so that
/// lines which meet at a cell edge meet on the same pixel rows in both cells; curves,
/// diagonals and filled paths are sampled several times a pixel. Without anti-aliasing
/// every pixel is either covered or not.
class GlyphCanvas {
public:
    /// Samples per pixel along each axis for curves and paths.
    static constexpr int kSubsamples = 4;

    struct Point {
        double x = 0;
        double y = 0;
    };

    GlyphCanvas(int width, int height, bool antiAlias);

    int width() const { return m_width; }
    int height() const { return m_height; }
    double coverage(int x, int y) const { return m_coverage[static_cast<size_t>(y) * m_width + x]; }

    /// Covers the pixels of [x0, x1) x [y0, y1), clipped to the cell, at `alpha`.
    void fillRect(int x0, int y0, int x1, int y1, double alpha = 1);
    /// Covers what lies inside a closed polygon (even-odd rule).
    void fillPolygon(const std::vector<Point>& points);
    /// Covers what lies within `thickness / 2` of the segment.
    void strokeSegment(Point from, Point to, double thickness);
    /// Covers what lies within `thickness / 2` of an arc of a circle, angles in radians,
    /// measured clockwise from the positive x axis (y grows downwards).
    void strokeArc(Point centre, double radius, double startAngle, double endAngle, double thickness);
    /// Covers what lies inside a circle, clipped to the half-plane x >= clipX (or <= when
    /// `keepRight` is false).
    void fillHalfDisc(Point centre, double radius, double clipX, bool keepRight);

    /// The pixels as 8-bit coverage, with the bearing at the cell's corner.
    GlyphBitmap toBitmap() const;

private:
    // Adds coverage from a test applied to every sample of every pixel.
    template <typename Inside> void sample(const Inside& inside);
    void cover(int x, int y, double amount);

    int m_width;
    int m_height;
    bool m_antiAlias;
    std::vector<double> m_coverage;
};

} // namespace termkit
