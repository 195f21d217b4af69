#include "Termkit/view/render/FrameBuilder.h"

#include <algorithm>

namespace termkit {

bool FrameBuilder::buildRow(const RowSource& source, int row, const RowBuildContext& context, bool force) {
    const RowKey key = source.rowKey(row);
    if (!force) {
        if (const RowGeometry* built =
                m_cache.lookup(row, key.lineRef, key.generation, key.bidiParagraphRevision)) {
            const bool blinkCurrent = !built->hasBlink || built->blinkShown == context.blinkShown;
            if (blinkCurrent && !built->incomplete)
                return false;
        }
    }
    // Only rows that changed are copied out of the terminal.
    source.copyRow(row, m_snapshot);
    RowGeometry geometry;
    RowBuilder::build(m_snapshot, row, context, m_glyphs, geometry);
    m_cache.store(row, key.lineRef, key.generation, key.bidiParagraphRevision, std::move(geometry));
    return true;
}

FrameBuilder::Result FrameBuilder::build(const RowSource& source, const CacheSignature& signature,
                                         const RowBuildContext& context) {
    Result result;
    m_glyphs.beginFrame();
    result.allRows = !m_cache.validate(signature);
    const int rows = std::min(source.rowCount(), m_cache.rows());
    for (int r = 0; r < rows; ++r)
        if (buildRow(source, r, context, false))
            result.rebuiltRows.push_back(r);
    if (m_glyphs.takeDidReset()) {
        result.atlasInvalidatedDuringBuild = true;
        result.allRows = true;
        result.rebuiltRows.clear();
        m_cache.invalidateRows();
        m_glyphs.freeze();
        for (int r = 0; r < rows; ++r) {
            buildRow(source, r, context, true);
            result.rebuiltRows.push_back(r);
        }
        // The frozen atlases cannot have reset; what did not fit was skipped.
        m_glyphs.takeDidReset();
    }
    for (int r = 0; r < rows; ++r)
        result.incompleteRows += m_cache.entry(r).data.incomplete ? 1 : 0;
    return result;
}

} // namespace termkit
