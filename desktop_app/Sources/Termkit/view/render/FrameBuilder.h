#pragma once
// A frame's rows, rebuilt only where their lines changed.

#include <cstdint>
#include <vector>

#include "Termkit/view/render/RowBuilder.h"
#include "Termkit/view/render/RowCache.h"

namespace termkit {

/// Identifies the content of a row: the line object shown there, its generation, and the
/// bidi revision of its paragraph.
struct RowKey {
    const void* lineRef = nullptr;
    uint64_t generation = 0;
    uint64_t bidiParagraphRevision = 0;
};

/// Where the rows of a frame come from: the terminal, read through its interface.
class RowSource {
public:
    virtual ~RowSource() = default;
    virtual int rowCount() const = 0;
    /// The key of a screen row as it is displayed now (scroll position applied).
    virtual RowKey rowKey(int row) const = 0;
    /// Copies a row out of the terminal; called only for rows that must be built.
    virtual void copyRow(int row, RowSnapshot& out) const = 0;
};

/// Keeps the built geometry of every row and rebuilds what changed. When an atlas resets
/// while a frame is built, every row holds stale regions: the frame is built again from
/// the start with the atlases frozen, so the second pass cannot pull regions away from the
/// rows it has already built; glyphs that do not fit are skipped in this frame, and their
/// rows are built again in the next.
class FrameBuilder {
public:
    struct Result {
        /// Rows whose geometry is new in this frame.
        std::vector<int> rebuiltRows;
        /// The whole frame was built anew (new signature, or an atlas reset).
        bool allRows = false;
        bool atlasInvalidatedDuringBuild = false;
        /// Rows missing glyphs: another frame should follow.
        int incompleteRows = 0;
    };

    explicit FrameBuilder(GlyphCache& glyphs) : m_glyphs(glyphs) {}

    Result build(const RowSource& source, const CacheSignature& signature, const RowBuildContext& context);

    int rows() const { return m_cache.rows(); }
    const RowGeometry& row(int r) { return m_cache.entry(r).data; }
    RowCache<RowGeometry>& cache() { return m_cache; }
    GlyphCache& glyphs() { return m_glyphs; }

private:
    bool buildRow(const RowSource& source, int row, const RowBuildContext& context, bool force);

    GlyphCache& m_glyphs;
    RowCache<RowGeometry> m_cache;
    RowSnapshot m_snapshot;
};

} // namespace termkit
