#pragma once
// The scene-graph material that draws glyph quads from an atlas texture.

#include <QSGMaterial>
#include <QSGMaterialShader>
#include <QSize>

namespace termkit {

/// Samples one of the two atlases: grayscale as coverage times the vertex colour, colour as
/// premultiplied pixels. One material of each kind is shared by every row of a view, so the
/// scene graph can draw all rows' glyphs in one batch.
class GlyphMaterial : public QSGMaterial {
public:
    enum class Kind { grayscale, color };

    explicit GlyphMaterial(Kind kind);

    QSGMaterialType* type() const override;
    QSGMaterialShader* createShader(QSGRendererInterface::RenderMode mode) const override;
    int compare(const QSGMaterial* other) const override;

    Kind kind() const { return m_kind; }
    /// The atlas texture; owned by whoever set it.
    void setTexture(QSGTexture* texture, QSize atlasSize);
    QSGTexture* texture() const { return m_texture; }
    QSize atlasSize() const { return m_atlasSize; }

private:
    Kind m_kind;
    QSGTexture* m_texture = nullptr;
    QSize m_atlasSize{1, 1};
};

/// The vertex layout of glyph quads: position (2 floats), atlas texel (2 floats), colour
/// (4 bytes).
struct GlyphVertex {
    float x;
    float y;
    float u;
    float v;
    unsigned char r;
    unsigned char g;
    unsigned char b;
    unsigned char a;
};

/// The attribute set matching `GlyphVertex`.
const QSGGeometry::AttributeSet& glyphVertexAttributes();

} // namespace termkit
