#include "Termkit/view/render/GlyphMaterial.h"

#include <QSGTexture>

#include <cstring>

namespace termkit {

namespace {

class GlyphMaterialShader : public QSGMaterialShader {
public:
    explicit GlyphMaterialShader(GlyphMaterial::Kind kind) {
        setShaderFileName(VertexStage, QStringLiteral(":/termkit/shaders/glyph.vert.qsb"));
        setShaderFileName(FragmentStage, kind == GlyphMaterial::Kind::grayscale
                                             ? QStringLiteral(":/termkit/shaders/glyph_gray.frag.qsb")
                                             : QStringLiteral(":/termkit/shaders/glyph_color.frag.qsb"));
    }

    bool updateUniformData(RenderState& state, QSGMaterial* newMaterial, QSGMaterial* oldMaterial) override {
        // The block is laid out as the shaders declare it (std140): matrix, opacity, atlas size.
        QByteArray* buffer = state.uniformData();
        bool changed = false;
        if (state.isMatrixDirty()) {
            const QMatrix4x4 m = state.combinedMatrix();
            std::memcpy(buffer->data(), m.constData(), 64);
            changed = true;
        }
        if (state.isOpacityDirty()) {
            const float opacity = state.opacity();
            std::memcpy(buffer->data() + 64, &opacity, 4);
            changed = true;
        }
        // The atlas size changes when the atlas grows, which the same material survives: the
        // size last written is remembered rather than compared between materials.
        auto* material = static_cast<GlyphMaterial*>(newMaterial);
        if (newMaterial != oldMaterial || material->atlasSize() != m_writtenSize) {
            const float size[2] = {static_cast<float>(material->atlasSize().width()),
                                   static_cast<float>(material->atlasSize().height())};
            std::memcpy(buffer->data() + 72, size, 8);
            m_writtenSize = material->atlasSize();
            changed = true;
        }
        return changed;
    }

    void updateSampledImage(RenderState& state, int binding, QSGTexture** texture, QSGMaterial* newMaterial,
                            QSGMaterial*) override {
        if (binding != 1)
            return;
        auto* material = static_cast<GlyphMaterial*>(newMaterial);
        if (QSGTexture* t = material->texture()) {
            t->commitTextureOperations(state.rhi(), state.resourceUpdateBatch());
            *texture = t;
        }
    }

private:
    QSize m_writtenSize;
};

} // namespace

GlyphMaterial::GlyphMaterial(Kind kind) : m_kind(kind) {
    setFlag(QSGMaterial::Blending, true);
}

QSGMaterialType* GlyphMaterial::type() const {
    static QSGMaterialType grayscaleType;
    static QSGMaterialType colorType;
    return m_kind == Kind::grayscale ? &grayscaleType : &colorType;
}

QSGMaterialShader* GlyphMaterial::createShader(QSGRendererInterface::RenderMode) const {
    return new GlyphMaterialShader(m_kind);
}

int GlyphMaterial::compare(const QSGMaterial* other) const {
    const auto* o = static_cast<const GlyphMaterial*>(other);
    if (m_texture != o->m_texture)
        return m_texture < o->m_texture ? -1 : 1;
    if (m_atlasSize != o->m_atlasSize)
        return m_atlasSize.width() < o->m_atlasSize.width() ? -1 : 1;
    return 0;
}

void GlyphMaterial::setTexture(QSGTexture* texture, QSize atlasSize) {
    m_texture = texture;
    m_atlasSize = atlasSize.isEmpty() ? QSize(1, 1) : atlasSize;
}

const QSGGeometry::AttributeSet& glyphVertexAttributes() {
    static const QSGGeometry::Attribute attributes[] = {
        QSGGeometry::Attribute::createWithAttributeType(0, 2, QSGGeometry::FloatType,
                                                        QSGGeometry::PositionAttribute),
        QSGGeometry::Attribute::createWithAttributeType(1, 2, QSGGeometry::FloatType,
                                                        QSGGeometry::TexCoordAttribute),
        QSGGeometry::Attribute::createWithAttributeType(2, 4, QSGGeometry::UnsignedByteType,
                                                        QSGGeometry::ColorAttribute),
    };
    static const QSGGeometry::AttributeSet set = {3, sizeof(GlyphVertex), attributes};
    return set;
}

} // namespace termkit
