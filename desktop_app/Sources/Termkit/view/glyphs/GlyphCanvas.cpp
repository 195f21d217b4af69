#include "Termkit/view/glyphs/GlyphCanvas.h"

#include <algorithm>
#include <cmath>

namespace termkit {

namespace {

double distanceToSegment(GlyphCanvas::Point p, GlyphCanvas::Point a, GlyphCanvas::Point b) {
    const double dx = b.x - a.x;
    const double dy = b.y - a.y;
    const double lengthSquared = dx * dx + dy * dy;
    double t = lengthSquared > 0 ? ((p.x - a.x) * dx + (p.y - a.y) * dy) / lengthSquared : 0;
    t = std::clamp(t, 0.0, 1.0);
    const double cx = a.x + t * dx - p.x;
    const double cy = a.y + t * dy - p.y;
    return std::sqrt(cx * cx + cy * cy);
}

// Whether an angle lies on the arc from start to end going clockwise (increasing angle).
bool angleWithin(double angle, double start, double end) {
    constexpr double twoPi = 6.283185307179586;
    auto normal = [&](double a) {
        a = std::fmod(a - start, twoPi);
        return a < 0 ? a + twoPi : a;
    };
    return normal(angle) <= normal(end) + 1e-9;
}

} // namespace

GlyphCanvas::GlyphCanvas(int width, int height, bool antiAlias)
    : m_width(std::max(width, 1)), m_height(std::max(height, 1)), m_antiAlias(antiAlias),
      m_coverage(static_cast<size_t>(m_width) * m_height, 0.0) {}

void GlyphCanvas::cover(int x, int y, double amount) {
    if (x < 0 || y < 0 || x >= m_width || y >= m_height)
        return;
    double& c = m_coverage[static_cast<size_t>(y) * m_width + x];
    c = std::min(1.0, std::max(c, amount));
}

void GlyphCanvas::fillRect(int x0, int y0, int x1, int y1, double alpha) {
    x0 = std::max(x0, 0);
    y0 = std::max(y0, 0);
    x1 = std::min(x1, m_width);
    y1 = std::min(y1, m_height);
    for (int y = y0; y < y1; ++y)
        for (int x = x0; x < x1; ++x)
            cover(x, y, alpha);
}

template <typename Inside> void GlyphCanvas::sample(const Inside& inside) {
    constexpr int n = kSubsamples;
    for (int y = 0; y < m_height; ++y) {
        for (int x = 0; x < m_width; ++x) {
            int hits = 0;
            for (int sy = 0; sy < n; ++sy)
                for (int sx = 0; sx < n; ++sx)
                    hits += inside(Point{x + (sx + 0.5) / n, y + (sy + 0.5) / n}) ? 1 : 0;
            if (hits > 0)
                cover(x, y, static_cast<double>(hits) / (n * n));
        }
    }
}

void GlyphCanvas::fillPolygon(const std::vector<Point>& points) {
    if (points.size() < 3)
        return;
    sample([&](Point p) {
        bool inside = false;
        for (size_t i = 0, j = points.size() - 1; i < points.size(); j = i++) {
            const Point& a = points[i];
            const Point& b = points[j];
            if ((a.y > p.y) != (b.y > p.y) && p.x < (b.x - a.x) * (p.y - a.y) / (b.y - a.y) + a.x)
                inside = !inside;
        }
        return inside;
    });
}

void GlyphCanvas::strokeSegment(Point from, Point to, double thickness) {
    const double half = thickness / 2;
    sample([&](Point p) { return distanceToSegment(p, from, to) <= half; });
}

void GlyphCanvas::strokeArc(Point centre, double radius, double startAngle, double endAngle,
                            double thickness) {
    const double half = thickness / 2;
    sample([&](Point p) {
        const double dx = p.x - centre.x;
        const double dy = p.y - centre.y;
        const double distance = std::sqrt(dx * dx + dy * dy);
        if (std::abs(distance - radius) > half)
            return false;
        return angleWithin(std::atan2(dy, dx), startAngle, endAngle);
    });
}

void GlyphCanvas::fillHalfDisc(Point centre, double radius, double clipX, bool keepRight) {
    sample([&](Point p) {
        if (keepRight ? p.x < clipX : p.x > clipX)
            return false;
        const double dx = p.x - centre.x;
        const double dy = p.y - centre.y;
        return dx * dx + dy * dy <= radius * radius;
    });
}

GlyphBitmap GlyphCanvas::toBitmap() const {
    GlyphBitmap bitmap;
    bitmap.width = m_width;
    bitmap.height = m_height;
    bitmap.pixels.resize(m_coverage.size());
    for (size_t i = 0; i < m_coverage.size(); ++i) {
        const double c = m_antiAlias ? m_coverage[i] : (m_coverage[i] >= 0.5 ? 1.0 : 0.0);
        bitmap.pixels[i] = static_cast<uint8_t>(std::lround(c * 255));
    }
    return bitmap;
}

} // namespace termkit
