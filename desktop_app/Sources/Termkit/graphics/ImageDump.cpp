#include "Termkit/graphics/ImageDump.h"

#include <algorithm>
#include <cstdio>
#include <set>

#include "Termkit/graphics/ImageCells.h"
#include "Termkit/graphics/KittyPlaceholder.h"

namespace termkit {

namespace {

const char* sourceName(ImageSource source) {
    switch (source) {
    case ImageSource::kitty:
        return "kitty";
    case ImageSource::sixel:
        return "sixel";
    case ImageSource::inlineImage:
        return "inline";
    }
    return "unknown";
}

bool writeFile(const std::string& path, const std::vector<uint8_t>& bytes) {
    FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr)
        return false;
    const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    return std::fclose(file) == 0 && ok;
}

// One line to print, with what orders it.
struct Listed {
    int zIndex = 0;
    uint64_t sequence = 0;
    std::string line;
};

} // namespace

std::string dumpImages(const Terminal& terminal, const std::string& dir, const KittyGraphicsState* kitty) {
    std::vector<Listed> listed;
    std::set<std::string> written;
    // Each picture is written once, however many placements show it.
    auto fileFor = [&](const std::string& name, const RgbaImage& pixels) {
        if (written.contains(name))
            return name;
        if (!writeFile(dir + "/" + name, encodePng(pixels)))
            return std::string("-");
        written.insert(name);
        return name;
    };
    auto line = [](uint32_t id, uint32_t placement, const char* source, int row, int col, int cols, int rows,
                   const std::string& file) {
        return "image id=" + std::to_string(id) + " placement=" + std::to_string(placement) +
               " source=" + source + " row=" + std::to_string(row) + " col=" + std::to_string(col) +
               " cols=" + std::to_string(cols) + " rows=" + std::to_string(rows) + " file=" + file + "\n";
    };
    for (const VisiblePlacement& p : visiblePlacements(terminal)) {
        const ImageSlice& s = *p.slice;
        const std::string file =
            fileFor(std::string(sourceName(s.source)) + "-" + std::to_string(s.imageId) + ".png", *s.pixels);
        listed.push_back(
            {s.zIndex, s.sequence,
             line(s.imageId, s.placementId, sourceName(s.source), p.row, p.col, s.cols, s.rows, file)});
    }
    // Placeholder cells have no host to ask for a cell size: the picture fits them as it would
    // at the size a terminal assumes without one.
    if (kitty != nullptr)
        for (const PlaceholderDraw& d :
             resolvePlaceholders(terminal, *kitty, {kFallbackCellWidth, kFallbackCellHeight})) {
            const std::string file = fileFor("kitty-" + std::to_string(d.imageId) + ".png", *d.pixels);
            listed.push_back(
                {d.zIndex, d.sequence,
                 line(d.imageId, d.placementId, "placeholder", d.row, d.col, d.cols, d.rows, file)});
        }
    std::stable_sort(listed.begin(), listed.end(), [](const Listed& a, const Listed& b) {
        return a.zIndex != b.zIndex ? a.zIndex < b.zIndex : a.sequence < b.sequence;
    });
    std::string out;
    for (const Listed& l : listed)
        out += l.line;
    return out;
}

} // namespace termkit
