#include "Termkit/graphics/KittyPlaceholder.h"

#include <algorithm>
#include <array>

#include "Termkit/engine/Terminal.h"
#include "Termkit/graphics/KittyGraphics.h"

namespace termkit {

namespace {

// The marks that carry numbers after the placeholder, in the order of their values: the
// combining marks drawn above a letter (class 230) of Unicode 6.0 that have no
// decomposition and are part of none, so that no normalisation can ever merge or split them.
// Sorted by code point, which is also their order of value.
constexpr std::array<char32_t, kKittyDiacriticCount> kDiacritics = {
    0x0305,  0x030D,  0x030E,  0x0310,  0x0312,  0x033D,  0x033E,  0x033F,  0x0346,  0x034A,  0x034B,
    0x034C,  0x0350,  0x0351,  0x0352,  0x0357,  0x035B,  0x0363,  0x0364,  0x0365,  0x0366,  0x0367,
    0x0368,  0x0369,  0x036A,  0x036B,  0x036C,  0x036D,  0x036E,  0x036F,  0x0483,  0x0484,  0x0485,
    0x0486,  0x0487,  0x0592,  0x0593,  0x0594,  0x0595,  0x0597,  0x0598,  0x0599,  0x059C,  0x059D,
    0x059E,  0x059F,  0x05A0,  0x05A1,  0x05A8,  0x05A9,  0x05AB,  0x05AC,  0x05AF,  0x05C4,  0x0610,
    0x0611,  0x0612,  0x0613,  0x0614,  0x0615,  0x0616,  0x0617,  0x0657,  0x0658,  0x0659,  0x065A,
    0x065B,  0x065D,  0x065E,  0x06D6,  0x06D7,  0x06D8,  0x06D9,  0x06DA,  0x06DB,  0x06DC,  0x06DF,
    0x06E0,  0x06E1,  0x06E2,  0x06E4,  0x06E7,  0x06E8,  0x06EB,  0x06EC,  0x0730,  0x0732,  0x0733,
    0x0735,  0x0736,  0x073A,  0x073D,  0x073F,  0x0740,  0x0741,  0x0743,  0x0745,  0x0747,  0x0749,
    0x074A,  0x07EB,  0x07EC,  0x07ED,  0x07EE,  0x07EF,  0x07F0,  0x07F1,  0x07F3,  0x0816,  0x0817,
    0x0818,  0x0819,  0x081B,  0x081C,  0x081D,  0x081E,  0x081F,  0x0820,  0x0821,  0x0822,  0x0823,
    0x0825,  0x0826,  0x0827,  0x0829,  0x082A,  0x082B,  0x082C,  0x082D,  0x0951,  0x0953,  0x0954,
    0x0F82,  0x0F83,  0x0F86,  0x0F87,  0x135D,  0x135E,  0x135F,  0x17DD,  0x193A,  0x1A17,  0x1A75,
    0x1A76,  0x1A77,  0x1A78,  0x1A79,  0x1A7A,  0x1A7B,  0x1A7C,  0x1B6B,  0x1B6D,  0x1B6E,  0x1B6F,
    0x1B70,  0x1B71,  0x1B72,  0x1B73,  0x1CD0,  0x1CD1,  0x1CD2,  0x1CDA,  0x1CDB,  0x1CE0,  0x1DC0,
    0x1DC1,  0x1DC3,  0x1DC4,  0x1DC5,  0x1DC6,  0x1DC7,  0x1DC8,  0x1DC9,  0x1DCB,  0x1DCC,  0x1DD1,
    0x1DD2,  0x1DD3,  0x1DD4,  0x1DD5,  0x1DD6,  0x1DD7,  0x1DD8,  0x1DD9,  0x1DDA,  0x1DDB,  0x1DDC,
    0x1DDD,  0x1DDE,  0x1DDF,  0x1DE0,  0x1DE1,  0x1DE2,  0x1DE3,  0x1DE4,  0x1DE5,  0x1DE6,  0x1DFE,
    0x20D0,  0x20D1,  0x20D4,  0x20D5,  0x20D6,  0x20D7,  0x20DB,  0x20DC,  0x20E1,  0x20E7,  0x20E9,
    0x20F0,  0x2CEF,  0x2CF0,  0x2CF1,  0x2DE0,  0x2DE1,  0x2DE2,  0x2DE3,  0x2DE4,  0x2DE5,  0x2DE6,
    0x2DE7,  0x2DE8,  0x2DE9,  0x2DEA,  0x2DEB,  0x2DEC,  0x2DED,  0x2DEE,  0x2DEF,  0x2DF0,  0x2DF1,
    0x2DF2,  0x2DF3,  0x2DF4,  0x2DF5,  0x2DF6,  0x2DF7,  0x2DF8,  0x2DF9,  0x2DFA,  0x2DFB,  0x2DFC,
    0x2DFD,  0x2DFE,  0x2DFF,  0xA66F,  0xA67C,  0xA67D,  0xA6F0,  0xA6F1,  0xA8E0,  0xA8E1,  0xA8E2,
    0xA8E3,  0xA8E4,  0xA8E5,  0xA8E6,  0xA8E7,  0xA8E8,  0xA8E9,  0xA8EA,  0xA8EB,  0xA8EC,  0xA8ED,
    0xA8EE,  0xA8EF,  0xA8F0,  0xA8F1,  0xAAB0,  0xAAB2,  0xAAB3,  0xAAB7,  0xAAB8,  0xAABE,  0xAABF,
    0xAAC1,  0xFE20,  0xFE21,  0xFE22,  0xFE23,  0xFE24,  0xFE25,  0xFE26,  0x10A0F, 0x10A38, 0x1D185,
    0x1D186, 0x1D187, 0x1D188, 0x1D189, 0x1D1AA, 0x1D1AB, 0x1D1AC, 0x1D1AD, 0x1D242, 0x1D243, 0x1D244,
};

// The UTF-8 of the placeholder character.
constexpr std::string_view kPlaceholderUtf8 = "\xF4\x8E\xBB\xAE";

// Decodes the scalar at `i` of well-formed UTF-8 (as the character table stores it) and moves past it.
char32_t nextScalar(std::string_view text, size_t& i) {
    const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char lead = byte(i);
    int length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    if (i + static_cast<size_t>(length) > text.size()) {
        i = text.size();
        return 0;
    }
    char32_t scalar = length == 1   ? lead
                      : length == 2 ? lead & 0x1F
                      : length == 3 ? lead & 0x0F
                                    : lead & 0x07;
    for (int k = 1; k < length; ++k)
        scalar = (scalar << 6) | (byte(i + static_cast<size_t>(k)) & 0x3F);
    i += static_cast<size_t>(length);
    return scalar;
}

// The number a colour carries: 24 bits of a direct colour, or a palette index. The default
// colour carries nothing.
uint32_t colorNumber(const Attribute::Color& color) {
    switch (color.kind) {
    case Attribute::Color::Kind::trueColor:
        return (uint32_t{color.red} << 16) | (uint32_t{color.green} << 8) | color.blue;
    case Attribute::Color::Kind::ansi256:
        return color.code();
    default:
        return 0;
    }
}

} // namespace

int kittyDiacriticValue(char32_t mark) {
    const auto it = std::lower_bound(kDiacritics.begin(), kDiacritics.end(), mark);
    return it != kDiacritics.end() && *it == mark ? static_cast<int>(it - kDiacritics.begin()) : -1;
}

char32_t kittyDiacritic(int value) {
    return value >= 0 && value < kKittyDiacriticCount ? kDiacritics[static_cast<size_t>(value)] : 0;
}

bool KittyPlaceholderDecoder::isPlaceholder(std::string_view cluster) {
    return cluster.starts_with(kPlaceholderUtf8);
}

std::optional<KittyPlaceholderCell>
KittyPlaceholderDecoder::decode(std::string_view cluster, const Attribute& attribute, int row, int col) {
    if (!isPlaceholder(cluster)) {
        m_previous.reset();
        return std::nullopt;
    }
    // Row, column and the id's high byte, in that order; a mark outside the table ends them.
    std::array<int, 3> values{};
    int given = 0;
    for (size_t i = kPlaceholderUtf8.size(); i < cluster.size() && given < 3;) {
        const int value = kittyDiacriticValue(nextScalar(cluster, i));
        if (value < 0)
            break;
        values[static_cast<size_t>(given++)] = value;
    }
    const uint32_t foreground = colorNumber(attribute.fg);
    const uint32_t underline = attribute.underlineColor ? colorNumber(*attribute.underlineColor) : 0;
    KittyPlaceholderCell cell;
    cell.row = row;
    cell.col = col;
    cell.placeholderRow = values[0];
    cell.placeholderCol = values[1];
    cell.msb = values[2];
    // What is left out continues the cell just to the left, when it names the same placement.
    const Previous* previous = m_previous && m_previous->cell.col == col - 1 &&
                                       m_previous->foreground == foreground &&
                                       m_previous->underline == underline
                                   ? &*m_previous
                                   : nullptr;
    if (previous != nullptr) {
        const KittyPlaceholderCell& left = previous->cell;
        if (given == 0) {
            cell.placeholderRow = left.placeholderRow;
            cell.placeholderCol = left.placeholderCol + 1;
            cell.msb = left.msb;
        } else if (given == 1 && left.placeholderRow == cell.placeholderRow) {
            cell.placeholderCol = left.placeholderCol + 1;
            cell.msb = left.msb;
        } else if (given == 2 && left.placeholderRow == cell.placeholderRow &&
                   left.placeholderCol + 1 == cell.placeholderCol) {
            cell.msb = left.msb;
        }
    }
    cell.imageId = (static_cast<uint32_t>(cell.msb) << 24) | foreground;
    cell.placementId = underline;
    m_previous = Previous{cell, foreground, underline};
    return cell;
}

namespace {

// Placeholder cells that show consecutive cells of one placement: a row's run, grown down
// while the rows below continue it cell for cell.
struct Run {
    KittyPlaceholderCell first; // its top-left cell
    int cols = 1;
    int rows = 1;
    bool continues(const KittyPlaceholderCell& cell) const {
        return cell.row == first.row && cell.col == first.col + cols && cell.imageId == first.imageId &&
               cell.placementId == first.placementId && cell.placeholderRow == first.placeholderRow &&
               cell.placeholderCol == first.placeholderCol + cols;
    }
    bool extendsDown(const Run& below) const {
        return below.first.row == first.row + rows && below.first.col == first.col && below.cols == cols &&
               below.first.imageId == first.imageId && below.first.placementId == first.placementId &&
               below.first.placeholderCol == first.placeholderCol &&
               below.first.placeholderRow == first.placeholderRow + rows;
    }
};

// The runs of placeholder cells of one row of the display.
void collectRow(const Terminal& terminal, const BufferLine& line, int row, std::vector<Run>& out) {
    KittyPlaceholderDecoder decoder;
    const CellTables& tables = terminal.tables();
    const int count = std::min(line.count(), terminal.cols());
    const CharData* cells = line.cells();
    for (int col = 0; col < count; ++col) {
        const CharData& data = cells[col];
        // The placeholder lies beyond the basic plane, so its cells always hold a table code.
        if (data.code < kCharacterTableBase) {
            decoder.reset();
            continue;
        }
        const auto cell =
            decoder.decode(tables.characters.stored(data.code), tables.attributes[data.attribute], row, col);
        if (!cell)
            continue;
        if (!out.empty() && out.back().continues(*cell))
            ++out.back().cols;
        else
            out.push_back({*cell});
    }
}

std::optional<PlaceholderDraw> drawFor(const Run& run, const KittyGraphicsState& kitty,
                                       std::pair<int, int> cellSize) {
    const KittyPlacementRecord* placement = kitty.virtualPlacement(run.first.imageId, run.first.placementId);
    const auto image = kitty.imagesById().find(run.first.imageId);
    if (placement == nullptr || image == kitty.imagesById().end() || placement->cols <= 0 ||
        placement->rows <= 0)
        return std::nullopt;
    const RgbaImage& pixels = *image->second.payload;
    const KittyGraphicsControl& control = placement->control;
    const double sourceWidth = control.cropWidth > 0 ? control.cropWidth : pixels.width - control.cropX;
    const double sourceHeight = control.cropHeight > 0 ? control.cropHeight : pixels.height - control.cropY;
    if (sourceWidth <= 0 || sourceHeight <= 0)
        return std::nullopt;
    // The picture fits the placement's cells with its aspect kept, centred: the program chose
    // the number of cells without knowing their shape in pixels.
    const double cellWidth = cellSize.first;
    const double cellHeight = cellSize.second;
    const double scale =
        std::min(placement->cols * cellWidth / sourceWidth, placement->rows * cellHeight / sourceHeight);
    const double pictureWidth = sourceWidth * scale / cellWidth; // in cells
    const double pictureHeight = sourceHeight * scale / cellHeight;
    const double pictureX = (placement->cols - pictureWidth) / 2;
    const double pictureY = (placement->rows - pictureHeight) / 2;
    // The run's cells of the placement, cut to where the picture is.
    const double x0 = std::max<double>(run.first.placeholderCol, pictureX);
    const double x1 = std::min<double>(run.first.placeholderCol + run.cols, pictureX + pictureWidth);
    const double y0 = std::max<double>(run.first.placeholderRow, pictureY);
    const double y1 = std::min<double>(run.first.placeholderRow + run.rows, pictureY + pictureHeight);
    if (x1 <= x0 || y1 <= y0)
        return std::nullopt;
    PlaceholderDraw draw;
    draw.pixels = image->second.payload;
    draw.imageId = placement->imageId;
    draw.placementId = placement->placementId;
    draw.zIndex = placement->zIndex;
    draw.sequence = placement->sequence;
    draw.row = run.first.row;
    draw.col = run.first.col;
    draw.cols = run.cols;
    draw.rows = run.rows;
    draw.sourceX = control.cropX + (x0 - pictureX) / pictureWidth * sourceWidth;
    draw.sourceY = control.cropY + (y0 - pictureY) / pictureHeight * sourceHeight;
    draw.sourceWidth = (x1 - x0) / pictureWidth * sourceWidth;
    draw.sourceHeight = (y1 - y0) / pictureHeight * sourceHeight;
    draw.targetX = run.first.col + (x0 - run.first.placeholderCol);
    draw.targetY = run.first.row + (y0 - run.first.placeholderRow);
    draw.targetWidth = x1 - x0;
    draw.targetHeight = y1 - y0;
    return draw;
}

} // namespace

std::vector<PlaceholderDraw> resolvePlaceholders(const Terminal& terminal, const KittyGraphicsState& kitty,
                                                 std::pair<int, int> cellSize) {
    std::vector<PlaceholderDraw> out;
    if (!kitty.hasVirtualPlacements() || cellSize.first <= 0 || cellSize.second <= 0)
        return out;
    std::vector<Run> runs;     // every run so far
    std::vector<size_t> above; // the runs that ended on the row above, which this row may grow
    std::vector<Run> rowRuns;
    for (int row = 0; row < terminal.rows(); ++row) {
        rowRuns.clear();
        if (const BufferLine* line = terminal.getLine(ScreenRow(row)))
            collectRow(terminal, *line, row, rowRuns);
        std::vector<size_t> ending;
        for (const Run& run : rowRuns) {
            const auto grown =
                std::find_if(above.begin(), above.end(), [&](size_t i) { return runs[i].extendsDown(run); });
            if (grown != above.end()) {
                ++runs[*grown].rows;
                ending.push_back(*grown);
                above.erase(grown);
            } else {
                ending.push_back(runs.size());
                runs.push_back(run);
            }
        }
        above = std::move(ending);
    }
    for (const Run& run : runs)
        if (auto draw = drawFor(run, kitty, cellSize))
            out.push_back(std::move(*draw));
    std::stable_sort(out.begin(), out.end(), [](const PlaceholderDraw& a, const PlaceholderDraw& b) {
        return a.zIndex != b.zIndex ? a.zIndex < b.zIndex : a.sequence < b.sequence;
    });
    return out;
}

} // namespace termkit
