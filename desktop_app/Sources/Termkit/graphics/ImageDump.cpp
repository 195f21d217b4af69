#include "Termkit/graphics/ImageDump.h"

#include <cstdio>
#include <set>

#include "Termkit/graphics/ImageCells.h"

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

} // namespace

std::string dumpImages(const Terminal& terminal, const std::string& dir) {
    std::string out;
    std::set<std::string> written;
    for (const VisiblePlacement& p : visiblePlacements(terminal)) {
        const ImageSlice& s = *p.slice;
        std::string name = std::string(sourceName(s.source)) + "-" + std::to_string(s.imageId) + ".png";
        if (!written.contains(name)) {
            if (writeFile(dir + "/" + name, encodePng(*s.pixels)))
                written.insert(name);
            else
                name = "-";
        }
        out += "image id=" + std::to_string(s.imageId) + " placement=" + std::to_string(s.placementId) +
               " source=" + sourceName(s.source) + " row=" + std::to_string(p.row) +
               " col=" + std::to_string(p.col) + " cols=" + std::to_string(s.cols) +
               " rows=" + std::to_string(s.rows) + " file=" + name + "\n";
    }
    return out;
}

} // namespace termkit
