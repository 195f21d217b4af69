#include "Termkit/view/render/GpuRowsNode.h"

#include <QQuickWindow>

namespace termkit {

namespace {

// Vertex colours in the scene graph are premultiplied.
void premultiplied(uint32_t argb, unsigned char& r, unsigned char& g, unsigned char& b, unsigned char& a) {
    const unsigned alpha = argb >> 24;
    a = static_cast<unsigned char>(alpha);
    r = static_cast<unsigned char>(((argb >> 16) & 0xFF) * alpha / 255);
    g = static_cast<unsigned char>(((argb >> 8) & 0xFF) * alpha / 255);
    b = static_cast<unsigned char>((argb & 0xFF) * alpha / 255);
}

// Six indices make the two triangles of each quad.
template <typename Index> void quadIndices(Index* indices, size_t quads) {
    for (size_t q = 0; q < quads; ++q) {
        const Index base = static_cast<Index>(q * 4);
        Index* i = indices + q * 6;
        i[0] = base;
        i[1] = static_cast<Index>(base + 1);
        i[2] = static_cast<Index>(base + 2);
        i[3] = static_cast<Index>(base + 2);
        i[4] = static_cast<Index>(base + 1);
        i[5] = static_cast<Index>(base + 3);
    }
}

void allocate(QSGGeometry* geometry, size_t quads) {
    geometry->allocate(static_cast<int>(quads * 4), static_cast<int>(quads * 6));
    if (geometry->indexType() == QSGGeometry::UnsignedIntType)
        quadIndices(geometry->indexDataAsUInt(), quads);
    else
        quadIndices(geometry->indexDataAsUShort(), quads);
}

// Gathers one kind of primitive over a range of rows.
template <typename T, typename Select>
size_t countOver(FrameBuilder& frames, int first, int last, Select select) {
    size_t n = 0;
    for (int r = first; r <= last; ++r)
        n += select(frames.row(r)).size();
    return n;
}

template <typename Select>
void fillRects(QSGGeometryNode* node, FrameBuilder& frames, int first, int last, float scale, Select select) {
    QSGGeometry* geometry = node->geometry();
    allocate(geometry, countOver<ColorRect>(frames, first, last, select));
    auto* v = geometry->vertexDataAsColoredPoint2D();
    for (int r = first; r <= last; ++r) {
        for (const ColorRect& rect : select(frames.row(r))) {
            unsigned char cr, cg, cb, ca;
            premultiplied(rect.argb, cr, cg, cb, ca);
            const float x0 = rect.x0 * scale, y0 = rect.y0 * scale, x1 = rect.x1 * scale,
                        y1 = rect.y1 * scale;
            v[0].set(x0, y0, cr, cg, cb, ca);
            v[1].set(x1, y0, cr, cg, cb, ca);
            v[2].set(x0, y1, cr, cg, cb, ca);
            v[3].set(x1, y1, cr, cg, cb, ca);
            v += 4;
        }
    }
    node->markDirty(QSGNode::DirtyGeometry);
}

template <typename Select>
void fillGlyphs(QSGGeometryNode* node, FrameBuilder& frames, int first, int last, float scale,
                Select select) {
    QSGGeometry* geometry = node->geometry();
    allocate(geometry, countOver<GlyphQuad>(frames, first, last, select));
    auto* v = static_cast<GlyphVertex*>(geometry->vertexData());
    for (int r = first; r <= last; ++r) {
        for (const GlyphQuad& q : select(frames.row(r))) {
            // Glyph colours stay straight: the shader premultiplies after the coverage.
            const auto cr = static_cast<unsigned char>((q.argb >> 16) & 0xFF);
            const auto cg = static_cast<unsigned char>((q.argb >> 8) & 0xFF);
            const auto cb = static_cast<unsigned char>(q.argb & 0xFF);
            const auto ca = static_cast<unsigned char>(q.argb >> 24);
            const float x0 = q.x0 * scale, y0 = q.y0 * scale, x1 = q.x1 * scale, y1 = q.y1 * scale;
            v[0] = {x0, y0, static_cast<float>(q.u0), static_cast<float>(q.v0), cr, cg, cb, ca};
            v[1] = {x1, y0, static_cast<float>(q.u1), static_cast<float>(q.v0), cr, cg, cb, ca};
            v[2] = {x0, y1, static_cast<float>(q.u0), static_cast<float>(q.v1), cr, cg, cb, ca};
            v[3] = {x1, y1, static_cast<float>(q.u1), static_cast<float>(q.v1), cr, cg, cb, ca};
            v += 4;
        }
    }
    node->markDirty(QSGNode::DirtyGeometry);
}

} // namespace

GpuRowsNode::GpuRowsNode() = default;

GpuRowsNode::~GpuRowsNode() {
    // Children go first: their geometry refers to the materials below.
    removeAllChildNodes();
    for (RowNodes& row : m_rows)
        for (QSGGeometryNode* node : {row.backgrounds, row.gray, row.color, row.decorations, row.sprites})
            delete node;
}

GpuRowsNode::RowNodes GpuRowsNode::makeRowNodes() {
    // Per frame the whole screen is one geometry, beyond what 16-bit indices can address.
    const int indexType = m_mode == BufferingMode::perFrameAggregated ? QSGGeometry::UnsignedIntType
                                                                      : QSGGeometry::UnsignedShortType;
    auto make = [&](const QSGGeometry::AttributeSet& attributes, QSGMaterial* material) {
        auto* node = new QSGGeometryNode;
        auto* geometry = new QSGGeometry(attributes, 0, 0, indexType);
        geometry->setDrawingMode(QSGGeometry::DrawTriangles);
        node->setGeometry(geometry);
        node->setFlag(QSGNode::OwnsGeometry);
        node->setMaterial(material);
        appendChildNode(node);
        return node;
    };
    const auto& flat = QSGGeometry::defaultAttributes_ColoredPoint2D();
    RowNodes nodes;
    nodes.backgrounds = make(flat, &m_flatMaterial);
    nodes.gray = make(glyphVertexAttributes(), &m_grayMaterial);
    nodes.color = make(glyphVertexAttributes(), &m_colorMaterial);
    nodes.decorations = make(flat, &m_flatMaterial);
    nodes.sprites = make(glyphVertexAttributes(), &m_grayMaterial);
    return nodes;
}

void GpuRowsNode::resize(size_t count) {
    removeAllChildNodes();
    for (RowNodes& row : m_rows)
        for (QSGGeometryNode* node : {row.backgrounds, row.gray, row.color, row.decorations, row.sprites})
            delete node;
    m_rows.clear();
    for (size_t i = 0; i < count; ++i)
        m_rows.push_back(makeRowNodes());
}

void GpuRowsNode::fillRow(const RowNodes& nodes, FrameBuilder& frames, int first, int last, float scale) {
    fillRects(nodes.backgrounds, frames, first, last, scale,
              [](const RowGeometry& g) -> const std::vector<ColorRect>& { return g.backgrounds; });
    fillGlyphs(nodes.gray, frames, first, last, scale,
               [](const RowGeometry& g) -> const std::vector<GlyphQuad>& { return g.gray; });
    fillGlyphs(nodes.color, frames, first, last, scale,
               [](const RowGeometry& g) -> const std::vector<GlyphQuad>& { return g.color; });
    fillRects(nodes.decorations, frames, first, last, scale,
              [](const RowGeometry& g) -> const std::vector<ColorRect>& { return g.decorations; });
    fillGlyphs(nodes.sprites, frames, first, last, scale,
               [](const RowGeometry& g) -> const std::vector<GlyphQuad>& { return g.decorationSprites; });
}

void GpuRowsNode::update(FrameBuilder& frames, const FrameBuilder::Result& result, GlyphCache& glyphs,
                         QQuickWindow* window, BufferingMode mode, float scale) {
    const bool grayChanged = m_grayTexture.update(glyphs.grayscaleAtlas(), window);
    const bool colorChanged = m_colorTexture.update(glyphs.colorAtlas(), window);
    m_grayMaterial.setTexture(m_grayTexture.texture(), m_grayTexture.size());
    m_colorMaterial.setTexture(m_colorTexture.texture(), m_colorTexture.size());

    const int rows = frames.rows();
    const size_t wanted = mode == BufferingMode::perFrameAggregated ? 1 : static_cast<size_t>(rows);
    const bool rebuiltNodes = mode != m_mode || m_rows.size() != wanted;
    if (rebuiltNodes) {
        m_mode = mode;
        resize(wanted);
    }
    if (mode == BufferingMode::perFrameAggregated) {
        if (rows > 0 && (rebuiltNodes || result.allRows || !result.rebuiltRows.empty()))
            fillRow(m_rows.front(), frames, 0, rows - 1, scale);
    } else if (rebuiltNodes || result.allRows) {
        for (int r = 0; r < rows; ++r)
            fillRow(m_rows[static_cast<size_t>(r)], frames, r, r, scale);
    } else {
        for (int r : result.rebuiltRows)
            fillRow(m_rows[static_cast<size_t>(r)], frames, r, r, scale);
    }
    if (grayChanged || colorChanged)
        for (RowNodes& row : m_rows)
            for (QSGGeometryNode* node : {row.gray, row.color, row.sprites})
                node->markDirty(QSGNode::DirtyMaterial);
}

} // namespace termkit
