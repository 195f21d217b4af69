#pragma once
// The rows of a terminal as scene-graph geometry, drawn on the GPU.

#include <QSGGeometryNode>
#include <QSGNode>
#include <QSGVertexColorMaterial>

#include <vector>

#include "Termkit/view/TerminalViewSettings.h"
#include "Termkit/view/render/AtlasTexture.h"
#include "Termkit/view/render/FrameBuilder.h"
#include "Termkit/view/render/GlyphMaterial.h"

class QQuickWindow;

namespace termkit {

/// Holds, per row (or for the whole frame when buffering per frame), five geometry nodes:
/// backgrounds, grayscale glyphs, colour glyphs, straight decorations and decoration
/// sprites. Only the nodes of rebuilt rows get new vertices; the materials are shared, so
/// the renderer can batch all rows into a few draw calls. Render thread only.
class GpuRowsNode : public QSGNode {
public:
    GpuRowsNode();
    ~GpuRowsNode() override;

    /// Brings the nodes up to the frame just built. `scale` turns device pixels into item
    /// coordinates (one over the device pixel ratio).
    void update(FrameBuilder& frames, const FrameBuilder::Result& result, GlyphCache& glyphs,
                QQuickWindow* window, BufferingMode mode, float scale);

    const AtlasTexture& grayscaleTexture() const { return m_grayTexture; }
    const AtlasTexture& colorTexture() const { return m_colorTexture; }

private:
    struct RowNodes {
        QSGGeometryNode* backgrounds = nullptr;
        QSGGeometryNode* gray = nullptr;
        QSGGeometryNode* color = nullptr;
        QSGGeometryNode* decorations = nullptr;
        QSGGeometryNode* sprites = nullptr;
    };
    RowNodes makeRowNodes();
    void resize(size_t count);
    void fillRow(const RowNodes& nodes, FrameBuilder& frames, int first, int last, float scale);

    std::vector<RowNodes> m_rows;
    BufferingMode m_mode = BufferingMode::perRowPersistent;
    QSGVertexColorMaterial m_flatMaterial;
    GlyphMaterial m_grayMaterial{GlyphMaterial::Kind::grayscale};
    GlyphMaterial m_colorMaterial{GlyphMaterial::Kind::color};
    AtlasTexture m_grayTexture;
    AtlasTexture m_colorTexture;
};

} // namespace termkit
