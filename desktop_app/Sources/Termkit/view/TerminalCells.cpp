#include "Termkit/view/TerminalCells.h"

#include <QList>

#include <algorithm>

#include "Termkit/graphics/KittyPlaceholder.h"

namespace termkit {

namespace {

uint32_t mix(uint32_t a, uint32_t b) {
    // Half way between two colours: dim text sinks towards its background.
    auto ch = [&](int shift) { return ((((a >> shift) & 0xFF) + ((b >> shift) & 0xFF)) / 2) << shift; };
    return 0xFF000000u | ch(16) | ch(8) | ch(0);
}

uint32_t resolve(const Attribute::Color& c, const std::array<Color, 256>& palette, uint32_t defaultColor,
                 uint32_t invertedDefault, bool brighten) {
    switch (c.kind) {
    case Attribute::Color::Kind::defaultColor:
        return defaultColor;
    case Attribute::Color::Kind::defaultInvertedColor:
        return invertedDefault;
    case Attribute::Color::Kind::ansi256: {
        const int code = brighten && c.code() < 8 ? c.code() + 8 : c.code();
        return argb(palette[static_cast<size_t>(code)]);
    }
    case Attribute::Color::Kind::trueColor:
        return 0xFF000000u | (uint32_t{c.red} << 16) | (uint32_t{c.green} << 8) | c.blue;
    }
    return defaultColor;
}

// A cell's character as a scalar, or its cluster put aside in the row.
uint32_t codeOf(const Terminal& terminal, const CharData& cell, std::vector<QString>& clusters,
                QString* single) {
    if (cell.code < kCharacterTableBase)
        return static_cast<uint32_t>(cell.code);
    // A Unicode placeholder has no glyph: its cell shows a piece of a picture, or nothing.
    if (KittyPlaceholderDecoder::isPlaceholder(terminal.tables().characters.stored(cell.code)))
        return 0;
    const QString text = QString::fromStdString(terminal.character(cell.code));
    const QList<uint> scalars = text.toUcs4();
    if (scalars.size() == 1)
        return scalars.front();
    if (single != nullptr) {
        *single = text;
        return RenderCell::kClusterFlag;
    }
    clusters.push_back(text);
    return RenderCell::kClusterFlag | static_cast<uint32_t>(clusters.size() - 1);
}

RenderCell render(const Terminal& terminal, const CharData& data, const ViewColors& colors,
                  std::vector<QString>& clusters, QString* single) {
    const Attribute& attr = terminal.attribute(data);
    const bool reverse = terminal.reverseColors();
    const uint32_t defaultFg = reverse ? colors.background : colors.foreground;
    const uint32_t defaultBg = reverse ? colors.foreground : colors.background;
    const auto& palette = terminal.palette();
    const bool bold = attr.style.contains(CharacterStyle::bold);
    RenderCell cell;
    cell.fg = resolve(attr.fg, palette, defaultFg, defaultBg, bold && colors.useBrightColors);
    cell.bg = resolve(attr.bg, palette, defaultBg, defaultFg, false);
    if (attr.style.contains(CharacterStyle::inverse))
        std::swap(cell.fg, cell.bg);
    if (attr.style.contains(CharacterStyle::dim))
        cell.fg = mix(cell.fg, cell.bg);
    cell.underlineColor =
        attr.underlineColor ? resolve(*attr.underlineColor, palette, defaultFg, defaultBg, false) : cell.fg;
    cell.underline = static_cast<uint8_t>(attr.underlineStyle);
    if (attr.underlineStyle == UnderlineStyle::none && attr.style.contains(CharacterStyle::underline))
        cell.underline = 1;
    uint8_t flags = 0;
    flags |= bold ? RenderCell::bold : 0;
    flags |= attr.style.contains(CharacterStyle::italic) ? RenderCell::italic : 0;
    flags |= attr.style.contains(CharacterStyle::blink) ? RenderCell::blink : 0;
    flags |= attr.style.contains(CharacterStyle::invisible) ? RenderCell::invisible : 0;
    flags |= attr.style.contains(CharacterStyle::crossedOut) ? RenderCell::strikethrough : 0;
    cell.flags = flags;
    cell.width = static_cast<uint8_t>(std::max<int>(data.width, 0));
    cell.code = codeOf(terminal, data, clusters, single);
    return cell;
}

} // namespace

uint32_t argb(const Color& color) {
    return 0xFF000000u | (uint32_t{static_cast<uint8_t>(color.red >> 8)} << 16) |
           (uint32_t{static_cast<uint8_t>(color.green >> 8)} << 8) | static_cast<uint8_t>(color.blue >> 8);
}

uint64_t colorStamp(const Terminal& terminal, const ViewColors& colors) {
    uint64_t h = 1469598103934665603ull;
    auto mixIn = [&](uint64_t v) { h = (h ^ v) * 1099511628211ull; };
    mixIn(colors.foreground);
    mixIn(colors.background);
    mixIn(colors.useBrightColors ? 1 : 0);
    mixIn(terminal.reverseColors() ? 1 : 0);
    for (const Color& c : terminal.palette())
        mixIn((uint64_t{c.red} << 32) | (uint64_t{c.green} << 16) | c.blue);
    return h;
}

uint32_t viewBackground(const Terminal& terminal, const ViewColors& colors) {
    return terminal.reverseColors() ? colors.foreground : colors.background;
}

RenderCell cellAt(const Terminal& terminal, int& col, int row, const ViewColors& colors, QString& cluster) {
    const BufferLine* line = terminal.getLine(ScreenRow(row));
    if (line == nullptr || col < 0 || col >= line->count())
        return RenderCell{};
    std::vector<QString> unused;
    RenderCell cell = render(terminal, (*line)[col], colors, unused, &cluster);
    if (cell.width == 0 && col > 0) { // the right half of a wide character: the caret covers its left
        --col;
        return cellAt(terminal, col, row, colors, cluster);
    }
    return cell;
}

int TerminalRowSource::rowCount() const {
    return m_terminal.rows();
}

void reorderForDisplay(RowSnapshot& row, const BidiRowLayout& layout) {
    const std::vector<RenderCell> logical = row.cells;
    const int count = static_cast<int>(logical.size());
    int visualCol = 0;
    for (const BidiCell& unit : layout.visualCells) {
        for (int k = 0; k < unit.width; ++k) {
            if (visualCol + k < count && unit.logicalCol + k < count)
                row.cells[static_cast<size_t>(visualCol + k)] =
                    logical[static_cast<size_t>(unit.logicalCol + k)];
        }
        if (unit.display && visualCol < count) {
            RenderCell& shown = row.cells[static_cast<size_t>(visualCol)];
            const QString text = QString::fromStdString(*unit.display);
            const QList<uint> scalars = text.toUcs4();
            if (scalars.isEmpty()) {
                shown.code = 0;
            } else if (scalars.size() == 1) {
                shown.code = scalars.front();
            } else {
                row.clusters.push_back(text);
                shown.code = RenderCell::kClusterFlag | static_cast<uint32_t>(row.clusters.size() - 1);
            }
        }
        visualCol += unit.width;
    }
}

RowKey TerminalRowSource::rowKey(int row) const {
    const BufferLine* line = m_terminal.getLine(ScreenRow(row));
    if (line == nullptr)
        return {};
    // A row in visual order depends on its whole paragraph: the paragraph's revision makes
    // a change to another of its rows rebuild this one too. Plain rows stay at 0.
    const LineIndex index = m_terminal.buffer().yDisp() + row;
    const bool reordered = m_bidi != nullptr && m_bidi->rowNeedsLayout(index, m_terminal.buffer());
    return {line, line->generation(), reordered ? m_bidi->layoutRevision(index, m_terminal.buffer()) : 0};
}

void TerminalRowSource::copyRow(int row, RowSnapshot& out) const {
    out.cells.clear();
    out.clusters.clear();
    out.hasBlink = false;
    const BufferLine* line = m_terminal.getLine(ScreenRow(row));
    if (line == nullptr)
        return;
    const int count = std::min(line->count(), m_terminal.cols());
    out.cells.reserve(static_cast<size_t>(count));
    const CharData* cells = line->cells();
    for (int col = 0; col < count; ++col) {
        out.cells.push_back(render(m_terminal, cells[col], m_colors, out.clusters, nullptr));
        out.hasBlink = out.hasBlink || out.cells.back().has(RenderCell::blink);
    }
    const LineIndex index = m_terminal.buffer().yDisp() + row;
    if (m_bidi != nullptr && m_bidi->rowNeedsLayout(index, m_terminal.buffer()))
        reorderForDisplay(out, m_bidi->layout(index, m_terminal.buffer()));
}

} // namespace termkit
