#pragma once
// Unicode placeholders: a program prints a private-use character in the cells a virtual
// placement should fill, and the picture is drawn there. The cells are ordinary text, so
// the picture scrolls, moves, wraps and is erased with them, and a program that redraws its
// screen (an editor, a multiplexer) keeps the picture without knowing about images.

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "Termkit/buffer/Attribute.h"
#include "Termkit/graphics/ImageCodec.h"

namespace termkit {

class Terminal;
class KittyGraphicsState;

/// The character that marks a cell of a virtual placement.
inline constexpr char32_t kKittyPlaceholderCharacter = 0x10EEEE;
/// How many values a diacritic can carry (0 to this minus one).
inline constexpr int kKittyDiacriticCount = 297;

/// The number a combining mark stands for after the placeholder, or -1 for any other mark.
int kittyDiacriticValue(char32_t mark);
/// The combining mark standing for a number, or 0 when out of range (for producers and tests).
char32_t kittyDiacritic(int value);

/// One cell holding the placeholder, decoded: where it is on the screen (`row`, `col`), the
/// image and placement its colours name, and which cell of the placement it shows.
struct KittyPlaceholderCell {
    int row = 0;
    int col = 0;
    uint32_t imageId = 0;
    uint32_t placementId = 0;
    int placeholderRow = 0;
    int placeholderCol = 0;
    int msb = 0; // the image id's most significant byte
    bool operator==(const KittyPlaceholderCell&) const = default;
};

/// Decodes the placeholder cells of one row, left to right. A cell that leaves out its column
/// (or its column and row) continues the placeholder cell just to its left when that one has
/// the same colours, so programs can write a row's diacritics once.
class KittyPlaceholderDecoder {
public:
    /// Starts a row: nothing is inherited across rows.
    void reset() { m_previous.reset(); }
    /// Whether a cell's text starts with the placeholder (its UTF-8 bytes).
    static bool isPlaceholder(std::string_view cluster);
    /// The cell decoded, or nothing when its text is not a placeholder. Every cell of the row
    /// must pass through here in order, so that the chain of inheritance breaks where it should.
    std::optional<KittyPlaceholderCell> decode(std::string_view cluster, const Attribute& attribute, int row,
                                               int col);

private:
    struct Previous {
        KittyPlaceholderCell cell;
        uint32_t foreground = 0;
        uint32_t underline = 0;
    };
    std::optional<Previous> m_previous;
};

/// A rectangle of placeholder cells on the display and the part of its picture drawn there.
/// Sizes are in cells, so the view draws at whatever cell size it has.
struct PlaceholderDraw {
    std::shared_ptr<const RgbaImage> pixels;
    uint32_t imageId = 0;
    uint32_t placementId = 0;
    int zIndex = 0;
    uint64_t sequence = 0;
    int row = 0; // the top-left cell covered, on the display
    int col = 0;
    int cols = 0; // the cells covered
    int rows = 0;
    double sourceX = 0; // the part of the picture, in its pixels
    double sourceY = 0;
    double sourceWidth = 0;
    double sourceHeight = 0;
    double targetX = 0; // where it goes, in cells from the display's top-left corner
    double targetY = 0;
    double targetWidth = 0;
    double targetHeight = 0;
};

/// Every rectangle of placeholder cells on the display that shows a picture, in ascending
/// z-order. `cellSize` (pixels) decides how the picture fits its placement's cells: scaled to
/// fit, aspect kept, centred. Free when the terminal has no virtual placement: the rows are not
/// even looked at.
std::vector<PlaceholderDraw> resolvePlaceholders(const Terminal& terminal, const KittyGraphicsState& kitty,
                                                 std::pair<int, int> cellSize);

} // namespace termkit
