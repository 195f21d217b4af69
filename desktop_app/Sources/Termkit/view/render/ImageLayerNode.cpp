#include "Termkit/view/render/ImageLayerNode.h"

#include <QImage>
#include <QQuickWindow>
#include <QSGImageNode>
#include <QSGTexture>

#include <set>

namespace termkit {

ImageLayerNode::ImageLayerNode(QQuickWindow* window) {
    // A node never goes without a texture: the software renderer cannot draw one.
    QImage blank(1, 1, QImage::Format_ARGB32_Premultiplied);
    blank.fill(Qt::transparent);
    m_blank = window->createTextureFromImage(blank);
    for (size_t i = 0; i < kNodes; ++i) {
        QSGImageNode* node = window->createImageNode();
        node->setFiltering(QSGTexture::Linear);
        node->setTexture(m_blank);
        node->setRect(QRectF());
        appendChildNode(node);
        m_nodes.push_back(node);
    }
}

ImageLayerNode::~ImageLayerNode() {
    for (auto& [key, entry] : m_textures)
        delete entry.texture;
    delete m_blank;
}

void ImageLayerNode::update(const std::vector<ImageDraw>& draws, QQuickWindow* window) {
    std::set<const RgbaImage*> used;
    for (size_t i = 0; i < m_nodes.size(); ++i) {
        QSGImageNode* node = m_nodes[i];
        if (i >= draws.size()) {
            if (!node->rect().isEmpty() || node->texture() != m_blank) {
                node->setTexture(m_blank);
                node->setRect(QRectF());
            }
            continue;
        }
        const ImageDraw& draw = draws[i];
        Texture& entry = m_textures[draw.pixels.get()];
        if (entry.texture == nullptr) {
            // The image reads the pixels in place; the entry keeps them alive as long.
            const QImage image(draw.pixels->rgba.data(), draw.pixels->width, draw.pixels->height,
                               draw.pixels->width * 4, QImage::Format_RGBA8888);
            entry.pixels = draw.pixels;
            entry.texture = window->createTextureFromImage(image);
        }
        used.insert(draw.pixels.get());
        if (node->texture() != entry.texture)
            node->setTexture(entry.texture);
        node->setSourceRect(draw.source);
        node->setRect(draw.target);
    }
    for (auto it = m_textures.begin(); it != m_textures.end();) {
        if (used.contains(it->first)) {
            ++it;
            continue;
        }
        delete it->second.texture;
        it = m_textures.erase(it);
    }
}

} // namespace termkit
