#pragma once
// An atlas's pixels on the graphics device, uploaded again whenever they changed.

#include <QSize>

#include <cstdint>

class QQuickWindow;
class QSGTexture;

namespace termkit {

class GlyphAtlas;

/// Owns the texture made from an atlas's CPU copy. The whole image is uploaded when the
/// atlas's revision moves: new glyphs arrive in bursts (a new screen of text) and then not
/// at all, so the steady state uploads nothing. Lives on the render thread.
class AtlasTexture {
public:
    AtlasTexture() = default;
    ~AtlasTexture();
    AtlasTexture(const AtlasTexture&) = delete;
    AtlasTexture& operator=(const AtlasTexture&) = delete;

    /// Makes a new texture if the atlas changed since the last upload; true when it did.
    bool update(const GlyphAtlas& atlas, QQuickWindow* window);
    QSGTexture* texture() const { return m_texture; }
    QSize size() const { return m_size; }
    /// Uploads done so far, for measurements.
    uint64_t uploads() const { return m_uploads; }
    void release();

private:
    QSGTexture* m_texture = nullptr;
    QSize m_size;
    uint64_t m_revision = ~0ull;
    uint64_t m_uploads = 0;
};

} // namespace termkit
