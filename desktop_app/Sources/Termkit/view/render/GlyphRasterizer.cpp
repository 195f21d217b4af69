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

GlyphBitmap GlyphRasterizer::rasterize(const QString& cluster, FontStyle style, int cells) const {
    const CellMetrics& cell = m_fonts.metrics();
    const QFont& font = m_fonts.font(style);
    QTextLayout layout(cluster, font);
    QTextOption option;
    option.setWrapMode(QTextOption::NoWrap);
    layout.setTextOption(option);
    layout.beginLayout();
    QTextLine line = layout.createLine();
    layout.endLayout();
    if (!line.isValid())
        return {};
    bool color = false;
    for (const QGlyphRun& run : layout.glyphRuns())
        color = color || isColorFont(run.rawFont());

    // Room around the cell for ink that reaches out of it (italics, accents, descenders).
    const int margin = cell.height;
    const int spanWidth = cell.width * std::max(cells, 1);
    QImage canvas(spanWidth + 2 * margin, cell.height + 2 * margin, QImage::Format_ARGB32_Premultiplied);
    canvas.fill(Qt::transparent);
    {
        QPainter painter(&canvas);
        painter.setRenderHint(QPainter::TextAntialiasing, true);
        painter.setRenderHint(QPainter::Antialiasing, true);
        painter.setPen(Qt::white);
        layout.draw(&painter, QPointF(margin, margin + cell.baseline - line.ascent()));
    }
    QRect ink = inkBounds(canvas);
    if (ink.isEmpty())
        return {};
    QImage cropped = canvas.copy(ink);
    QPoint origin = ink.topLeft() - QPoint(margin, margin);
    // Colour emoji come at the font's own proportions: one that would spill out of its cells
    // is scaled down to fit them, centred, as a picture rather than text.
    if (color && (cropped.width() > spanWidth || cropped.height() > cell.height)) {
        cropped = cropped.scaled(spanWidth, cell.height, Qt::KeepAspectRatio, Qt::SmoothTransformation);
        origin = QPoint((spanWidth - cropped.width()) / 2, (cell.height - cropped.height()) / 2);
    }

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
