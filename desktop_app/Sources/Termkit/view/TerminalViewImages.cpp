// Pictures on the grid: which parts of which pictures the display shows, worked out on the
// main thread with the frame, and drawn in two layers, under the text (negative z-index)
// and over it. Pictures come from the slices lines carry and from Unicode placeholder cells.
// Inline images in formats the core does not decode are decoded here, with Qt's readers.

#include <QImage>
#include <QSGNode>

#include <algorithm>
#include <cstring>
#include <limits>
#include <map>

#include "Termkit/graphics/ImageCells.h"
#include "Termkit/graphics/KittyPlaceholder.h"
#include "Termkit/view/TerminalView.h"

namespace termkit {

namespace {

// The rows of one placement that the display shows.
struct ShownRows {
    std::shared_ptr<const ImageSlice> slice;
    int firstDisplayRow = 0;
    int firstSliceRow = 0;
    int lastSliceRow = 0;
};

// The rectangle of a placement's shown rows: the picture is drawn into its cells
// (`widthInCells` by `heightInCells` from its offset) and cut to the rows on display.
std::optional<ImageDraw> drawFor(const ShownRows& shown, double cellWidth, double cellHeight) {
    const ImageSlice& s = *shown.slice;
    const int top = shown.firstDisplayRow - shown.firstSliceRow; // display row of the placement's row 0
    const double y0 = std::max(double(shown.firstSliceRow), s.offsetYInCells);
    const double y1 = std::min(double(shown.lastSliceRow + 1), s.offsetYInCells + s.heightInCells);
    if (y1 <= y0 || s.heightInCells <= 0 || s.widthInCells <= 0)
        return std::nullopt;
    const double from = (y0 - s.offsetYInCells) / s.heightInCells;
    const double to = (y1 - s.offsetYInCells) / s.heightInCells;
    ImageDraw draw;
    draw.pixels = s.pixels;
    draw.zIndex = s.zIndex;
    draw.sequence = s.sequence;
    draw.source =
        QRectF(s.sourceX, s.sourceY + from * s.sourceHeight, s.sourceWidth, (to - from) * s.sourceHeight);
    draw.target = QRectF((s.col + s.offsetXInCells) * cellWidth, (top + y0) * cellHeight,
                         s.widthInCells * cellWidth, (y1 - y0) * cellHeight);
    return draw;
}

} // namespace

void TerminalView::createImage(Terminal& source, std::vector<uint8_t> data, ImageSizeRequest width,
                               ImageSizeRequest height, bool preserveAspectRatio) {
    // The core decodes PNG itself; JPEG, GIF (its first frame) and the other formats Qt's image
    // plugins read arrive here, and once decoded live on the grid like any other picture.
    QImage image;
    if (data.size() > size_t(std::numeric_limits<int>::max()) ||
        !image.loadFromData(data.data(), static_cast<int>(data.size())) ||
        size_t(image.width()) * size_t(image.height()) * 4 > kKittyPayloadLimitBytes) {
        source.log("Termkit: inline image in a format that could not be decoded dropped");
        return;
    }
    const QImage converted = image.convertToFormat(QImage::Format_RGBA8888);
    auto pixels = std::make_shared<RgbaImage>();
    pixels->width = converted.width();
    pixels->height = converted.height();
    const size_t rowBytes = size_t(pixels->width) * 4;
    pixels->rgba.resize(rowBytes * size_t(pixels->height));
    for (int y = 0; y < pixels->height; ++y)
        std::memcpy(pixels->rgba.data() + size_t(y) * rowBytes, converted.constScanLine(y), rowBytes);
    const auto [w, h] = inlineImageCells(width, height, preserveAspectRatio, pixels->width, pixels->height,
                                         terminalCellSize(source), source.cols(), source.rows());
    m_graphics->placeImage(source, std::move(pixels), ImageSource::inlineImage, w, h);
}

void TerminalView::buildImageDraws() {
    m_imagesBelow.clear();
    m_imagesAbove.clear();
    buildSliceDraws();
    buildPlaceholderDraws();
    for (auto* layer : {&m_imagesBelow, &m_imagesAbove})
        std::stable_sort(layer->begin(), layer->end(), [](const ImageDraw& a, const ImageDraw& b) {
            return a.zIndex != b.zIndex ? a.zIndex < b.zIndex : a.sequence < b.sequence;
        });
}

void TerminalView::buildPlaceholderDraws() {
    const CellMetrics& cell = m_fonts->metrics();
    const double cellWidth = cell.width / m_devicePixelRatio;
    const double cellHeight = cell.height / m_devicePixelRatio;
    // Fitted at the cell size in device pixels, the size the picture really has on screen.
    for (const PlaceholderDraw& d :
         resolvePlaceholders(*m_terminal, m_graphics->kitty(), {cell.width, cell.height})) {
        ImageDraw draw;
        draw.pixels = d.pixels;
        draw.zIndex = d.zIndex;
        draw.sequence = d.sequence;
        draw.source = QRectF(d.sourceX, d.sourceY, d.sourceWidth, d.sourceHeight);
        draw.target = QRectF(d.targetX * cellWidth, d.targetY * cellHeight, d.targetWidth * cellWidth,
                             d.targetHeight * cellHeight);
        (draw.zIndex < 0 ? m_imagesBelow : m_imagesAbove).push_back(std::move(draw));
    }
}

void TerminalView::buildSliceDraws() {
    if (m_terminal->buffer().linesWithImagesCount() == 0)
        return;
    std::map<const PlacementToken*, ShownRows> shown;
    for (int row = 0; row < m_terminal->rows(); ++row) {
        const BufferLine* line = m_terminal->getLine(ScreenRow(row));
        const auto* images = line != nullptr ? line->images() : nullptr;
        if (images == nullptr)
            continue;
        for (const TerminalImage& image : *images) {
            auto slice = std::static_pointer_cast<const ImageSlice>(image.image);
            auto [it, fresh] = shown.try_emplace(slice->token.get());
            if (fresh)
                it->second = {slice, row, slice->row, slice->row};
            it->second.lastSliceRow = std::max(it->second.lastSliceRow, slice->row);
        }
    }
    const CellMetrics& cell = m_fonts->metrics();
    const double cellWidth = cell.width / m_devicePixelRatio;
    const double cellHeight = cell.height / m_devicePixelRatio;
    for (const auto& [token, rows] : shown) {
        if (auto draw = drawFor(rows, cellWidth, cellHeight))
            (draw->zIndex < 0 ? m_imagesBelow : m_imagesAbove).push_back(std::move(*draw));
    }
}

} // namespace termkit
