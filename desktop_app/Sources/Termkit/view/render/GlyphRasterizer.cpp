#include "Termkit/view/render/GlyphRasterizer.h"

#include <QGlyphRun>
#include <QImage>
#include <QPainter>
#include <QRawFont>
#include <QTextLayout>

#include <algorithm>

namespace termkit {

namespace {

// A font that carries colour glyphs in one of the tables colour emoji fonts use.
bool isColorFont(const QRawFont& font) {
    for (const char* table : {"CBDT", "COLR", "sbix", "SVG "})
        if (!font.fontTable(table).isEmpty())
            return true;
    return false;
}

// The smallest rectangle holding every pixel with any alpha, or an empty one.
QRect inkBounds(const QImage& image) {
    int left = image.width(), right = -1, top = image.height(), bottom = -1;
    for (int y = 0; y < image.height(); ++y) {
        const auto* line = reinterpret_cast<const QRgb*>(image.constScanLine(y));
        for (int x = 0; x < image.width(); ++x) {
            if (qAlpha(line[x]) == 0)
                continue;
            left = std::min(left, x);
            right = std::max(right, x);
            top = std::min(top, y);
            bottom = std::max(bottom, y);
        }
    }
    return right < 0 ? QRect() : QRect(QPoint(left, top), QPoint(right, bottom));
}

} // namespace

namespace {

// A cluster laid out and drawn in white on a transparent canvas with room around the cell;
// empty when it has no ink. `origin` is where the cropped ink sits relative to the cell.
struct Drawn {
    QImage ink;
    QPoint origin;
    bool color = false;
};

Drawn draw(const QString& cluster, const QFont& font, const CellMetrics& cell, int spanWidth) {
    QTextLayout layout(cluster, font);
    QTextOption option;
    option.setWrapMode(QTextOption::NoWrap);
    layout.setTextOption(option);
    layout.beginLayout();
    QTextLine line = layout.createLine();
    layout.endLayout();
    Drawn drawn;
    if (!line.isValid())
        return drawn;
    for (const QGlyphRun& run : layout.glyphRuns())
        drawn.color = drawn.color || isColorFont(run.rawFont());
    // Room around the cell for ink that reaches out of it (italics, accents, descenders).
    const int margin = cell.height;
    QImage canvas(spanWidth + 2 * margin, cell.height + 2 * margin, QImage::Format_ARGB32_Premultiplied);
    canvas.fill(Qt::transparent);
    {
        QPainter painter(&canvas);
        painter.setRenderHint(QPainter::TextAntialiasing, true);
        painter.setRenderHint(QPainter::Antialiasing, true);
        painter.setPen(Qt::white);
        layout.draw(&painter, QPointF(margin, margin + cell.baseline - line.ascent()));
    }
    const QRect ink = inkBounds(canvas);
    if (ink.isEmpty())
        return drawn;
    drawn.ink = canvas.copy(ink);
    drawn.origin = ink.topLeft() - QPoint(margin, margin);
    return drawn;
}

// Colour emoji are pictures: drawn again from the font at the size that fills their cells
// (most of them come out smaller than the text's line), and centred in them.
Drawn fitPicture(Drawn drawn, const QString& cluster, const QFont& font, const CellMetrics& cell,
                 int spanWidth) {
    constexpr double kFill = 0.92;
    const double scale =
        std::min(spanWidth * kFill / drawn.ink.width(), cell.height * kFill / drawn.ink.height());
    if (scale > 1.05 && font.pixelSize() > 0) {
        QFont larger = font;
        larger.setPixelSize(static_cast<int>(font.pixelSize() * scale));
        Drawn again = draw(cluster, larger, cell, spanWidth);
        if (!again.ink.isNull())
            drawn.ink = again.ink;
    }
    if (drawn.ink.width() > spanWidth || drawn.ink.height() > cell.height)
        drawn.ink = drawn.ink.scaled(spanWidth, cell.height, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    drawn.origin = QPoint((spanWidth - drawn.ink.width()) / 2, (cell.height - drawn.ink.height()) / 2);
    return drawn;
}

} // namespace

GlyphBitmap GlyphRasterizer::rasterize(const QString& cluster, FontStyle style, int cells) const {
    const CellMetrics& cell = m_fonts.metrics();
    const int spanWidth = cell.width * std::max(cells, 1);
    Drawn drawn = draw(cluster, m_fonts.font(style), cell, spanWidth);
    if (drawn.ink.isNull())
        return {};
    if (drawn.color)
        drawn = fitPicture(std::move(drawn), cluster, m_fonts.font(style), cell, spanWidth);
    const QImage& cropped = drawn.ink;
    const QPoint origin = drawn.origin;
    const bool color = drawn.color;

    GlyphBitmap bitmap;
    bitmap.width = cropped.width();
    bitmap.height = cropped.height();
    bitmap.bearingX = origin.x();
    bitmap.bearingY = origin.y();
    bitmap.isColor = color;
    const size_t bpp = color ? 4 : 1;
    bitmap.pixels.resize(static_cast<size_t>(bitmap.width) * bitmap.height * bpp);
    for (int y = 0; y < bitmap.height; ++y) {
        const auto* line32 = reinterpret_cast<const QRgb*>(cropped.constScanLine(y));
        uint8_t* out = bitmap.pixels.data() + static_cast<size_t>(y) * bitmap.width * bpp;
        if (color) {
            for (int x = 0; x < bitmap.width; ++x) {
                out[x * 4 + 0] = static_cast<uint8_t>(qBlue(line32[x]));
                out[x * 4 + 1] = static_cast<uint8_t>(qGreen(line32[x]));
                out[x * 4 + 2] = static_cast<uint8_t>(qRed(line32[x]));
                out[x * 4 + 3] = static_cast<uint8_t>(qAlpha(line32[x]));
            }
        } else {
            for (int x = 0; x < bitmap.width; ++x)
                out[x] = static_cast<uint8_t>(qAlpha(line32[x]));
        }
    }
    return bitmap;
}

} // namespace termkit
