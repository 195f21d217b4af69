#pragma once
// Rarely used per-line data: semantic marks and attached images.

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace termkit {

/// A semantic mark on a line: what starts at a column, and the prompt group it belongs to.
struct SemanticMark {
    uint8_t kind = 0;
    int column = 0;
    uint64_t group = 0;
    bool operator==(const SemanticMark&) const = default;
};

/// An image attached to a line, as the renderer needs it. The image itself is opaque here.
struct TerminalImage {
    std::shared_ptr<const void> image;
    int width = 0;  // pixels
    int height = 0; // pixels
    int col = 0;    // first column
    int cellSpan = 0;
};

/// What only some lines carry; kept out of line so an ordinary line stays small.
struct LineAnnotations {
    std::vector<SemanticMark> semanticMarks;
    std::optional<uint64_t> semanticHardContinuationGroup;
    std::optional<std::vector<TerminalImage>> images;
    bool empty() const { return semanticMarks.empty() && !semanticHardContinuationGroup && !images; }
};

} // namespace termkit
