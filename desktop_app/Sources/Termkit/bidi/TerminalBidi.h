#pragma once
// The visual order of rows holding right-to-left text, computed for display only.

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Termkit/bidi/BidiCharacters.h"
#include "Termkit/bidi/BidiTypes.h"
#include "Termkit/buffer/Buffer.h"

namespace termkit {

/// Lays out rows of a buffer in visual order. A paragraph (rows joined by `isWrapped`) is
/// ordered as one text broken at its row ends, so a wrapped right-to-left sentence reads on
/// from row to row. Nothing in the buffer moves: the result is for the view. Results are
/// kept per paragraph and reused while its lines are unchanged, also after they scroll.
/// Not thread-safe: one per view, on the thread that reads the terminal.
class TerminalBidi {
public:
    /// Paragraphs longer than this are cut into pieces of this many rows, which bounds the
    /// cost of a change to one row.
    static constexpr int kMaximumBidiParagraphRows = 500;
    /// Paragraph results kept; the cache is emptied when it would grow past this.
    static constexpr size_t kMaximumCachedParagraphs = 2048;

    using Joining = bidi::Joining;
    /// One unit of a paragraph: a cell, or a wide character's two cells, with its text.
    struct Cell {
        LineIndex row;
        int logicalCol = 0;
        int width = 1;
        std::string text;
    };
    /// The first and last rows of a paragraph.
    struct ParagraphBounds {
        LineIndex first;
        LineIndex last;
        bool operator==(const ParagraphBounds&) const = default;
    };

    /// Whether a line holds a scalar that can make its order differ from the logical one:
    /// a strong right-to-left letter or a control that opens a right-to-left run.
    static bool mayNeedBidi(const BufferLine& line, const CharacterTable& characters);

    /// The paragraph of a row, searching at most `maximumRows` rows in all.
    static ParagraphBounds paragraphBounds(LineIndex row, const Buffer& buffer,
                                           int maximumRows = kMaximumBidiParagraphRows);
    /// A changed range of rows widened to the whole paragraphs they belong to, which must be
    /// drawn again because a change in one row can reorder the others.
    static std::pair<LineIndex, LineIndex>
    renderingDependencyRange(std::pair<LineIndex, LineIndex> rows, const Buffer& buffer,
                             int maximumRows = kMaximumBidiParagraphRows);

    /// The layout of a row under the bidi state of its paragraph's first line.
    BidiRowLayout layout(LineIndex row, const Buffer& buffer, int maximumRows = kMaximumBidiParagraphRows);
    /// The layout of a row under a given state.
    BidiRowLayout layout(LineIndex row, const Buffer& buffer, const BidiPresentationState& state,
                         int maximumRows = kMaximumBidiParagraphRows);
    /// Whether a row may be shown in other than logical order; false means identity, cheaply.
    bool rowNeedsLayout(LineIndex row, const Buffer& buffer,
                        int maximumRows = kMaximumBidiParagraphRows) const;
    /// The base direction of a row's paragraph.
    BidiDirection paragraphDirection(LineIndex row, const Buffer& buffer,
                                     int maximumRows = kMaximumBidiParagraphRows);

    /// A row's text in visual order, as the view shows it: shaped and mirrored forms, empty
    /// cells as spaces, trailing spaces dropped with `trimRight`.
    static std::string visualText(const BidiRowLayout& layout, const BufferLine& line,
                                  const CharacterTable& characters, bool trimRight = true);

    /// The visual column ranges [start, end) that the logical columns [from, to) of a row
    /// occupy, left to right: a span of mixed text can fall into several pieces.
    static std::vector<std::pair<int, int>> visualRanges(const BidiRowLayout& layout, int from, int to);
    /// Whether the cell at a logical column sits in a right-to-left run (its logical
    /// successor is on its left, or its predecessor on its right).
    static bool isRightToLeftAt(const BidiRowLayout& layout, int logicalCol);

    /// The revision the last paragraph result was given; grows with every new result.
    uint64_t paragraphRevision() const { return m_paragraphRevision; }
    /// The revision of the result a row's layout comes from; it changes when the row's
    /// paragraph had to be laid out again.
    uint64_t layoutRevision(LineIndex row, const Buffer& buffer, int maximumRows = kMaximumBidiParagraphRows);

    /// Paragraph results built and reused since the last reset, for tests and benchmarks.
    uint64_t builds() const { return m_builds; }
    void clearCache() { m_cache.clear(); }

private:
    // What a paragraph's result depends on: each line's identity and content revision.
    struct LineKey {
        const BufferLine* line = nullptr;
        uint64_t identity = 0;
        uint64_t recycleGeneration = 0;
        uint64_t generation = 0;
        bool operator==(const LineKey&) const = default;
    };
    struct ParagraphContentKey {
        std::vector<LineKey> lines;
        BidiPresentationState state;
        int cols = 0;
        bool operator==(const ParagraphContentKey&) const = default;
    };
    struct CachedParagraph {
        ParagraphContentKey key;
        std::vector<BidiRowLayout> rows;
        BidiDirection baseDirection = BidiDirection::leftToRight;
    };

    static ParagraphContentKey contentKey(ParagraphBounds bounds, const Buffer& buffer,
                                          const BidiPresentationState& state);
    const CachedParagraph& paragraphResult(ParagraphBounds bounds, const Buffer& buffer,
                                           const BidiPresentationState& state);
    CachedParagraph buildParagraph(ParagraphBounds bounds, const Buffer& buffer,
                                   const BidiPresentationState& state);

    std::unordered_map<const BufferLine*, CachedParagraph> m_cache;
    uint64_t m_paragraphRevision = 0;
    uint64_t m_builds = 0;
};

} // namespace termkit
