#include "Termkit/view/glyphs/BoxDrawingCanvas.h"

#include <algorithm>
#include <cmath>

namespace termkit {

BoxDrawingCanvas::BoxDrawingCanvas(int cellWidth, int cellHeight, int lightThickness, bool antiAlias)
    : m_canvas(cellWidth, cellHeight, antiAlias), m_light(std::max(lightThickness, 1)) {}

int BoxDrawingCanvas::thickness(LineWeight weight) const {
    switch (weight) {
    case LineWeight::none:
        return 0;
    case LineWeight::light:
    case LineWeight::doubled:
        return m_light;
    case LineWeight::heavy:
        return m_light * 2;
    }
    return m_light;
}

void BoxDrawingCanvas::hline(int x0, int x1, int y, int thickness) {
    m_canvas.fillRect(x0, y, x1, y + thickness);
}

void BoxDrawingCanvas::vline(int y0, int y1, int x, int thickness) {
    m_canvas.fillRect(x, y0, x + thickness, y1);
}

BoxDrawingCanvas::Span BoxDrawingCanvas::verticalSpan(BoxArms arms) const {
    // Columns covered by the vertical strokes, so that a horizontal arm can run into them.
    Span span;
    for (LineWeight w : {arms.up, arms.down}) {
        if (w == LineWeight::none)
            continue;
        const int t = thickness(w);
        const int start = w == LineWeight::doubled ? strokeX(t) - m_light : strokeX(t);
        const int end = w == LineWeight::doubled ? strokeX(t) + m_light + t : strokeX(t) + t;
        span.start = span.present ? std::min(span.start, start) : start;
        span.end = span.present ? std::max(span.end, end) : end;
        span.present = true;
    }
    return span;
}

BoxDrawingCanvas::Span BoxDrawingCanvas::horizontalSpan(BoxArms arms) const {
    Span span;
    for (LineWeight w : {arms.left, arms.right}) {
        if (w == LineWeight::none)
            continue;
        const int t = thickness(w);
        const int start = w == LineWeight::doubled ? strokeY(t) - m_light : strokeY(t);
        const int end = w == LineWeight::doubled ? strokeY(t) + m_light + t : strokeY(t) + t;
        span.start = span.present ? std::min(span.start, start) : start;
        span.end = span.present ? std::max(span.end, end) : end;
        span.present = true;
    }
    return span;
}

void BoxDrawingCanvas::horizontalArm(BoxArms arms, LineWeight weight, bool leftArm) {
    const int width = m_canvas.width();
    const int t = thickness(weight);
    const Span vertical = verticalSpan(arms);
    // Without vertical arms the two horizontal arms meet over the light centre stroke.
    const int centreStart = vertical.present ? vertical.start : strokeX(m_light);
    const int centreEnd = vertical.present ? vertical.end : strokeX(m_light) + m_light;
    if (weight != LineWeight::doubled) {
        if (leftArm)
            hline(0, centreEnd, strokeY(t), t);
        else
            hline(centreStart, width, strokeY(t), t);
        return;
    }
    // A doubled arm: its upper stroke turns the inner corner when the arm above is doubled
    // too, and the outer corner when only the one below is; the lower stroke the reverse.
    const int innerX = strokeX(m_light) - m_light; // left stroke of a doubled vertical
    const int outerX = strokeX(m_light) + m_light; // right stroke of a doubled vertical
    const int upper = strokeY(t) - m_light;
    const int lower = strokeY(t) + m_light;
    auto reach = [&](LineWeight near, LineWeight far) {
        if (near == LineWeight::doubled)
            return leftArm ? std::pair(0, innerX + m_light) : std::pair(outerX, width);
        if (far == LineWeight::doubled)
            return leftArm ? std::pair(0, outerX + m_light) : std::pair(innerX, width);
        return leftArm ? std::pair(0, centreEnd) : std::pair(centreStart, width);
    };
    const auto [ux0, ux1] = reach(arms.up, arms.down);
    const auto [lx0, lx1] = reach(arms.down, arms.up);
    hline(ux0, ux1, upper, m_light);
    hline(lx0, lx1, lower, m_light);
}

void BoxDrawingCanvas::verticalArm(BoxArms arms, LineWeight weight, bool upArm) {
    const int height = m_canvas.height();
    const int t = thickness(weight);
    const Span horizontal = horizontalSpan(arms);
    const int centreStart = horizontal.present ? horizontal.start : strokeY(m_light);
    const int centreEnd = horizontal.present ? horizontal.end : strokeY(m_light) + m_light;
    if (weight != LineWeight::doubled) {
        if (upArm)
            vline(0, centreEnd, strokeX(t), t);
        else
            vline(centreStart, height, strokeX(t), t);
        return;
    }
    const int innerY = strokeY(m_light) - m_light; // upper stroke of a doubled horizontal
    const int outerY = strokeY(m_light) + m_light; // lower stroke of a doubled horizontal
    const int leftX = strokeX(t) - m_light;
    const int rightX = strokeX(t) + m_light;
    auto reach = [&](LineWeight near, LineWeight far) {
        if (near == LineWeight::doubled)
            return upArm ? std::pair(0, innerY + m_light) : std::pair(outerY, height);
        if (far == LineWeight::doubled)
            return upArm ? std::pair(0, outerY + m_light) : std::pair(innerY, height);
        return upArm ? std::pair(0, centreEnd) : std::pair(centreStart, height);
    };
    const auto [ly0, ly1] = reach(arms.left, arms.right);
    const auto [ry0, ry1] = reach(arms.right, arms.left);
    vline(ly0, ly1, leftX, m_light);
    vline(ry0, ry1, rightX, m_light);
}

void BoxDrawingCanvas::linesChar(BoxArms arms) {
    if (arms.left != LineWeight::none)
        horizontalArm(arms, arms.left, true);
    if (arms.right != LineWeight::none)
        horizontalArm(arms, arms.right, false);
    if (arms.up != LineWeight::none)
        verticalArm(arms, arms.up, true);
    if (arms.down != LineWeight::none)
        verticalArm(arms, arms.down, false);
}

void BoxDrawingCanvas::arc(ArcCorner corner) {
    // The arc's straight ends sit exactly where light lines of the neighbours run: the
    // centre of the light stroke in both directions.
    const double cx = strokeX(m_light) + m_light / 2.0;
    const double cy = strokeY(m_light) + m_light / 2.0;
    const double width = m_canvas.width();
    const double height = m_canvas.height();
    const bool right = corner == ArcCorner::downAndRight || corner == ArcCorner::upAndRight;
    const bool down = corner == ArcCorner::downAndRight || corner == ArcCorner::downAndLeft;
    const double radius = std::max(1.0, std::min(right ? width - cx : cx, down ? height - cy : cy) * 0.9);
    const double ox = right ? cx + radius : cx - radius;
    const double oy = down ? cy + radius : cy - radius;
    constexpr double pi = 3.141592653589793;
    // Start angle of the quarter facing the cell's centre, clockwise from +x with y down.
    const double start = right ? (down ? pi : pi / 2) : (down ? 1.5 * pi : 0);
    m_canvas.strokeArc({ox, oy}, radius, start, start + pi / 2, m_light);
    // Straight runs from the arc's ends to the two edges, on whole pixels like the lines.
    const int vx = strokeX(m_light);
    const int hy = strokeY(m_light);
    if (down)
        vline(static_cast<int>(std::floor(oy)), m_canvas.height(), vx, m_light);
    else
        vline(0, static_cast<int>(std::ceil(oy)), vx, m_light);
    if (right)
        hline(static_cast<int>(std::floor(ox)), m_canvas.width(), hy, m_light);
    else
        hline(0, static_cast<int>(std::ceil(ox)), hy, m_light);
}

void BoxDrawingCanvas::dashHorizontal(int count, LineWeight weight) {
    const int width = m_canvas.width();
    const int t = thickness(weight);
    const int gap = std::max(1, width / (count * 4));
    for (int i = 0; i < count; ++i) {
        const int x0 = i * width / count + gap / 2;
        const int x1 = (i + 1) * width / count - (gap - gap / 2);
        hline(x0, std::max(x1, x0 + 1), strokeY(t), t);
    }
}

void BoxDrawingCanvas::dashVertical(int count, LineWeight weight) {
    const int height = m_canvas.height();
    const int t = thickness(weight);
    const int gap = std::max(1, height / (count * 4));
    for (int i = 0; i < count; ++i) {
        const int y0 = i * height / count + gap / 2;
        const int y1 = (i + 1) * height / count - (gap - gap / 2);
        vline(y0, std::max(y1, y0 + 1), strokeX(t), t);
    }
}

void BoxDrawingCanvas::lightDiagonalUpperLeftToLowerRight() {
    // Drawn a little past the corners so that diagonals of neighbouring cells touch.
    const double w = m_canvas.width();
    const double h = m_canvas.height();
    const double dx = w / h * 0.5;
    m_canvas.strokeSegment({-dx, -0.5}, {w + dx, h + 0.5}, m_light);
}

void BoxDrawingCanvas::lightDiagonalUpperRightToLowerLeft() {
    const double w = m_canvas.width();
    const double h = m_canvas.height();
    const double dx = w / h * 0.5;
    m_canvas.strokeSegment({w + dx, -0.5}, {-dx, h + 0.5}, m_light);
}

} // namespace termkit
