#include "Termkit/graphics/ImageCells.h"

#include <algorithm>
#include <unordered_map>

#include "Termkit/engine/Terminal.h"

namespace termkit {

TerminalImage makeTerminalImage(std::shared_ptr<const ImageSlice> slice) {
    TerminalImage image;
    image.width = slice->sourceWidth;
    image.height = slice->sourceHeight;
    image.col = slice->col;
    image.cellSpan = slice->cols;
    image.image = std::move(slice);
    return image;
}

std::pair<int, int> terminalCellSize(Terminal& terminal) {
    if (terminal.delegate() != nullptr)
        if (const auto size = terminal.delegate()->cellSizeInPixels(terminal);
            size && size->first > 0 && size->second > 0)
            return *size;
    return {kFallbackCellWidth, kFallbackCellHeight};
}

std::vector<VisiblePlacement> visiblePlacements(const Terminal& terminal) {
    const Buffer& buffer = terminal.buffer();
    std::vector<VisiblePlacement> out;
    if (buffer.linesWithImagesCount() == 0)
        return out;
    std::unordered_map<const PlacementToken*, size_t> seen;
    for (int r = 0; r < buffer.rows(); ++r) {
        const auto* images = buffer.screenLine(ScreenRow(r)).images();
        if (images == nullptr)
            continue;
        for (const TerminalImage& image : *images) {
            auto slice = std::static_pointer_cast<const ImageSlice>(image.image);
            if (seen.contains(slice->token.get()))
                continue;
            seen.emplace(slice->token.get(), out.size());
            out.push_back({slice, r - slice->row, slice->col});
        }
    }
    std::stable_sort(out.begin(), out.end(), [](const VisiblePlacement& a, const VisiblePlacement& b) {
        if (a.slice->zIndex != b.slice->zIndex)
            return a.slice->zIndex < b.slice->zIndex;
        return a.slice->sequence < b.slice->sequence;
    });
    return out;
}

} // namespace termkit
