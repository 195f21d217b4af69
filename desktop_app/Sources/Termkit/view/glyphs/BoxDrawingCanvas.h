#pragma once
// Lines of the box-drawing block, laid out so that they meet their neighbours exactly.

#include "Termkit/view/glyphs/GlyphCanvas.h"

namespace termkit {

/// The weight of one arm of a box-drawing character.
enum class LineWeight : uint8_t { none, light, heavy, doubled };

/// The four arms that meet in the middle of a cell.
struct BoxArms {
    LineWeight up = LineWeight::none;
    LineWeight right = LineWeight::none;
    LineWeight down = LineWeight::none;
    LineWeight left = LineWeight::none;
    bool operator==(const BoxArms&) const = default;
};

/// Which corner a rounded arc joins: the two arms it connects.
enum class ArcCorner : uint8_t { downAndRight, downAndLeft, upAndLeft, upAndRight };

/// Draws box-drawing shapes into one cell. Every stroke of a given weight sits on the same
/// pixel rows (or columns) in every cell of the same size, and arms run to the cell's edge,
/// so a line drawn from many cells is one unbroken line.
class BoxDrawingCanvas {
public:
    BoxDrawingCanvas(int cellWidth, int cellHeight, int lightThickness, bool antiAlias);

    /// Pixels across a stroke of a weight (a doubled line is two light strokes).
    int thickness(LineWeight weight) const;
    /// Left column of a vertical stroke of this thickness, centred in the cell.
    int strokeX(int thickness) const { return (m_canvas.width() - thickness) / 2; }
    /// Top row of a horizontal stroke of this thickness, centred in the cell.
    int strokeY(int thickness) const { return (m_canvas.height() - thickness) / 2; }

    /// A horizontal stroke over columns [x0, x1) whose top row is `y`.
    void hline(int x0, int x1, int y, int thickness);
    /// A vertical stroke over rows [y0, y1) whose left column is `x`.
    void vline(int y0, int y1, int x, int thickness);
    /// A light quarter circle from the middle of one edge to the middle of another.
    void arc(ArcCorner corner);
    /// A line across the cell cut into `count` dashes, with the gaps split between the two
    /// ends of each dash so that dashes keep their rhythm across cells.
    void dashHorizontal(int count, LineWeight weight);
    void dashVertical(int count, LineWeight weight);
    void lightDiagonalUpperLeftToLowerRight();
    void lightDiagonalUpperRightToLowerLeft();
    /// The straight lines of a character from the weights of its four arms.
    void linesChar(BoxArms arms);

    GlyphBitmap bitmap() const { return m_canvas.toBitmap(); }
    const GlyphCanvas& canvas() const { return m_canvas; }

private:
    // The span across the cell covered by the strokes of the perpendicular arms.
    struct Span {
        int start = 0;
        int end = 0;
        bool present = false;
    };
    Span verticalSpan(BoxArms arms) const;
    Span horizontalSpan(BoxArms arms) const;
    void horizontalArm(BoxArms arms, LineWeight weight, bool leftArm);
    void verticalArm(BoxArms arms, LineWeight weight, bool upArm);

    GlyphCanvas m_canvas;
    int m_light;
};

} // namespace termkit
