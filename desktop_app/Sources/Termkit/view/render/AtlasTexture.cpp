#include "Termkit/view/render/AtlasTexture.h"

#include <QImage>
#include <QQuickWindow>
#include <QSGTexture>

#include "Termkit/view/render/GlyphAtlas.h"

namespace termkit {

AtlasTexture::~AtlasTexture() {
    release();
}

void AtlasTexture::release() {
    delete m_texture;
    m_texture = nullptr;
    m_revision = ~0ull;
}

bool AtlasTexture::update(const GlyphAtlas& atlas, QQuickWindow* window) {
    if (window == nullptr || (m_texture != nullptr && atlas.revision() == m_revision))
        return false;
    const int size = atlas.size();
    const QImage::Format format = atlas.format() == GlyphAtlasFormat::grayscale
                                      ? QImage::Format_Grayscale8
                                      : QImage::Format_ARGB32_Premultiplied;
    // A deep copy: the atlas keeps changing after this frame, the texture must not.
    const QImage image = QImage(atlas.data().data(), size, size, size * atlas.bytesPerPixel(), format).copy();
    QSGTexture* texture = window->createTextureFromImage(image);
    if (texture == nullptr)
        return false;
    texture->setFiltering(QSGTexture::Nearest);
    texture->setHorizontalWrapMode(QSGTexture::ClampToEdge);
    texture->setVerticalWrapMode(QSGTexture::ClampToEdge);
    delete m_texture;
    m_texture = texture;
    m_size = QSize(size, size);
    m_revision = atlas.revision();
    ++m_uploads;
    return true;
}

} // namespace termkit
