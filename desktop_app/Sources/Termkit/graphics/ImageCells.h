#pragma once
// Images on the grid. A placed image is cut into one slice per row it covers, and each slice
// rides on its line as a `TerminalImage`, so that images scroll, go into the scrollback and
// are cleared with the text they sit in without any bookkeeping of their own.

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "Termkit/buffer/LineAnnotations.h"
#include "Termkit/graphics/ImageCodec.h"

namespace termkit {

class Terminal;

/// Which protocol put an image on the grid.
enum class ImageSource : uint8_t { kitty, sixel, inlineImage };

/// Shared by the slices of one placement: while a line holds one of them the placement is
/// alive, and the store only keeps a weak reference to it.
struct PlacementToken {};

/// One row of a placed image, as its line carries it. Sizes are in cells so that the view
/// can draw at any cell size: the image's source rectangle is drawn into the rectangle of
/// `widthInCells` by `heightInCells` cells whose top-left corner is `offsetXInCells` and
/// `offsetYInCells` from the placement's top-left cell.
struct ImageSlice {
    std::shared_ptr<const RgbaImage> pixels;
    std::shared_ptr<PlacementToken> token;
    ImageSource source = ImageSource::kitty;
    uint32_t imageId = 0;
    uint32_t placementId = 0;
    int zIndex = 0;
    uint64_t sequence = 0; // order of placing, which breaks ties of z-index
    int row = 0;           // the placement's row this slice is
    int col = 0;           // the placement's first column
    int cols = 0;          // the placement's size in cells
    int rows = 0;
    int sourceX = 0; // the part of the image shown, in its pixels
    int sourceY = 0;
    int sourceWidth = 0;
    int sourceHeight = 0;
    double offsetXInCells = 0;
    double offsetYInCells = 0;
    double widthInCells = 0;
    double heightInCells = 0;
};

/// The slice a line's image is; every image a graphics-enabled terminal attaches is one.
inline const ImageSlice& imageSlice(const TerminalImage& image) {
    return *static_cast<const ImageSlice*>(image.image.get());
}

/// Wraps a slice for a line.
TerminalImage makeTerminalImage(std::shared_ptr<const ImageSlice> slice);

/// A placement as seen on a buffer: where its first row is now (negative when it has
/// scrolled partly above row 0) and its first slice.
struct VisiblePlacement {
    std::shared_ptr<const ImageSlice> slice;
    int row = 0;
    int col = 0;
};

/// Cell size used when the host does not say.
inline constexpr int kFallbackCellWidth = 10;
inline constexpr int kFallbackCellHeight = 20;

/// The cell size in pixels the terminal's host reports, or the fallback.
std::pair<int, int> terminalCellSize(Terminal& terminal);

/// The placements with at least one row on the active screen, in ascending z-order (and
/// order of placing among equals), each once.
std::vector<VisiblePlacement> visiblePlacements(const Terminal& terminal);

} // namespace termkit
